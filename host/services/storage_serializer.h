// The host's storage trees (kept in an IO) and the serialiser that writes
// described records into them.
#pragma once

#include <cstdint>
#include <string_view>

#include "qor/object.h"
#include "qor/serializer.h"

namespace nti::host {

// StorageFactory keeps a tree of named nodes in an IO as one CBOR image
// ["nti.storage", version, node], node = [name, value or null, [children]].
// Opening reads the whole image; damaged or foreign images give a failure
// code. Flush rewrites the image from the root.
class StorageFactory : public qor::object::Ifaces<qor::IStorageFactory> {
public:
    static constexpr std::string_view kFormat = "nti.storage";
    static constexpr std::uint64_t kVersion = 1;
    // Trees deeper than this are refused when opened.
    static constexpr int kMaxDepth = 64;
    // Largest image OpenStorage reads.
    static constexpr std::uint64_t kMaxImageSize = 256u << 20;

    qor::result_t CreateStorage(qor::IIo* io, const char* rootName,
                                qor::IStorageNode** root) noexcept override;
    qor::result_t OpenStorage(qor::IIo* io, std::uint32_t readOnly,
                              qor::IStorageNode** root) noexcept override;
};

// StorageSerializer writes a record into a node: the node's value is the
// type id (4 bytes, little-endian), a struct field is a child named after
// it, a vector element a child "item", a present optional a child "value",
// and a primitive the little-endian bytes of its value (an ip_t 4 or 16
// bytes).
class StorageSerializer : public qor::object::Ifaces<qor::IStorageSerializer2> {
public:
    static constexpr int kMaxDepth = 32;

    qor::result_t Serialize(const qor::AnyRef& data, qor::IStorageNode* node, std::uint32_t mode,
                            std::uint32_t flags) noexcept override;
    qor::result_t Deserialize(const qor::AnyRef& data, qor::IStorageNode* node, Flags flags,
                              void* reserved) noexcept override;
};

}  // namespace nti::host
