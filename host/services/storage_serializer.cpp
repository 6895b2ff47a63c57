#include "host/services/storage_serializer.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/services/cbor_io.h"
#include "host/services/meta_shape.h"
#include "qor/exception.h"

namespace nti::host {
namespace {

using cbor::Item;
using qor::result_t;
using qor::meta::FieldDescriptor;
using qor::meta::Kind;
using qor::meta::TypeDescriptor;
namespace errors = qor::errors;

struct TreeNode {
    std::string name;
    std::optional<std::vector<std::uint8_t>> value;
    std::vector<std::shared_ptr<TreeNode>> children;
};

// Storage is what all node objects of one tree share.
struct Storage {
    qor::RefPtr<qor::IIo> io;
    bool readOnly = false;
    std::shared_ptr<TreeNode> root;
    std::mutex mutex;
};

void WriteImage(cbor::Writer& out, const TreeNode& node) {
    out.Array(3);
    out.Text(node.name);
    if (node.value) {
        out.Bytes(node.value->data(), node.value->size());
    } else {
        out.Null();
    }
    out.Array(node.children.size());
    for (const auto& child : node.children) {
        WriteImage(out, *child);
    }
}

result_t ReadImage(cbor::Reader& in, TreeNode& node, int depth) {
    if (depth > StorageFactory::kMaxDepth) {
        return errors::kInvalidType;
    }
    Item item;
    result_t read = in.Expect(Item::Type::Array, item);
    if (!QOR_SUCCEEDED(read)) {
        return read;
    }
    if (item.value != 3) {
        return errors::kInvalidType;
    }
    read = in.Expect(Item::Type::Text, item);
    if (!QOR_SUCCEEDED(read)) {
        return read;
    }
    node.name.assign(item.AsText());
    if (!in.SkipNull()) {
        read = in.Expect(Item::Type::Bytes, item);
        if (!QOR_SUCCEEDED(read)) {
            return read;
        }
        node.value.emplace(item.data, item.data + item.length);
    }
    read = in.Expect(Item::Type::Array, item);
    if (!QOR_SUCCEEDED(read)) {
        return read;
    }
    if (item.value > in.Remaining()) {
        return errors::kInvalidSize;
    }
    for (std::uint64_t i = 0; i < item.value; ++i) {
        auto child = std::make_shared<TreeNode>();
        read = ReadImage(in, *child, depth + 1);
        if (!QOR_SUCCEEDED(read)) {
            return read;
        }
        node.children.push_back(std::move(child));
    }
    return errors::kOk;
}

class StorageNode : public qor::object::Ifaces<qor::IStorageNode> {
public:
    StorageNode(std::shared_ptr<Storage> storage, std::shared_ptr<TreeNode> node)
        : m_storage(std::move(storage)), m_node(std::move(node)) {}

    result_t GetName(const char** name) noexcept override {
        if (name == nullptr) {
            return errors::kInvalidArgument;
        }
        *name = m_node->name.c_str();  // names never change
        return errors::kOk;
    }
    result_t GetValue(const void** data, std::size_t* size) noexcept override {
        if (data == nullptr || size == nullptr) {
            return errors::kInvalidArgument;
        }
        std::lock_guard lock(m_storage->mutex);
        if (!m_node->value) {
            return errors::kNotFound;
        }
        *data = m_node->value->data();
        *size = m_node->value->size();
        return errors::kOk;
    }
    result_t SetValue(const void* data, std::size_t size) noexcept override {
        if (data == nullptr && size != 0) {
            return errors::kInvalidArgument;
        }
        return Change([&] {
            const auto* bytes = static_cast<const std::uint8_t*>(data);
            m_node->value.emplace(bytes, bytes + size);
        });
    }
    result_t GetChildCount(std::size_t* count) noexcept override {
        if (count == nullptr) {
            return errors::kInvalidArgument;
        }
        std::lock_guard lock(m_storage->mutex);
        *count = m_node->children.size();
        return errors::kOk;
    }
    result_t GetChild(std::size_t index, qor::IStorageNode** child) noexcept override {
        std::lock_guard lock(m_storage->mutex);
        if (index >= m_node->children.size()) {
            return errors::kOutOfRange;
        }
        return Hand(m_node->children[index], child);
    }
    result_t FindChild(const char* name, qor::IStorageNode** child) noexcept override {
        if (name == nullptr) {
            return errors::kInvalidArgument;
        }
        std::lock_guard lock(m_storage->mutex);
        for (const auto& candidate : m_node->children) {
            if (candidate->name == name) {
                return Hand(candidate, child);
            }
        }
        return errors::kNotFound;
    }
    result_t AddChild(const char* name, qor::IStorageNode** child) noexcept override {
        if (name == nullptr || child == nullptr) {
            return errors::kInvalidArgument;
        }
        std::shared_ptr<TreeNode> added;
        const result_t changed = Change([&] {
            added = std::make_shared<TreeNode>();
            added->name = name;
            m_node->children.push_back(added);
        });
        if (!QOR_SUCCEEDED(changed)) {
            return changed;
        }
        return Hand(added, child);
    }
    result_t Clear() noexcept override {
        return Change([&] {
            m_node->value.reset();
            m_node->children.clear();
        });
    }
    result_t Flush() noexcept override {
        std::lock_guard lock(m_storage->mutex);
        if (m_storage->readOnly) {
            return errors::kAccessDenied;
        }
        try {
            cbor::Writer out;
            out.Header(3, StorageFactory::kFormat, StorageFactory::kVersion);
            WriteImage(out, *m_storage->root);
            const auto& image = out.Output();
            result_t result = m_storage->io->SetSize(0);
            if (QOR_SUCCEEDED(result)) {
                result = m_storage->io->Write(0, image.data(), image.size());
            }
            return result;
        } catch (...) {
            return qor::CurrentExceptionToResult(nullptr, "Flush");
        }
    }

private:
    template <class F>
    result_t Change(F&& change) noexcept {
        std::lock_guard lock(m_storage->mutex);
        if (m_storage->readOnly) {
            return errors::kAccessDenied;
        }
        try {
            change();
            return errors::kOk;
        } catch (...) {
            return qor::CurrentExceptionToResult(nullptr, "StorageNode");
        }
    }
    result_t Hand(const std::shared_ptr<TreeNode>& node, qor::IStorageNode** out) noexcept {
        if (out == nullptr) {
            return errors::kInvalidArgument;
        }
        try {
            *out = qor::object::Create<StorageNode>(m_storage, node).Detach();
            return errors::kOk;
        } catch (...) {
            return errors::kOutOfMemory;
        }
    }

