// FakeKeyValueStorage keeps values in memory and can fail each operation.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "qor/object.h"
#include "qor/storage.h"
#include "tests/support/call_log.h"

namespace nti::test {

class FakeKeyValueStorage : public qor::object::Ifaces<app_core::component::IKeyValueStorage> {
public:
    qor::result_t GetValue(const char* key, qor::ByteVector& value) noexcept override {
        std::lock_guard lock(m_mutex);
        LogTo(m_log, std::string("GetValue ") + key);
        if (m_getResult < 0) {
            return m_getResult;
        }
        const auto it = m_values.find(key);
        if (it == m_values.end()) {
            return qor::errors::kNotFound;
        }
        value = it->second;
        return 0;
    }
    qor::result_t SetValue(const char* key, const qor::ByteVector& value) noexcept override {
        std::lock_guard lock(m_mutex);
        LogTo(m_log, std::string("SetValue ") + key);
        if (m_setResult < 0) {
            return m_setResult;
        }
        m_values[key] = value;
        return 0;
    }
    qor::result_t DeleteValue(const char* key) noexcept override {
        std::lock_guard lock(m_mutex);
        LogTo(m_log, std::string("DeleteValue ") + key);
        if (m_deleteResult < 0) {
            return m_deleteResult;
        }
        m_values.erase(key);
        return 0;
    }

    std::optional<qor::ByteVector> Value(const std::string& key) const {
        std::lock_guard lock(m_mutex);
        const auto it = m_values.find(key);
        if (it == m_values.end()) {
            return std::nullopt;
        }
        return it->second;
    }
    void Put(const std::string& key, qor::ByteVector value) {
        std::lock_guard lock(m_mutex);
        m_values[key] = std::move(value);
    }
    void FailGet(qor::result_t code) { m_getResult = code; }
    void FailSet(qor::result_t code) { m_setResult = code; }
    void FailDelete(qor::result_t code) { m_deleteResult = code; }
    void SetLog(CallLog* log) { m_log = log; }

private:
    mutable std::mutex m_mutex;
    std::map<std::string, qor::ByteVector> m_values;
    qor::result_t m_getResult = 0;
    qor::result_t m_setResult = 0;
    qor::result_t m_deleteResult = 0;
    CallLog* m_log = nullptr;
};

}  // namespace nti::test
