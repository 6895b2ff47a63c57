// Speed of the host's binary serialiser on the stored Collectors record.
#include <benchmark/benchmark.h>

#include "bench/must_succeed.h"
#include "host/services/allocator.h"
#include "host/services/binary_serializer.h"
#include "network_traffic_interceptor/src/statistics_meta.h"
#include "tests/support/statistics_samples.h"

namespace {

namespace data = dwi::network_interceptor::connection_counters_data;

// Collectors with one collector holding `intervals` intervals of
// `connections` full connection counters each.
data::Collectors MakeRecord(int intervals, int connections) {
    data::Collectors record;
    record.collectors.resize(1);
    auto& ready = record.collectors[0].readyCounters;
    ready.resize(static_cast<std::size_t>(intervals));
    for (auto& interval : ready) {
        interval.counters.assign(static_cast<std::size_t>(connections), nti::test::FullCounter());
    }
    return record;
}

const qor::meta::TypeDescriptor* CollectorsType() {
    return dwi::network_interceptor::FindStatisticsType(data::kCollectorsTypeId);
}

void BM_Serialize(benchmark::State& state) {
    auto record = MakeRecord(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    auto serializer = qor::object::Create<nti::host::BinarySerializer>();
    auto allocator = qor::object::Create<nti::host::MallocAllocator>();
    std::size_t bytes = 0;
    for (auto _ : state) {
        void* ptr = nullptr;
        std::size_t len = 0;
        nti::bench::MustSucceed(serializer->Serialize(qor::AnyRef{&record, CollectorsType()},
                                                      allocator.Get(), &ptr, &len, 0),
                                "Serialize");
        allocator->Free(ptr);
        bytes += len;
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(BM_Serialize)->Args({1, 10})->Args({60, 100});

void BM_Deserialize(benchmark::State& state) {
    auto record = MakeRecord(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    auto serializer = qor::object::Create<nti::host::BinarySerializer>();
    auto allocator = qor::object::Create<nti::host::MallocAllocator>();
    void* ptr = nullptr;
    std::size_t len = 0;
    nti::bench::MustSucceed(serializer->Serialize(qor::AnyRef{&record, CollectorsType()},
                                                  allocator.Get(), &ptr, &len, 0),
                            "Serialize");
    for (auto _ : state) {
        data::Collectors back;
        benchmark::DoNotOptimize(
            serializer->Deserialize(ptr, qor::AnyRef{&back, CollectorsType()}, len, 0));
    }
    allocator->Free(ptr);
    state.SetBytesProcessed(static_cast<std::int64_t>(len * state.iterations()));
}
BENCHMARK(BM_Deserialize)->Args({1, 10})->Args({60, 100});

}  // namespace

BENCHMARK_MAIN();
