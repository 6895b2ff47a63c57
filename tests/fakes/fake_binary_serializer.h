// FakeBinarySerializer records Serialize/Deserialize calls and answers with
// preset bytes and codes.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

#include "qor/object.h"
#include "qor/serializer.h"

namespace nti::test {

class FakeBinarySerializer : public qor::object::Ifaces<qor::IBinarySerializer> {
public:
    struct Call {
        bool serialize;
        qor::AnyRef data;
        std::vector<std::uint8_t> input;  // Deserialize's bytes
        const void* blob = nullptr;
        std::uint32_t mode = 0;
    };

    qor::result_t Serialize(const qor::AnyRef& data, qor::IAllocator* alloc, void** ptr,
                            std::size_t* len, std::uint32_t mode) noexcept override {
        std::lock_guard lock(m_mutex);
        m_calls.push_back({true, data, {}, nullptr, mode});
        if (!QOR_SUCCEEDED(m_serializeResult)) {
            return m_serializeResult;
        }
        void* out = alloc->Allocate(m_output.size());
        if (out == nullptr) {
            return qor::errors::kOutOfMemory;
        }
        if (!m_output.empty()) {
            std::memcpy(out, m_output.data(), m_output.size());
        }
        *ptr = out;
        *len = m_output.size();
        return qor::errors::kOk;
    }

    qor::result_t Deserialize(const void* blob, const qor::AnyRef& data, std::size_t len,
                              std::uint32_t mode) noexcept override {
        std::lock_guard lock(m_mutex);
        const auto* bytes = static_cast<const std::uint8_t*>(blob);
        m_calls.push_back(
            {false, data, std::vector<std::uint8_t>(bytes, bytes + (blob ? len : 0)), blob, mode});
        return m_deserializeResult;
    }

    void SetOutput(std::vector<std::uint8_t> output) {
        std::lock_guard lock(m_mutex);
        m_output = std::move(output);
    }
    void FailSerialize(qor::result_t code) { m_serializeResult = code; }
    void FailDeserialize(qor::result_t code) { m_deserializeResult = code; }
    std::vector<Call> Calls() const {
        std::lock_guard lock(m_mutex);
        return m_calls;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Call> m_calls;
    std::vector<std::uint8_t> m_output;
    std::atomic<qor::result_t> m_serializeResult{0};
    std::atomic<qor::result_t> m_deserializeResult{0};
};

}  // namespace nti::test
