#include "host/services/host_services.h"

#include "host/services/allocator.h"
#include "host/services/binary_serializer.h"
#include "host/services/key_value_storage.h"
#include "host/services/storage_serializer.h"

namespace nti::host {

qor::object::ImplPtr<MetaInfoProvider> RegisterHostServices(ServiceLocator& locator,
                                                            const ModuleLoader& module,
                                                            const std::string& stateDir) {
    locator.Register<qor::IAllocator>(qor::object::Create<MallocAllocator>().Get());
    locator.Register<qor::IBinarySerializer>(qor::object::Create<BinarySerializer>().Get());
    locator.Register<qor::IStorageSerializer2>(qor::object::Create<StorageSerializer>().Get());
    locator.Register<qor::IStorageFactory>(qor::object::Create<StorageFactory>().Get());
    locator.Register<app_core::component::IKeyValueStorage>(
        qor::object::Create<SqliteKeyValueStorage>(stateDir).Get());
    auto provider = qor::object::Create<MetaInfoProvider>();
    if (module.IsLoaded()) {
        provider->AttachModule(&module, &locator);
    }
    locator.Register<qor::IMetaInfoProvider>(provider.Get());
    return provider;
}

}  // namespace nti::host
