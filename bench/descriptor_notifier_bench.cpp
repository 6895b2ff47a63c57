// One Notify and the Reset that consumes it, per implementation.
#include <benchmark/benchmark.h>

#include "dwi_common/descriptor_notifier.h"

namespace {

template <class Notifier>
void BM_NotifyReset(benchmark::State& state) {
    Notifier notifier(false);
    for (auto _ : state) {
        benchmark::DoNotOptimize(notifier.Notify());
        benchmark::DoNotOptimize(notifier.Reset());
    }
}

BENCHMARK(BM_NotifyReset<dwi::detail::EventFdDescriptorNotifier>);
BENCHMARK(BM_NotifyReset<dwi::detail::PipeDescriptorNotifier>);
BENCHMARK(BM_NotifyReset<dwi::DescriptorNotifier>);

}  // namespace
