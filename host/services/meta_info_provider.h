// The host's metadata provider: the record descriptors the loaded modules'
// registries hand out.
#pragma once

#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

#include "host/services/module_loader.h"
#include "qor/meta.h"
#include "qor/object.h"

namespace nti::host {

// MetaInfoProvider answers type ids from the registries added to it and
// keeps those registries (and so their modules) alive. An attached module's
// registry is created on the first lookup that needs it, so that hosts that
// never ask for metadata keep the module free to unload.
class MetaInfoProvider : public qor::object::Ifaces<qor::IMetaInfoProvider> {
public:
    // The class id under which modules hand out their registry's factory.
    static constexpr std::uint32_t kRegistryFactoryClassId = 0x436294FA;

    [[nodiscard]] qor::result_t GetTypeInfo(
        std::uint32_t typeId, const qor::meta::TypeDescriptor** out) noexcept override;

    // AddRegistry takes in the registry's top-level types. An id answered
    // already keeps its first descriptor.
    [[nodiscard]] qor::result_t AddRegistry(qor::IStructMetaInfoRegistry* registry);

    // AddModule creates the registry of `module` through its factory
    // (kRegistryFactoryClassId) and adds it.
    [[nodiscard]] qor::result_t AddModule(const ModuleLoader& module,
                                          qor::IServiceLocator* locator);

    // AttachModule defers AddModule(module, locator) to the first lookup of
    // an unknown id. Both must outlive the provider or DropRegistries.
    void AttachModule(const ModuleLoader* module, qor::IServiceLocator* locator);

    // DropRegistries detaches the module and drops the registries, so that their modules may
    // unload.
    void DropRegistries();

private:
    void AddAttachedModule() noexcept;

    std::mutex m_attachMutex;
    const ModuleLoader* m_module = nullptr;
    qor::IServiceLocator* m_locator = nullptr;
    std::shared_mutex m_mutex;
    std::vector<qor::RefPtr<qor::IStructMetaInfoRegistry>> m_registries;
    std::unordered_map<std::uint32_t, const qor::meta::TypeDescriptor*> m_types;
};

}  // namespace nti::host
