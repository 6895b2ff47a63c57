// HostContext: a loaded module with a service locator and tracer, as every
// nti command needs.
#pragma once

#include <cstdint>
#include <string>

#include "host/module_loader.h"
#include "host/service_locator.h"
#include "qor/object.h"
#include "qor/trace/tracer.h"

namespace nti::host {

// Options common to every command.
struct CommonOptions {
    std::string module = ModuleLoader::kDefaultModule;  // path or name
    std::uint32_t traceLevel = 300;                     // records above are dropped
    std::string traceFile;                              // empty: stderr
    bool traceJournal = false;  // systemd journal, stderr when it is unavailable
};

class HostContext {
public:
    HostContext() = default;
    HostContext(const HostContext&) = delete;
    HostContext& operator=(const HostContext&) = delete;
    ~HostContext();

    // Open installs the tracer and loads the module. Returns 0 or a failure
    // code with a message in Error().
    qor::result_t Open(const CommonOptions& options);

    ServiceLocator& Locator() { return *m_locator; }
    ModuleLoader& Module() { return m_module; }
    qor::ITracer* Tracer() { return m_tracer.Get(); }
    const std::string& Error() const { return m_error; }

    // CreateObject creates class `clsid` of the module through the locator.
    qor::result_t CreateObject(std::uint32_t clsid, qor::IObject** out);

    // Shutdown drops the services and unloads the module if it allows.
    // Returns the module's unload answer (0 unloaded, 1 objects still live).
    qor::result_t Shutdown();

private:
    qor::RefPtr<ServiceLocator> m_locator;
    qor::RefPtr<qor::ITracer> m_tracer;
    ModuleLoader m_module;
    std::string m_error;
};

}  // namespace nti::host
