// FakeIptablesInfoProvider answers a fixed iptables flag value.
#pragma once

#include <cstdint>

#include "dwi/nflog/nflog.h"
#include "qor/object.h"

namespace nti::test {

class FakeIptablesInfoProvider : public qor::object::Ifaces<dwi::firewall::IIptablesInfoProvider> {
public:
    explicit FakeIptablesInfoProvider(std::uint32_t info = 1) : m_info(info) {}

    qor::result_t GetIptablesInfo(std::uint32_t* info) noexcept override {
        if (m_result < 0) {
            return m_result;
        }
        *info = m_info;
        return 0;
    }
    void Fail(qor::result_t code) { m_result = code; }

private:
    std::uint32_t m_info;
    qor::result_t m_result = 0;
};

}  // namespace nti::test
