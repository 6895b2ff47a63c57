// Arbitrary bytes as a storage image, opened by the host's storage factory
// and read by the storage serialiser as the stored Collectors record.
// Whatever the input, both must end with a code.
#include <cstddef>
#include <cstdint>

#include "host/services/storage_serializer.h"
#include "network_traffic_interceptor/src/connection_counters_data.h"
#include "network_traffic_interceptor/src/statistics_meta.h"
#include "qor/memory_io.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    namespace data = dwi::network_interceptor::connection_counters_data;
    static auto* factory = qor::object::Create<nti::host::StorageFactory>().Detach();
    static auto* serializer = qor::object::Create<nti::host::StorageSerializer>().Detach();
    static const auto* type = dwi::network_interceptor::FindStatisticsType(data::kCollectorsTypeId);

    const qor::ByteVector image(bytes, size);
    qor::RefPtr<qor::IIo> io;
    if (qor::memory_io::CreateReadOnlyIo<qor::memory_io::ExternalStorageTraits>(image, io.Ref()) !=
        0) {
        return 0;
    }
    qor::RefPtr<qor::IStorageNode> root;
    if (!QOR_SUCCEEDED(factory->OpenStorage(io.Get(), 1, root.Ref()))) {
        return 0;
    }
    data::Collectors record;
    serializer->Deserialize(qor::AnyRef{&record, type}, root.Get(),
                            qor::IStorageSerializer2::Flags::Default, nullptr);
    return 0;
}
