#include "host/services/cbor_io.h"

#include <cbor.h>

namespace nti::host::cbor {
namespace {

void SetUint(void* ctx, std::uint64_t value) {
    auto* item = static_cast<Item*>(ctx);
    item->type = Item::Type::Uint;
    item->value = value;
}
void SetString(void* ctx, Item::Type type, cbor_data data, std::size_t length) {
    auto* item = static_cast<Item*>(ctx);
    item->type = type;
    item->data = data;
    item->length = length;
}
void SetCount(void* ctx, Item::Type type, std::size_t count) {
    auto* item = static_cast<Item*>(ctx);
    item->type = type;
    item->value = count;
}
void SetOther(void* ctx) {
    static_cast<Item*>(ctx)->type = Item::Type::Other;
}

const cbor_callbacks& Callbacks() {
    static const cbor_callbacks callbacks = [] {
        cbor_callbacks c = cbor_empty_callbacks;
        c.uint8 = [](void* ctx, std::uint8_t v) { SetUint(ctx, v); };
        c.uint16 = [](void* ctx, std::uint16_t v) { SetUint(ctx, v); };
        c.uint32 = [](void* ctx, std::uint32_t v) { SetUint(ctx, v); };
        c.uint64 = [](void* ctx, std::uint64_t v) { SetUint(ctx, v); };
        c.byte_string = [](void* ctx, cbor_data data, std::size_t length) {
            SetString(ctx, Item::Type::Bytes, data, length);
        };
        c.string = [](void* ctx, cbor_data data, std::size_t length) {
            SetString(ctx, Item::Type::Text, data, length);
        };
        c.array_start = [](void* ctx, std::size_t count) {
            SetCount(ctx, Item::Type::Array, count);
        };
        c.map_start = [](void* ctx, std::size_t count) { SetCount(ctx, Item::Type::Map, count); };
        c.boolean = [](void* ctx, bool value) {
            auto* item = static_cast<Item*>(ctx);
            item->type = Item::Type::Bool;
            item->flag = value;
        };
        c.null = [](void* ctx) { static_cast<Item*>(ctx)->type = Item::Type::Null; };
        c.negint8 = [](void* ctx, std::uint8_t) { SetOther(ctx); };
        c.negint16 = [](void* ctx, std::uint16_t) { SetOther(ctx); };
        c.negint32 = [](void* ctx, std::uint32_t) { SetOther(ctx); };
        c.negint64 = [](void* ctx, std::uint64_t) { SetOther(ctx); };
        c.byte_string_start = [](void* ctx) { SetOther(ctx); };
        c.string_start = [](void* ctx) { SetOther(ctx); };
        c.indef_array_start = [](void* ctx) { SetOther(ctx); };
        c.indef_map_start = [](void* ctx) { SetOther(ctx); };
        c.tag = [](void* ctx, std::uint64_t) { SetOther(ctx); };
        c.float2 = [](void* ctx, float) { SetOther(ctx); };
        c.float4 = [](void* ctx, float) { SetOther(ctx); };
        c.float8 = [](void* ctx, double) { SetOther(ctx); };
        c.undefined = [](void* ctx) { SetOther(ctx); };
        c.indef_break = [](void* ctx) { SetOther(ctx); };
        return c;
    }();
    return callbacks;
}

}  // namespace

void Writer::Head(std::size_t written) {
    m_out.insert(m_out.end(), m_head, m_head + written);
}

void Writer::Uint(std::uint64_t value) {
    Head(cbor_encode_uint(value, m_head, sizeof(m_head)));
}

void Writer::Bool(bool value) {
    Head(cbor_encode_bool(value, m_head, sizeof(m_head)));
}

void Writer::Null() {
    Head(cbor_encode_null(m_head, sizeof(m_head)));
}

void Writer::Text(std::string_view text) {
    Head(cbor_encode_string_start(text.size(), m_head, sizeof(m_head)));
    m_out.insert(m_out.end(), text.begin(), text.end());
}

void Writer::Bytes(const std::uint8_t* data, std::size_t size) {
    Head(cbor_encode_bytestring_start(size, m_head, sizeof(m_head)));
    if (size != 0) {
        m_out.insert(m_out.end(), data, data + size);
    }
}

void Writer::Array(std::size_t count) {
    Head(cbor_encode_array_start(count, m_head, sizeof(m_head)));
}

void Writer::Map(std::size_t count) {
    Head(cbor_encode_map_start(count, m_head, sizeof(m_head)));
}

void Writer::Header(std::size_t count, std::string_view format, std::uint64_t version) {
    Array(count);
    Text(format);
    Uint(version);
}

qor::result_t Reader::Next(Item& item) noexcept {
    item = Item{};
    if (m_pos == m_end) {
        return qor::errors::kInvalidSize;
    }
    const cbor_decoder_result decoded = cbor_stream_decode(m_pos, Remaining(), &Callbacks(), &item);
    if (decoded.status == CBOR_DECODER_NEDATA) {
        return qor::errors::kInvalidSize;
    }
    if (decoded.status != CBOR_DECODER_FINISHED || item.type == Item::Type::None ||
        decoded.read == 0 || decoded.read > Remaining()) {
        return qor::errors::kInvalidType;
    }
    m_pos += decoded.read;
    return qor::errors::kOk;
}

qor::result_t Reader::Expect(Item::Type type, Item& item) noexcept {
    const qor::result_t next = Next(item);
    if (!QOR_SUCCEEDED(next)) {
        return next;
    }
    return item.type == type ? qor::errors::kOk : qor::errors::kInvalidType;
}

qor::result_t Reader::ExpectHeader(std::size_t count, std::string_view format,
                                   std::uint64_t version) noexcept {
    Item item;
    qor::result_t read = Expect(Item::Type::Array, item);
    if (!QOR_SUCCEEDED(read)) {
        return read;
    }
    if (item.value != count) {
        return qor::errors::kInvalidSignature;
    }
    read = Expect(Item::Type::Text, item);
    if (!QOR_SUCCEEDED(read)) {
        return read;
    }
    if (item.AsText() != format) {
        return qor::errors::kInvalidSignature;
    }
    read = Expect(Item::Type::Uint, item);
    if (!QOR_SUCCEEDED(read)) {
        return read;
    }
    return item.value == version ? qor::errors::kOk : qor::errors::kInvalidVersion;
}

bool Reader::SkipNull() noexcept {
    constexpr std::uint8_t kNull = 0xF6;
    if (m_pos != m_end && *m_pos == kNull) {
        ++m_pos;
        return true;
    }
    return false;
}

}  // namespace nti::host::cbor
