#include "host/services/module_loader.h"

#include <dlfcn.h>

namespace nti::host {

ModuleLoader::~ModuleLoader() {
    // A module with live objects stays mapped until the process ends.
    static_cast<void>(Unload());
}

qor::result_t ModuleLoader::Load(const std::string& pathOrName) {
    if (m_handle != nullptr) {
        m_error = "a module is loaded already: " + m_path;
        return qor::errors::kInvalidState;
    }
    m_path = pathOrName.find('/') != std::string::npos ? pathOrName : "lib" + pathOrName + ".so";
    void* handle = dlopen(m_path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        // glibc keeps the dlerror state per thread.
        const char* error = dlerror();  // NOLINT(concurrency-mt-unsafe)
        m_error = error != nullptr ? error : "dlopen failed";
        return qor::errors::kModuleNotFound;
    }
    struct Export {
        const char* name;
        void** slot;
    };
    void* create = nullptr;
    void* factory = nullptr;
    void* canUnload = nullptr;
    const Export exports[] = {{"qorCreateObject", &create},
                              {"qorGetObjectFactory", &factory},
                              {"qorCanUnloadModule", &canUnload}};
    for (const auto& e : exports) {
        static_cast<void>(dlerror());  // NOLINT(concurrency-mt-unsafe): clears this thread's state
        *e.slot = dlsym(handle, e.name);
        if (*e.slot == nullptr) {
            m_error = std::string("module ") + m_path + " does not export " + e.name;
            dlclose(handle);
            return qor::errors::kSymbolNotFound;
        }
    }
    m_handle = handle;
    m_create = reinterpret_cast<qor::CreateObjectFn>(create);
    m_getFactory = reinterpret_cast<qor::GetObjectFactoryFn>(factory);
    m_canUnload = reinterpret_cast<qor::CanUnloadModuleFn>(canUnload);
    m_error.clear();
    return qor::errors::kOk;
}

qor::result_t ModuleLoader::Unload() {
    if (m_handle == nullptr) {
        return qor::errors::kOk;
    }
    if (m_canUnload() != qor::errors::kOk) {
        return qor::errors::kFalse;
    }
    dlclose(m_handle);
    m_handle = nullptr;
    m_create = nullptr;
    m_getFactory = nullptr;
    m_canUnload = nullptr;
    return qor::errors::kOk;
}

qor::result_t ModuleLoader::CreateObject(std::uint32_t clsid, const qor::CreationContext& context,
                                         qor::IObject** out) const {
    if (m_create == nullptr) {
        return qor::errors::kNotInitialized;
    }
    return m_create(clsid, &context, out);
}

qor::result_t ModuleLoader::GetObjectFactory(qor::IServiceLocator* locator, std::uint32_t clsid,
                                             qor::IObject** out) const {
    if (m_getFactory == nullptr) {
        return qor::errors::kNotInitialized;
    }
    return m_getFactory(locator, clsid, out);
}

qor::result_t ModuleLoader::CanUnloadModule() const {
    if (m_canUnload == nullptr) {
        return qor::errors::kNotInitialized;
    }
    return m_canUnload();
}

}  // namespace nti::host
