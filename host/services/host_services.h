// The host services the module reaches through the locator: allocator,
// serialisers, storage factory, metadata provider and key-value storage.
#pragma once

#include <string>

#include "host/services/meta_info_provider.h"
#include "host/services/module_loader.h"
#include "host/services/service_locator.h"
#include "qor/object.h"

namespace nti::host {

// RegisterHostServices registers the allocator, the binary and storage
// serialisers, the storage factory, a key-value storage in `stateDir` (opened
// on first use) and a metadata provider that answers the types of `module`
// (its registry is created on the first lookup). Returns the provider so that the
// host can drop the module's registry before unloading it; throws on
// allocation failure.
qor::object::ImplPtr<MetaInfoProvider> RegisterHostServices(ServiceLocator& locator,
                                                            const ModuleLoader& module,
                                                            const std::string& stateDir);

}  // namespace nti::host
