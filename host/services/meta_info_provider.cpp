#include "host/services/meta_info_provider.h"

#include <mutex>
#include <utility>

namespace nti::host {

qor::result_t MetaInfoProvider::GetTypeInfo(std::uint32_t typeId,
                                            const qor::meta::TypeDescriptor** out) noexcept {
    if (out == nullptr) {
        return qor::errors::kInvalidArgument;
    }
    for (int attempt = 0; attempt < 2; ++attempt) {
        {
            std::shared_lock lock(m_mutex);
            const auto it = m_types.find(typeId);
            if (it != m_types.end()) {
                *out = it->second;
                return qor::errors::kOk;
            }
        }
        AddAttachedModule();
    }
    return qor::errors::kNotFound;
}

void MetaInfoProvider::AttachModule(const ModuleLoader* module, qor::IServiceLocator* locator) {
    std::lock_guard lock(m_attachMutex);
    m_module = module;
    m_locator = locator;
}

void MetaInfoProvider::AddAttachedModule() noexcept {
    std::lock_guard lock(m_attachMutex);
    if (const ModuleLoader* module = std::exchange(m_module, nullptr)) {
        try {
            // Without the module's registry the lookup answers "Not found".
            static_cast<void>(AddModule(*module, m_locator));
        } catch (...) {
            // The lookup then answers "Not found".
        }
    }
}

qor::result_t MetaInfoProvider::AddRegistry(qor::IStructMetaInfoRegistry* registry) {
    if (registry == nullptr) {
        return qor::errors::kInvalidArgument;
    }
    std::vector<std::uint32_t> ids;
    qor::result_t result = registry->EnumerateTypes(ids);
    if (!QOR_SUCCEEDED(result)) {
        return result;
    }
    std::unordered_map<std::uint32_t, const qor::meta::TypeDescriptor*> found;
    for (const std::uint32_t id : ids) {
        const qor::meta::TypeDescriptor* type = nullptr;
        result = registry->GetTypeInfo(id, &type);
        if (!QOR_SUCCEEDED(result)) {
            return result;
        }
        if (type == nullptr) {
            return qor::errors::kMetaInfoNotFound;
        }
        found.emplace(id, type);
    }
    std::unique_lock lock(m_mutex);
    m_registries.emplace_back(registry);
    m_types.merge(found);
    return qor::errors::kOk;
}

qor::result_t MetaInfoProvider::AddModule(const ModuleLoader& module,
                                          qor::IServiceLocator* locator) {
    qor::RefPtr<qor::IObject> factoryObject;
    qor::result_t result =
        module.GetObjectFactory(locator, kRegistryFactoryClassId, factoryObject.Ref());
    if (!QOR_SUCCEEDED(result)) {
        return result;
    }
    qor::RefPtr<qor::IObjectFactory> factory;
    result = qor::QueryInterfaceAs(factoryObject.Get(), factory);
    if (!QOR_SUCCEEDED(result)) {
        return result;
    }
    qor::RefPtr<qor::IStructMetaInfoRegistry> registry;
    result = factory->CreateInstance(qor::IStructMetaInfoRegistry::IID, registry.RefVoid());
    if (!QOR_SUCCEEDED(result)) {
        return result;
    }
    return AddRegistry(registry.Get());
}

void MetaInfoProvider::DropRegistries() {
    {
        std::lock_guard attach(m_attachMutex);
        m_module = nullptr;
        m_locator = nullptr;
    }
    decltype(m_registries) registries;
    std::unique_lock lock(m_mutex);
    m_types.clear();
    registries.swap(m_registries);
}

}  // namespace nti::host
