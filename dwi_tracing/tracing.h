// Prefix tracers and the trace conventions of the module's service objects.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "qor/object.h"
#include "qor/service_locator.h"
#include "qor/trace/record.h"
#include "qor/trace/tracer.h"

namespace qor::trace {

// PrefixTracer puts an object's name in front of every message it writes to
// the host tracer. Built over another PrefixTracer it joins the prefixes with
// "::" and writes to that tracer's base, so prefixes never nest.
class PrefixTracer : public object::Ifaces<ITracer, IPrefixTracer> {
public:
    // Text written between the prefix and the message.
    static constexpr std::string_view kSeparator = ": ";

    PrefixTracer(ITracer* tracer, std::string_view name);

    [[nodiscard]] result_t BeginRecord(std::uint32_t level, std::uint32_t* position,
                                       TraceBuffer* buffer) noexcept override;
    [[nodiscard]] result_t CommitRecord(TraceBuffer* buffer,
                                        std::uint32_t length) noexcept override;
    std::uint32_t GetMaxLevel() noexcept override { return m_maxLevel; }

    [[nodiscard]] result_t GetPrefix(const char** prefix, std::uint32_t* length) noexcept override;
    [[nodiscard]] result_t GetBaseTracer(ITracer** out) noexcept override;

    std::string_view Prefix() const noexcept { return m_prefix; }

private:
    RefPtr<ITracer> m_tracer;
    std::uint32_t m_maxLevel = 0;
    std::string m_prefix;  // the prefix followed by kSeparator
    std::uint32_t m_prefixLength = 0;
};

// CreatePrefixTracer wraps `tracer` with `name`. A null tracer gives a null
// result (tracing is then silent).
RefPtr<ITracer> CreatePrefixTracer(ITracer* tracer, std::string_view name);

// The line CreatePrefixTracer(IServiceLocator*, ...) reports when the locator
// has no tracer.
inline constexpr std::uint32_t kNoTracerLine = 107;

// CreatePrefixTracer over the locator's tracer; throws
// CheckResultFailedException ("Expression failed") with the result of
// GetInterface when the locator has none.
RefPtr<ITracer> CreatePrefixTracer(IServiceLocator* sl, std::string_view name);

}  // namespace qor::trace

// Trace conventions of service objects: entry "Name() ", exit "Name() <- ",
// any other message "Name: text".
#define DWI_TRACE_ENTRY(tracer) QOR_TRACE(tracer, ::qor::trace_level::kDebug) << __func__ << "() "
#define DWI_TRACE_EXIT(tracer) QOR_TRACE(tracer, ::qor::trace_level::kDebug) << __func__ << "() <- "
#define DWI_TRACE_FN(tracer, level) QOR_TRACE(tracer, level) << __func__ << ": "
