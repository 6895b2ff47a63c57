// Host NFLOG listener and the providers the statistics service reads.
#pragma once

#include <cstdint>
#include <vector>

#include "qor/object.h"

struct nlmsghdr;
struct nlattr;

namespace dwi::firewall {

// INflogDataCallback receives one logged packet: the NFULNL_MSG_PACKET
// message and its attribute table indexed by NFULA_* type (NFULA_MAX + 1
// entries, null where absent). Called on the listener's thread.
struct INflogDataCallback : qor::IObject {
    static constexpr qor::iid_t IID = 0x6A02D4C9;
    virtual void OnData(const nlmsghdr* message, const nlattr* const* attributes) noexcept = 0;

protected:
    ~INflogDataCallback() = default;
};

// INflogListener receives NFLOG groups on its own thread.
struct INflogListener : qor::IObject {
    static constexpr qor::iid_t IID = 0x6A02D4CA;
    // Start binds `groups` and starts the thread; 0x8000006A when started.
    [[nodiscard]] virtual qor::result_t Start(
        const std::vector<std::uint16_t>& groups) noexcept = 0;
    // Stop unbinds and joins the thread; no OnData runs after it returns.
    [[nodiscard]] virtual qor::result_t Stop() noexcept = 0;

protected:
    ~INflogListener() = default;
};

// INflogListenerFactory makes listeners that call `callback`.
struct INflogListenerFactory : qor::IObject {
    static constexpr qor::iid_t IID = 0xE0C1BF43;
    [[nodiscard]] virtual qor::result_t CreateListener(INflogDataCallback* callback,
                                                       INflogListener** out) noexcept = 0;

protected:
    ~INflogListenerFactory() = default;
};

// IIptablesInfoProvider describes the host's iptables.
struct IIptablesInfoProvider : qor::IObject {
    static constexpr qor::iid_t IID = 0x49F88B7F;
    // GetIptablesInfo: bit 0 set when ip6tables is available too (the NFLOG
    // rules are then installed for both families); 0 restricts them to IPv4.
    [[nodiscard]] virtual qor::result_t GetIptablesInfo(std::uint32_t* info) noexcept = 0;

protected:
    ~IIptablesInfoProvider() = default;
};

// StartupData: values the host fixes at start.
struct StartupData {
    std::uint32_t nflogBypassMark = 0;  // packets with this mark are not logged
};

struct IStartupDataProvider : qor::IObject {
    static constexpr qor::iid_t IID = 0xA26C8413;
    [[nodiscard]] virtual qor::result_t GetStartupData(StartupData* data) noexcept = 0;

protected:
    ~IStartupDataProvider() = default;
};

}  // namespace dwi::firewall
