// A module that exports only one of the three entry points.
#include <cstdint>

extern "C" __attribute__((visibility("default"))) std::int32_t qorCreateObject(std::uint32_t,
                                                                               const void*,
                                                                               void**) {
    return 0;
}
