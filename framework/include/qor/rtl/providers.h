// Mixins that give a service object its locator and tracer.
#pragma once

#include <utility>

#include "qor/object.h"
#include "qor/service_locator.h"
#include "qor/trace/tracer.h"

namespace qor {

// ServiceLocatorProvider holds a counted reference to the host's locator.
class ServiceLocatorProvider {
public:
    explicit ServiceLocatorProvider(IServiceLocator* sl) noexcept : m_serviceLocator(sl) {}
    IServiceLocator* GetServiceLocator() const noexcept { return m_serviceLocator.Get(); }

protected:
    void ReleaseServiceLocator() noexcept { m_serviceLocator.Reset(); }

private:
    RefPtr<IServiceLocator> m_serviceLocator;
};

// TracerProvider holds the object's tracer (normally a PrefixTracer).
class TracerProvider {
public:
    explicit TracerProvider(RefPtr<ITracer> tracer) noexcept : m_tracer(std::move(tracer)) {}
    ITracer* GetTracer() const noexcept { return m_tracer.Get(); }

protected:
    void ReleaseTracer() noexcept { m_tracer.Reset(); }

private:
    RefPtr<ITracer> m_tracer;
};

}  // namespace qor
