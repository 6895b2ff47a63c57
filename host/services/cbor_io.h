// Minimal CBOR writing and bounded pull-reading over libcbor's encoder and
// stream decoder, shared by the host's serialisers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "qor/result.h"

namespace nti::host::cbor {

// Writer appends definite-length items to a byte vector; std::bad_alloc
// escapes when it cannot grow.
class Writer {
public:
    void Uint(std::uint64_t value);
    void Bool(bool value);
    void Null();
    void Text(std::string_view text);
    void Bytes(const std::uint8_t* data, std::size_t size);
    void Array(std::size_t count);
    void Map(std::size_t count);
    // Header starts an array of `count` items with `format` and `version`.
    void Header(std::size_t count, std::string_view format, std::uint64_t version);

    const std::vector<std::uint8_t>& Output() const noexcept { return m_out; }

private:
    void Head(std::size_t written);

    std::vector<std::uint8_t> m_out;
    unsigned char m_head[9];
};

// Item is the head of one data item (with a definite string's content).
struct Item {
    enum class Type { None, Uint, Bytes, Text, Array, Map, Bool, Null, Other };
    Type type = Type::None;
    std::uint64_t value = 0;  // Uint value, Array/Map count
    const std::uint8_t* data = nullptr;
    std::size_t length = 0;  // Bytes/Text
    bool flag = false;       // Bool

    std::string_view AsText() const noexcept {
        return {reinterpret_cast<const char*>(data), length};
    }
};

// Reader walks the items of a buffer it does not own. Strings are checked to
// lie within the buffer; indefinite lengths, tags, negative and floating
// values read as Other.
class Reader {
public:
    Reader(const std::uint8_t* data, std::size_t size) noexcept : m_pos(data), m_end(data + size) {}

    // Next reads one item: 0x8000005C when the input ends inside it,
    // 0x8000005D when it is malformed.
    [[nodiscard]] qor::result_t Next(Item& item) noexcept;
    // Expect is Next that also demands `type` (0x8000005D otherwise).
    [[nodiscard]] qor::result_t Expect(Item::Type type, Item& item) noexcept;
    // ExpectHeader reads what Writer::Header writes: 0x8000005A for another
    // count or format, 0x8000005B for another version.
    [[nodiscard]] qor::result_t ExpectHeader(std::size_t count, std::string_view format,
                                             std::uint64_t version) noexcept;
    // SkipNull consumes a null item and tells whether there was one.
    bool SkipNull() noexcept;

    std::size_t Remaining() const noexcept { return static_cast<std::size_t>(m_end - m_pos); }

private:
    const std::uint8_t* m_pos;
    const std::uint8_t* m_end;
};

}  // namespace nti::host::cbor
