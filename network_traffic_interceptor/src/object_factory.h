// The module's class table.
#pragma once

#include <cstdint>

#include "qor/object.h"
#include "qor/service_locator.h"
#include "qor/trace/tracer.h"

namespace dwi::network_interceptor {

// CreateFn builds one class's object with count 1; throws on failure.
using CreateFn = qor::RefPtr<qor::IObject> (*)(qor::IServiceLocator* locator, qor::ITracer* tracer);

// FindClass returns the creator of `clsid`, or null for a class that
// qorCreateObject does not make.
CreateFn FindClass(std::uint32_t clsid) noexcept;

// CreateMetaRegistryFactory makes the factory of the metadata registry.
qor::RefPtr<qor::IObject> CreateMetaRegistryFactory();

}  // namespace dwi::network_interceptor
