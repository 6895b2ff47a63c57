// The host tracer interface.
#pragma once

#include <cstdint>

#include "qor/object.h"

namespace qor {

// Trace levels the module uses: a larger number is more detailed.
namespace trace_level {
inline constexpr std::uint32_t kError = 300;
inline constexpr std::uint32_t kWarning = 500;
inline constexpr std::uint32_t kInfo = 700;
inline constexpr std::uint32_t kDebug = 800;
}  // namespace trace_level

// TraceBuffer is one record's growable character buffer, owned by the writer.
// `start` is where the writer's text begins; room in front of it belongs to
// the tracers that reserved it in BeginRecord.
struct TraceBuffer {
    char* data = nullptr;
    std::uint32_t size = 0;
    std::uint32_t capacity = 0;
    std::uint32_t start = 0;
};

struct ITracer : IObject {
    static constexpr iid_t IID = 0x6EF3329B;

    // BeginRecord (slot 3) asks whether a record at `level` is accepted.
    // Returns 0 when it is and 0x8000004A ("Not matched") when the level is
    // above what the tracer lets through. With a buffer, `*position` is in: the
    // room the caller needs in front, out: where the writer's text starts
    // (tracers add the room they reserve). With a null buffer it is a level
    // test only.
    [[nodiscard]] virtual result_t BeginRecord(std::uint32_t level, std::uint32_t* position,
                                               TraceBuffer* buffer) noexcept = 0;
    // CommitRecord (slot 4) hands over the first `length` bytes of a record
    // begun with BeginRecord.
    [[nodiscard]] virtual result_t CommitRecord(TraceBuffer* buffer,
                                                std::uint32_t length) noexcept = 0;
    // GetMaxLevel (slot 5) returns the highest level the tracer accepts.
    virtual std::uint32_t GetMaxLevel() noexcept = 0;

protected:
    ~ITracer() = default;
};

// IPrefixTracer lets a prefix tracer built over another one find its parent's
// prefix and underlying tracer, so prefixes join instead of nesting.
struct IPrefixTracer : IObject {
    static constexpr iid_t IID = 0xCE153B3B;

    // GetPrefix returns the prefix text (not NUL-terminated) and its length.
    [[nodiscard]] virtual result_t GetPrefix(const char** prefix,
                                             std::uint32_t* length) noexcept = 0;
    // GetBaseTracer stores a new reference to the tracer the prefix is written to.
    [[nodiscard]] virtual result_t GetBaseTracer(ITracer** out) noexcept = 0;

protected:
    ~IPrefixTracer() = default;
};

}  // namespace qor
