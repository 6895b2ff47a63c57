// Host firewall services.
#pragma once

#include <cstdint>

#include "dwi/firewall/rules.h"
#include "qor/object.h"

namespace firewall {

// INfqueueQuery hands out NFQUEUE queue numbers.
struct INfqueueQuery : qor::IObject {
    static constexpr qor::iid_t IID = 0xB4BE43FB;

    // GetAvailableQueue reserves `count` consecutive queue numbers and stores
    // the first in `*queueNum`. Returns 0x8000004C when no such run is free.
    [[nodiscard]] virtual qor::result_t GetAvailableQueue(std::uint32_t count,
                                                          std::uint16_t* queueNum) noexcept = 0;

protected:
    ~INfqueueQuery() = default;
};

}  // namespace firewall

namespace dwi::firewall {

// IDynamicRules installs and removes tagged firewall rules.
struct IDynamicRules : qor::IObject {
    static constexpr qor::iid_t IID = 0x4CEB704A;

    // AddRules installs `rules` (all or nothing) tagged with `tag`.
    [[nodiscard]] virtual qor::result_t AddRules(const Rules& rules, const char* tag) noexcept = 0;
    // RemoveRules removes the rules equal to `rules` that were added before.
    [[nodiscard]] virtual qor::result_t RemoveRules(const Rules& rules) noexcept = 0;

protected:
    ~IDynamicRules() = default;
};

}  // namespace dwi::firewall
