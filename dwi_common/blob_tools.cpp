#include "dwi_common/blob_tools.h"

#include <cstdint>
#include <memory>
#include <string_view>

#include "dwi_tracing/check.h"
#include "qor/exception.h"
#include "qor/memory_io.h"
#include "qor/rtl/objclient.h"
#include "qor/serializer.h"

namespace dwi::tools {
namespace {

using qor::trace_level::kError;

constexpr std::uint32_t SerMode = 0;

// A missing tracer only silences the traces of the binary pair.
qor::RefPtr<qor::ITracer> OptionalTracer(qor::IServiceLocator* sl) noexcept {
    qor::RefPtr<qor::ITracer> tracer;
    if (!QOR_SUCCEEDED(qor::GetInterface(sl, tracer.Ref()))) {
        tracer.Reset();
    }
    return tracer;
}

bool CheckData(qor::ITracer* tracer, const qor::AnyRef& data) noexcept {
    if (data.IsValid()) {
        return true;
    }
    DWI_BOOL_RECORD(tracer, kError, QOR_HERE, "data.IsValid()") << "Data refers to nullptr";
    return false;
}

// Failed traces the checked call `call` when `result` is a failure.
bool Failed(qor::ITracer* tracer, qor::SourceLocation where, std::string_view call,
            qor::result_t result, std::string_view message) noexcept {
    if (QOR_SUCCEEDED(result)) {
        return false;
    }
    DWI_CHECK_RECORD(tracer, kError, where, call, result) << message;
    return true;
}

// MakeIo runs `create`, the construction of a memory IO, tracing a failure
// code as the call `call` and an exception as a failed construction.
template <class Create>
[[nodiscard]] qor::result_t MakeIo(qor::ITracer* tracer, qor::SourceLocation where,
                                   std::string_view call, std::string_view message,
                                   Create&& create) noexcept {
    qor::result_t result = qor::errors::kOk;
    try {
        result = create();
    } catch (...) {
        return qor::CurrentExceptionToResult(tracer, "Exception during object construction: ");
    }
    Failed(tracer, where, call, result, message);
    return result;
}

// StorageSession is the root node of a storage over an IO and the storage
// serialiser that works on it.
struct StorageSession {
    qor::RefPtr<qor::IStorageNode> node;
    qor::RefPtr<qor::IStorageSerializer2> serializer;
};

// OpenSession opens the storage an IO holds, or starts one whose root is
// named "root" when the IO is empty, and obtains the storage serialiser.
[[nodiscard]] qor::result_t OpenSession(qor::ITracer* tracer, qor::IServiceLocator* sl,
                                        qor::IIo* io, std::uint32_t readOnly,
                                        StorageSession& session) {
    qor::RefPtr<qor::IStorageFactory> factory;
    qor::result_t result = qor::GetInterface(sl, factory.Ref());
    if (Failed(tracer, QOR_HERE, "qor::GetInterface(sl, factory.Ref())", result,
               "Cannot get storage factory interface")) {
        return result;
    }
    std::uint64_t size = 0;
    result = io->GetSize(&size);
    if (Failed(tracer, QOR_HERE, "io->GetSize(&size)", result, "Cannot get io size")) {
        return result;
    }
    if (size != 0) {
        result = factory->OpenStorage(io, readOnly, session.node.Ref());
        if (Failed(tracer, QOR_HERE, "factory->OpenStorage(io, readOnly, node.Ref())", result,
                   "Cannot open storage")) {
            return result;
        }
    } else {
        result = factory->CreateStorage(io, "root", session.node.Ref());
        if (Failed(tracer, QOR_HERE, "factory->CreateStorage(io, \"root\", node.Ref())", result,
                   "Cannot create storage")) {
            return result;
        }
    }
    result = qor::GetInterface(sl, session.serializer.Ref());
    Failed(tracer, QOR_HERE, "qor::GetInterface(sl, serializer.Ref())", result,
           "Cannot get IStorageSerializer2 interface");
    return result;
}

}  // namespace

int AnyToBlob(qor::IServiceLocator* sl, const qor::AnyRef& data, qor::ByteVector& dataBlob) {
    const auto tracer = OptionalTracer(sl);
    if (!CheckData(tracer.Get(), data)) {
        return qor::errors::kInvalidArgument;
    }
    qor::RefPtr<qor::IBinarySerializer> serializer;
    qor::result_t result = qor::GetInterface(sl, serializer.Ref());
    if (Failed(tracer.Get(), QOR_HERE, "qor::GetInterface(sl, serializer.Ref())", result,
               "Cannot get IBinarySerializer interface")) {
        return result;
    }
    qor::RefPtr<qor::IAllocator> alloc;
    result = qor::GetInterface(sl, alloc.Ref());
    if (Failed(tracer.Get(), QOR_HERE, "qor::GetInterface(sl, alloc.Ref())", result,
               "Cannot get IAllocator interface")) {
        return result;
    }

    void* ptr = nullptr;
    std::size_t len = 0;
    // The serialiser's buffer goes back to its allocator on every path.
    const auto freeOutput = [&alloc](void** p) {
        if (*p != nullptr) {
            alloc->Free(*p);
        }
    };
    const std::unique_ptr<void*, decltype(freeOutput)> output(&ptr, freeOutput);
    result = serializer->Serialize(data, alloc.Get(), &ptr, &len, SerMode);
    if (Failed(tracer.Get(), QOR_HERE, "serializer->Serialize(data, alloc, &ptr, len, SerMode)",
               result, "Cannot serialize data")) {
        return result;
    }
    dataBlob.clear();
    dataBlob.Assign(static_cast<const std::uint8_t*>(ptr), len);
    return qor::errors::kOk;
}

int AnyFromBlob(qor::IServiceLocator* sl, const qor::ByteVector& dataBlob,
                const qor::AnyRef& data) {
    const auto tracer = OptionalTracer(sl);
    if (!CheckData(tracer.Get(), data)) {
        return qor::errors::kInvalidArgument;
    }
    qor::RefPtr<qor::IBinarySerializer> serializer;
    qor::result_t result = qor::GetInterface(sl, serializer.Ref());
    if (Failed(tracer.Get(), QOR_HERE, "qor::GetInterface(sl, serializer.Ref())", result,
               "Cannot get IBinarySerializer interface")) {
        return result;
    }
    const std::uint8_t* blob = dataBlob.data();
    const std::size_t len = dataBlob.size();
    result = serializer->Deserialize(blob, data, len, SerMode);
    if (Failed(tracer.Get(), QOR_HERE, "serializer->Deserialize(blob, data, len, SerMode)", result,
               "Cannot deserialize data")) {
        return result;
    }
    return qor::errors::kOk;
}

int AnyToStorageBlob(qor::IServiceLocator* sl, const qor::AnyRef& data, qor::ByteVector& buffer) {
    const auto tracer = qor::GetMandatoryInterface<qor::ITracer>(sl);
    qor::RefPtr<qor::IIo> io;
    qor::result_t result =
        MakeIo(tracer.Get(), QOR_HERE,
               "qor::memory_io::CreateReadWriteIo<qor::memory_io::ExternalStorageTraits>( buffer, "
               "io.Ref())",
               "Cannot create io from buffer", [&] {
                   return qor::memory_io::CreateReadWriteIo<qor::memory_io::ExternalStorageTraits>(
                       buffer, io.Ref());
               });
    if (!QOR_SUCCEEDED(result)) {
        return result;
    }
    StorageSession session;
    result = OpenSession(tracer.Get(), sl, io.Get(), 0, session);
    if (!QOR_SUCCEEDED(result)) {
        return result;
    }
    result = session.serializer->Serialize(data, session.node.Get(), 0, 0);
    if (Failed(tracer.Get(), QOR_HERE, "serializer->Serialize(data, node, 0, 0)", result,
               "Cannot serialize data")) {
        return result;
    }
    result = session.node->Flush();
    if (Failed(tracer.Get(), QOR_HERE, "node->Flush()", result, "Cannot flush storage")) {
        return result;
    }
    return qor::errors::kOk;
}

int AnyFromStorageBlob(qor::IServiceLocator* sl, const qor::ByteVector& blob,
                       const qor::AnyRef& data) {
    const auto tracer = qor::GetMandatoryInterface<qor::ITracer>(sl);
    qor::RefPtr<qor::IIo> io;
    qor::result_t result = MakeIo(
        tracer.Get(), QOR_HERE,
        "qor::memory_io::CreateReadOnlyIo<qor::memory_io::ExternalStorageTraits>( blob, io.Ref())",
        "Cannot create io buffer", [&] {
            return qor::memory_io::CreateReadOnlyIo<qor::memory_io::ExternalStorageTraits>(
                blob, io.Ref());
        });
    if (!QOR_SUCCEEDED(result)) {
        return result;
    }
    StorageSession session;
    result = OpenSession(tracer.Get(), sl, io.Get(), 1, session);
    if (!QOR_SUCCEEDED(result)) {
        return result;
    }
    result = session.serializer->Deserialize(data, session.node.Get(),
                                             qor::IStorageSerializer2::Flags::Default, nullptr);
    if (Failed(tracer.Get(), QOR_HERE,
               "serializer->Deserialize( data, node, qor::IStorageSerializer2::Flags::Default, "
               "nullptr)",
               result, "Cannot deserialize data")) {
        return result;
    }
    return qor::errors::kOk;
}

}  // namespace dwi::tools
