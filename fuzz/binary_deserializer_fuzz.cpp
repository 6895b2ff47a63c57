// Arbitrary bytes into the host's binary serialiser, read as the stored
// Collectors record. Whatever the input, reading must end with a code;
// what it accepts must serialise again and read back the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "host/services/allocator.h"
#include "host/services/binary_serializer.h"
#include "network_traffic_interceptor/src/connection_counters_data.h"
#include "network_traffic_interceptor/src/statistics_meta.h"

namespace {

namespace data = dwi::network_interceptor::connection_counters_data;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static auto* serializer = qor::object::Create<nti::host::BinarySerializer>().Detach();
    static auto* allocator = qor::object::Create<nti::host::MallocAllocator>().Detach();
    static const auto* type = dwi::network_interceptor::FindStatisticsType(data::kCollectorsTypeId);

    data::Collectors record;
    if (!QOR_SUCCEEDED(serializer->Deserialize(bytes, qor::AnyRef{&record, type}, size, 0))) {
        return 0;
    }
    void* ptr = nullptr;
    std::size_t len = 0;
    if (serializer->Serialize(qor::AnyRef{&record, type}, allocator, &ptr, &len, 0) != 0) {
        std::abort();
    }
    data::Collectors again;
    const qor::result_t reread = serializer->Deserialize(ptr, qor::AnyRef{&again, type}, len, 0);
    allocator->Free(ptr);
    if (reread != 0 || !(again == record)) {
        std::abort();
    }
    return 0;
}