    std::shared_ptr<Storage> m_storage;
    std::shared_ptr<TreeNode> m_node;
};

// Typed access to nodes for the serialiser.
qor::RefPtr<qor::IStorageNode> AddChild(qor::IStorageNode* node, const char* name,
                                        result_t& result) {
    qor::RefPtr<qor::IStorageNode> child;
    result = node->AddChild(name, child.Ref());
    return child;
}

constexpr const char* kTypeIdNode = "typeId";
constexpr const char* kValueNode = "value";
constexpr const char* kItemNode = "item";

using meta_shape::Bytes;

result_t Put(const TypeDescriptor& type, const void* object, qor::IStorageNode* node, int depth) {
    if (depth > StorageSerializer::kMaxDepth) {
        return errors::kInvalidType;
    }
    const std::uint8_t* bytes = nullptr;
    std::size_t size = 0;
    result_t result = errors::kOk;
    if (meta_shape::IsUnsigned(type.kind)) {
        std::uint64_t value = 0;
        result = meta_shape::GetUnsigned(type, object, &value);
        return QOR_SUCCEEDED(result) ? node->SetValue(&value, type.size) : result;
    }
    if (meta_shape::IsRaw(type.kind) || type.kind == Kind::IpAddress) {
        result = type.kind == Kind::IpAddress ? meta_shape::GetAddress(type, object, &bytes, &size)
                                              : meta_shape::GetRaw(type, object, &bytes, &size);
        return QOR_SUCCEEDED(result) ? node->SetValue(bytes, size) : result;
    }
    switch (type.kind) {
        case Kind::Bool: {
            const std::uint8_t value = *static_cast<const bool*>(object) ? 1 : 0;
            return node->SetValue(&value, 1);
        }
        case Kind::String: {
            const auto& text = *static_cast<const std::string*>(object);
            return node->SetValue(text.data(), text.size());
        }
        case Kind::ByteVector: {
            const auto& vector = *static_cast<const std::vector<std::uint8_t>*>(object);
            return node->SetValue(vector.data(), vector.size());
        }
        case Kind::Struct:
            if (!meta_shape::IsValidStruct(type)) {
                return errors::kInvalidType;
            }
            for (std::size_t i = 0; i < type.fieldCount && QOR_SUCCEEDED(result); ++i) {
                const FieldDescriptor& field = type.fields[i];
                const auto child = AddChild(node, field.name, result);
                if (QOR_SUCCEEDED(result)) {
                    result = Put(*field.type, Bytes(object) + field.offset, child.Get(), depth + 1);
                }
            }
            return result;
        case Kind::Vector: {
            if (type.vectorOps == nullptr || type.element == nullptr) {
                return errors::kInvalidType;
            }
            const std::size_t count = type.vectorOps->size(object);
            for (std::size_t i = 0; i < count && QOR_SUCCEEDED(result); ++i) {
                const auto child = AddChild(node, kItemNode, result);
                if (QOR_SUCCEEDED(result)) {
                    result =
                        Put(*type.element, type.vectorOps->at(object, i), child.Get(), depth + 1);
                }
            }
            return result;
        }
        case Kind::Optional: {
            if (type.optionalOps == nullptr || type.element == nullptr) {
                return errors::kInvalidType;
            }
            if (!type.optionalOps->hasValue(object)) {
                return errors::kOk;
            }
            const auto child = AddChild(node, kValueNode, result);
            return QOR_SUCCEEDED(result)
                       ? Put(*type.element, type.optionalOps->value(object), child.Get(), depth + 1)
                       : result;
        }
        default:
            return errors::kInvalidType;
    }
}

result_t Value(qor::IStorageNode* node, const std::uint8_t** data, std::size_t* size) {
    const void* value = nullptr;
    const result_t result = node->GetValue(&value, size);
    *data = static_cast<const std::uint8_t*>(value);
    return result;
}

result_t Get(const TypeDescriptor& type, void* object, qor::IStorageNode* node, int depth) {
    if (depth > StorageSerializer::kMaxDepth) {
        return errors::kInvalidType;
    }
    const std::uint8_t* bytes = nullptr;
    std::size_t size = 0;
    if (type.kind != Kind::Struct && type.kind != Kind::Vector && type.kind != Kind::Optional) {
        const result_t read = Value(node, &bytes, &size);
        if (!QOR_SUCCEEDED(read)) {
            return read;
        }
    }
    if (meta_shape::IsUnsigned(type.kind)) {
        if (size != type.size) {
            return errors::kInvalidSize;
        }
        std::uint64_t value = 0;
        std::memcpy(&value, bytes, size);
        return meta_shape::SetUnsigned(type, object, value);
    }
    if (meta_shape::IsRaw(type.kind)) {
        return meta_shape::SetRaw(type, object, bytes, size);
    }
    result_t result = errors::kOk;
    switch (type.kind) {
        case Kind::IpAddress:
            return meta_shape::SetAddress(type, object, bytes, size);
        case Kind::Bool:
            if (size != 1 || bytes[0] > 1) {
                return errors::kInvalidType;
            }
            *static_cast<bool*>(object) = bytes[0] == 1;
            return errors::kOk;
        case Kind::String:
            static_cast<std::string*>(object)->assign(reinterpret_cast<const char*>(bytes), size);
            return errors::kOk;
        case Kind::ByteVector:
            static_cast<std::vector<std::uint8_t>*>(object)->assign(bytes, bytes + size);
            return errors::kOk;
        case Kind::Struct:
            if (!meta_shape::IsValidStruct(type)) {
                return errors::kInvalidType;
            }
            for (std::size_t i = 0; i < type.fieldCount && QOR_SUCCEEDED(result); ++i) {
                const FieldDescriptor& field = type.fields[i];
                qor::RefPtr<qor::IStorageNode> child;
                result = node->FindChild(field.name, child.Ref());
                if (QOR_SUCCEEDED(result)) {
                    result = Get(*field.type, Bytes(object) + field.offset, child.Get(), depth + 1);
                }
            }
            return result;
        case Kind::Vector: {
            if (type.vectorOps == nullptr || type.element == nullptr) {
                return errors::kInvalidType;
            }
            std::size_t count = 0;
            result = node->GetChildCount(&count);
            if (QOR_SUCCEEDED(result) && !type.vectorOps->resize(object, count)) {
                result = errors::kOutOfMemory;
            }
            for (std::size_t i = 0; i < count && QOR_SUCCEEDED(result); ++i) {
                qor::RefPtr<qor::IStorageNode> child;
                const char* name = nullptr;
                result = node->GetChild(i, child.Ref());
                if (QOR_SUCCEEDED(result)) {
                    result = child->GetName(&name);
                }
                if (QOR_SUCCEEDED(result) && std::strcmp(name, kItemNode) != 0) {
                    result = errors::kInvalidType;
                }
                if (QOR_SUCCEEDED(result)) {
                    result = Get(*type.element, type.vectorOps->mutableAt(object, i), child.Get(),
                                 depth + 1);
                }
            }
            return result;
        }
        case Kind::Optional: {
            if (type.optionalOps == nullptr || type.element == nullptr) {
                return errors::kInvalidType;
            }
            qor::RefPtr<qor::IStorageNode> child;
            result = node->FindChild(kValueNode, child.Ref());
            if (result == errors::kNotFound) {
                type.optionalOps->reset(object);
                return errors::kOk;
            }
            if (!QOR_SUCCEEDED(result)) {
                return result;
            }
            void* value = type.optionalOps->emplace(object);
            return value != nullptr ? Get(*type.element, value, child.Get(), depth + 1)
                                    : errors::kOutOfMemory;
        }
        default:
            return errors::kInvalidType;
    }
}

}  // namespace

result_t StorageFactory::CreateStorage(qor::IIo* io, const char* rootName,
                                       qor::IStorageNode** root) noexcept {
    if (io == nullptr || rootName == nullptr || root == nullptr) {
        return errors::kInvalidArgument;
    }
    try {
        auto storage = std::make_shared<Storage>();
        storage->io = qor::RefPtr<qor::IIo>(io);
        storage->root = std::make_shared<TreeNode>();
        storage->root->name = rootName;
        *root = qor::object::Create<StorageNode>(storage, storage->root).Detach();
        return errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(nullptr, "CreateStorage");
    }
}

result_t StorageFactory::OpenStorage(qor::IIo* io, std::uint32_t readOnly,
                                     qor::IStorageNode** root) noexcept {
    if (io == nullptr || root == nullptr) {
        return errors::kInvalidArgument;
    }
    try {
        std::uint64_t size = 0;
        result_t result = io->GetSize(&size);
        if (!QOR_SUCCEEDED(result)) {
            return result;
        }
        if (size > kMaxImageSize) {
            return errors::kFileTooBig;
        }
        std::vector<std::uint8_t> image(static_cast<std::size_t>(size));
        std::size_t read = 0;
        result = io->Read(0, image.data(), image.size(), &read);
        if (!QOR_SUCCEEDED(result)) {
            return result;
        }
        if (read != image.size()) {
            return errors::kInvalidSize;
        }
        cbor::Reader in(image.data(), image.size());
        result = in.ExpectHeader(3, kFormat, kVersion);
        if (!QOR_SUCCEEDED(result)) {
            return result;
        }
        auto storage = std::make_shared<Storage>();
        storage->io = qor::RefPtr<qor::IIo>(io);
        storage->readOnly = readOnly != 0;
        storage->root = std::make_shared<TreeNode>();
        result = ReadImage(in, *storage->root, 0);
        if (!QOR_SUCCEEDED(result)) {
            return result;
        }
        if (in.Remaining() != 0) {
            return errors::kInvalidSize;
        }
        *root = qor::object::Create<StorageNode>(storage, storage->root).Detach();
        return errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(nullptr, "OpenStorage");
    }
}

result_t StorageSerializer::Serialize(const qor::AnyRef& data, qor::IStorageNode* node,
                                      std::uint32_t mode, std::uint32_t flags) noexcept {
    if (!data.IsValid() || node == nullptr) {
        return errors::kInvalidArgument;
    }
    if (mode != 0 || flags != 0) {
        return errors::kNotSupported;
    }
    try {
        result_t result = node->Clear();
        if (!QOR_SUCCEEDED(result)) {
            return result;
        }
        const auto typeId = AddChild(node, kTypeIdNode, result);
        if (QOR_SUCCEEDED(result)) {
            result = typeId->SetValue(&data.type->typeId, sizeof(data.type->typeId));
        }
        if (!QOR_SUCCEEDED(result)) {
            return result;
        }
        const auto value = AddChild(node, kValueNode, result);
        return QOR_SUCCEEDED(result) ? Put(*data.type, data.object, value.Get(), 0) : result;
    } catch (...) {
        return qor::CurrentExceptionToResult(nullptr, "Serialize");
    }
}

result_t StorageSerializer::Deserialize(const qor::AnyRef& data, qor::IStorageNode* node,
                                        Flags flags, void* reserved) noexcept {
    if (!data.IsValid() || node == nullptr || reserved != nullptr) {
        return errors::kInvalidArgument;
    }
    if (flags != Flags::Default) {
        return errors::kNotSupported;
    }
    try {
        qor::RefPtr<qor::IStorageNode> typeId;
        result_t result = node->FindChild(kTypeIdNode, typeId.Ref());
        if (!QOR_SUCCEEDED(result)) {
            return result;
        }
        const std::uint8_t* bytes = nullptr;
        std::size_t size = 0;
        result = Value(typeId.Get(), &bytes, &size);
        if (!QOR_SUCCEEDED(result)) {
            return result;
        }
        if (size != sizeof(data.type->typeId) ||
            std::memcmp(bytes, &data.type->typeId, sizeof(data.type->typeId)) != 0) {
            return errors::kInvalidType;
        }
        qor::RefPtr<qor::IStorageNode> value;
        result = node->FindChild(kValueNode, value.Ref());
        return QOR_SUCCEEDED(result) ? Get(*data.type, data.object, value.Get(), 0) : result;
    } catch (...) {
        return qor::CurrentExceptionToResult(nullptr, "Deserialize");
    }
}

}  // namespace nti::host
