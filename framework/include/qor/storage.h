// Host key-value storage.
#pragma once

#include "qor/byte_vector.h"
#include "qor/object.h"

namespace app_core::component {

// IKeyValueStorage keeps opaque values by key, durably.
struct IKeyValueStorage : qor::IObject {
    static constexpr qor::iid_t IID = 0xB40A643B;
    // GetValue copies the value of `key` into `value`; 0x8000004C when absent.
    [[nodiscard]] virtual qor::result_t GetValue(const char* key,
                                                 qor::ByteVector& value) noexcept = 0;
    // SetValue stores `value` under `key` atomically (old or new, never torn).
    [[nodiscard]] virtual qor::result_t SetValue(const char* key,
                                                 const qor::ByteVector& value) noexcept = 0;
    // DeleteValue removes `key`; 0 also when it was absent.
    [[nodiscard]] virtual qor::result_t DeleteValue(const char* key) noexcept = 0;

protected:
    ~IKeyValueStorage() = default;
};

}  // namespace app_core::component
