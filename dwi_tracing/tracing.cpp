#include "dwi_tracing/tracing.h"

#include <cstring>

#include "qor/exception.h"
#include "qor/rtl/objclient.h"

namespace qor::trace {

PrefixTracer::PrefixTracer(ITracer* tracer, std::string_view name) {
    RefPtr<IPrefixTracer> parent;
    if (tracer != nullptr && QOR_SUCCEEDED(QueryInterfaceAs(tracer, parent)) && parent) {
        const char* parentPrefix = nullptr;
        std::uint32_t parentLength = 0;
        RefPtr<ITracer> base;
        if (QOR_SUCCEEDED(parent->GetPrefix(&parentPrefix, &parentLength)) &&
            QOR_SUCCEEDED(parent->GetBaseTracer(base.Ref())) && base) {
            m_prefix.reserve(parentLength + 2 + name.size() + kSeparator.size());
            m_prefix.assign(parentPrefix, parentLength);
            m_prefix.append("::");
            m_tracer = std::move(base);
        }
    }
    if (!m_tracer) {
        m_tracer = RefPtr<ITracer>(tracer);
        m_prefix.reserve(name.size() + kSeparator.size());
    }
    m_prefix.append(name);
    m_prefixLength = static_cast<std::uint32_t>(m_prefix.size());
    m_prefix.append(kSeparator);
    m_maxLevel = m_tracer ? m_tracer->GetMaxLevel() : 0;
}

result_t PrefixTracer::BeginRecord(std::uint32_t level, std::uint32_t* position,
                                   TraceBuffer* buffer) noexcept {
    if (level > m_maxLevel || !m_tracer) {
        return errors::kNotMatched;
    }
    if (buffer == nullptr || position == nullptr) {
        return m_tracer->BeginRecord(level, position, buffer);
    }
    const result_t result = m_tracer->BeginRecord(level, position, buffer);
    if (result != 0) {
        return result;
    }
    *position += static_cast<std::uint32_t>(m_prefix.size());
    return 0;
}

result_t PrefixTracer::CommitRecord(TraceBuffer* buffer, std::uint32_t length) noexcept {
    if (buffer == nullptr || !m_tracer) {
        return errors::kInvalidArgument;
    }
    const auto room = static_cast<std::uint32_t>(m_prefix.size());
    if (buffer->start >= room) {
        std::memcpy(buffer->data + buffer->start - room, m_prefix.data(), room);
    }
    return m_tracer->CommitRecord(buffer, length);
}

result_t PrefixTracer::GetPrefix(const char** prefix, std::uint32_t* length) noexcept {
    if (prefix == nullptr || length == nullptr) {
        return errors::kInvalidArgument;
    }
    *prefix = m_prefix.data();
    *length = m_prefixLength;
    return 0;
}

result_t PrefixTracer::GetBaseTracer(ITracer** out) noexcept {
    if (out == nullptr || !m_tracer) {
        return errors::kInvalidArgument;
    }
    m_tracer->AddRef();
    *out = m_tracer.Get();
    return 0;
}

RefPtr<ITracer> CreatePrefixTracer(ITracer* tracer, std::string_view name) {
    if (tracer == nullptr) {
        return {};
    }
    return object::Create<PrefixTracer>(tracer, name);
}

RefPtr<ITracer> CreatePrefixTracer(IServiceLocator* sl, std::string_view name) {
    RefPtr<ITracer> host;
    const result_t result = GetInterface(sl, host.Ref());
    if (!QOR_SUCCEEDED(result) || !host) {
        throw CheckResultFailedException("Expression failed", QOR_AT(kNoTracerLine),
                                         "qor::GetInterface(sl, tracer.Ref())",
                                         QOR_SUCCEEDED(result) ? errors::kNoInterface : result);
    }
    return CreatePrefixTracer(host.Get(), name);
}

}  // namespace qor::trace
