// GenericObjectFactory: the class factory a module hands out through
// qorGetObjectFactory.
#pragma once

#include "qor/exception.h"
#include "qor/meta.h"
#include "qor/object.h"

namespace qor {

// GenericObjectFactory<T> creates a new T (default-constructed) on every
// CreateInstance and answers the requested interface of it. The factory and
// each instance count in the module lock while they live.
template <class T>
class GenericObjectFactory : public object::Ifaces<IObjectFactory> {
public:
    [[nodiscard]] result_t CreateInstance(iid_t iid, void** out) noexcept override {
        if (out == nullptr) {
            return errors::kInvalidArgument;
        }
        *out = nullptr;
        try {
            auto instance = object::Create<T>();
            return instance->QueryInterface(iid, out);
        } catch (...) {
            return CurrentExceptionToResult(nullptr, "Exception during object construction: ");
        }
    }
};

}  // namespace qor
