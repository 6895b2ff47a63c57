// MustSucceed ends a benchmark run that measured a failing call: its figures
// would describe an error path, not the work named by the benchmark.
#pragma once

#include <cstdio>
#include <cstdlib>

#include "qor/result.h"

namespace nti::bench {

inline void MustSucceed(qor::result_t result, const char* what) {
    if (!QOR_SUCCEEDED(result)) {
        std::fprintf(stderr, "%s failed: 0x%08x\n", what, static_cast<unsigned>(result));
        std::abort();
    }
}

}  // namespace nti::bench
