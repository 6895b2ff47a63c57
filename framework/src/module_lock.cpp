#include <atomic>
#include <cstdint>

#include "qor/object.h"

namespace qor {
std::atomic<std::uint32_t> g_moduleObjectCount{0};
}  // namespace qor
