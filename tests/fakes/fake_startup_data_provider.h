// FakeStartupDataProvider answers fixed startup data.
#pragma once

#include "dwi/nflog/nflog.h"
#include "qor/object.h"

namespace nti::test {

class FakeStartupDataProvider : public qor::object::Ifaces<dwi::firewall::IStartupDataProvider> {
public:
    explicit FakeStartupDataProvider(dwi::firewall::StartupData data = {}) : m_data(data) {}

    qor::result_t GetStartupData(dwi::firewall::StartupData* data) noexcept override {
        if (m_result < 0) {
            return m_result;
        }
        *data = m_data;
        return 0;
    }
    void Fail(qor::result_t code) { m_result = code; }

private:
    dwi::firewall::StartupData m_data;
    qor::result_t m_result = 0;
};

}  // namespace nti::test
