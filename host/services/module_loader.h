// ModuleLoader loads a component module and resolves its three exports.
#pragma once

#include <string>

#include "qor/result.h"
#include "qor/service_locator.h"

namespace nti::host {

class ModuleLoader {
public:
    // Name the module is found by through the dynamic loader's search.
    static constexpr const char* kDefaultModule = "network_traffic_interceptor";

    ModuleLoader() = default;
    ModuleLoader(const ModuleLoader&) = delete;
    ModuleLoader& operator=(const ModuleLoader&) = delete;
    // Unloads when the module allows it (see Unload).
    ~ModuleLoader();

    // Load opens `pathOrName`: a path when it contains '/', else the module
    // name, searched as "lib<name>.so". Returns 0, or a failure code with the
    // loader's message in Error() (a missing export is named there).
    [[nodiscard]] qor::result_t Load(const std::string& pathOrName);

    // Unload closes the library only when qorCanUnloadModule says 0.
    // Returns 0 when unloaded, 1 when the module still has live objects.
    [[nodiscard]] qor::result_t Unload();

    bool IsLoaded() const noexcept { return m_handle != nullptr; }
    const std::string& Error() const noexcept { return m_error; }
    const std::string& Path() const noexcept { return m_path; }

    [[nodiscard]] qor::result_t CreateObject(std::uint32_t clsid,
                                             const qor::CreationContext& context,
                                             qor::IObject** out) const;
    [[nodiscard]] qor::result_t GetObjectFactory(qor::IServiceLocator* locator, std::uint32_t clsid,
                                                 qor::IObject** out) const;
    [[nodiscard]] qor::result_t CanUnloadModule() const;

private:
    void* m_handle = nullptr;
    qor::CreateObjectFn m_create = nullptr;
    qor::GetObjectFactoryFn m_getFactory = nullptr;
    qor::CanUnloadModuleFn m_canUnload = nullptr;
    std::string m_error;
    std::string m_path;
};

}  // namespace nti::host
