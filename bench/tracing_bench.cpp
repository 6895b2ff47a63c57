// Cost of a trace on the packet path: refused (the common case in
// production) and accepted into a sink that drops it.
#include <benchmark/benchmark.h>

#include "dwi_tracing/tracing.h"
#include "host/services/tracer_sink.h"

namespace {

void BM_RefusedLevel800ThroughPrefixTracer(benchmark::State& state) {
    auto sink = qor::object::Create<nti::host::DiscardingTracer>(300);
    auto tracer = qor::trace::CreatePrefixTracer(sink.Get(), "NfQueueInterceptor");
    std::uint32_t id = 7;
    for (auto _ : state) {
        QOR_TRACE(tracer.Get(), 800) << "SetVerdict"
                                     << "() "
                                     << "ALLOW" << id;
        benchmark::DoNotOptimize(id);
    }
}
BENCHMARK(BM_RefusedLevel800ThroughPrefixTracer);

void BM_AcceptedIntoDiscardingSink(benchmark::State& state) {
    auto sink = qor::object::Create<nti::host::DiscardingTracer>(800);
    auto tracer = qor::trace::CreatePrefixTracer(sink.Get(), "NfQueueInterceptor");
    std::uint32_t id = 7;
    for (auto _ : state) {
        QOR_TRACE(tracer.Get(), 800) << "NewPacketReceived"
                                     << "() "
                                     << "id=" << id;
        benchmark::DoNotOptimize(id);
    }
}
BENCHMARK(BM_AcceptedIntoDiscardingSink);

}  // namespace

BENCHMARK_MAIN();
