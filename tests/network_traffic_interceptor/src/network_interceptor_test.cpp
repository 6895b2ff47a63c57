// The interceptor facade: its map, lock, check records and kept quirks, with
// scripted interceptors (real ones run end to end in tests/integration/).
#include "network_traffic_interceptor/src/network_interceptor.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/services/service_locator.h"
#include "network_traffic_interceptor/src/nfqueue_interceptor.h"
#include "tests/fakes/fake_dynamic_rules.h"
#include "tests/fakes/fake_nfqueue_query.h"
#include "tests/fakes/fake_packet_event_callback.h"
#include "tests/support/recording_tracer.h"

namespace {

namespace ni = dwi::network_interceptor;
namespace fw = dwi::firewall;
using nti::test::FakePacketCallback;
using qor::object::Create;
using qor::object::ImplPtr;
using ::testing::Contains;
using ::testing::ElementsAre;

constexpr const char* kFile = "network_traffic_interceptor/src/network_interceptor";

// Script decides what scripted interceptors answer and logs what they are asked.
struct Script {
    std::mutex mutex;
    std::vector<std::string> log;
    qor::result_t startResult = 0;
    std::map<int, qor::result_t> stopResults;  // by serial; 0 when absent
    qor::result_t verdictResult = 0;

    void Add(std::string entry) {
        std::lock_guard lock(mutex);
        log.push_back(std::move(entry));
    }
    std::vector<std::string> Log() {
        std::lock_guard lock(mutex);
        return log;
    }
};

class ScriptedInterceptor : public ni::NfQueueInterceptor {
public:
    ScriptedInterceptor(std::shared_ptr<Script> script, int serial)
        : NfQueueInterceptor(nullptr, nullptr, nullptr),
          m_script(std::move(script)),
          m_serial(serial) {}
    ~ScriptedInterceptor() override { m_script->Add("destroyed " + std::to_string(m_serial)); }

    qor::result_t Start(const fw::Filter& filter, ni::IPacketEventCallback*,
                        const char* serviceName) noexcept override {
        m_script->Add("start " + std::to_string(m_serial) + " " + serviceName + " " +
                      std::to_string(filter.size()));
        return m_script->startResult;
    }
    qor::result_t Stop() noexcept override {
        m_script->Add("stop " + std::to_string(m_serial));
        const auto it = m_script->stopResults.find(m_serial);
        return it == m_script->stopResults.end() ? 0 : it->second;
    }
    qor::result_t SetVerdict(const ni::Packet& packet, std::uint32_t verdict) noexcept override {
        m_script->Add("verdict " + std::to_string(m_serial) + " " + std::to_string(packet.id) +
                      " " + std::to_string(verdict));
        return m_script->verdictResult;
    }

private:
    std::shared_ptr<Script> m_script;
    int m_serial;
};

class ScriptedFacade : public ni::NetworkInterceptor {
public:
    ScriptedFacade(qor::IServiceLocator* locator, qor::ITracer* tracer,
                   std::shared_ptr<Script> script)
        : NetworkInterceptor(locator, tracer), m_script(std::move(script)) {}

protected:
    qor::RefPtr<ni::NfQueueInterceptor> CreateInterceptor(qor::RefPtr<fw::IDynamicRules>) override {
        return Create<ScriptedInterceptor>(m_script, ++m_serial);
    }

private:
    std::shared_ptr<Script> m_script;
    std::atomic<int> m_serial{0};
};

std::string Hex(const void* p) {
    std::ostringstream out;
    out << "0x" << std::hex << reinterpret_cast<std::uintptr_t>(p);
    return out.str();
}

std::string CheckRecord(int line, const std::string& expression, const std::string& result,
                        const std::string& message) {
    return "NetworkInterceptor: " + std::string(kFile) + ":" + std::to_string(line) + "(" +
           expression + "),(QOR_SUCCEEDED(_result)) failed: result = " + result + " " + message;
}

std::string NotFoundRecord(int line, const std::string& key) {
    return "NetworkInterceptor: " + std::string(kFile) + ":" + std::to_string(line) +
           "(it != m_interceptors.end()),(bool) failed: result = false Cannot find " + key;
}

class FacadeTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(m_locator->Register(fw::IDynamicRules::IID, m_rules.Get()), 0);
        m_facade = Create<ScriptedFacade>(m_locator.Get(), m_tracer.Get(), m_script);
    }
    void TearDown() override {
        m_facade.Reset();
        m_locator->Clear();
    }

    ni::IPacketEventCallback* Event(int i) { return m_events[i].Get(); }
    std::vector<std::string> Errors() const {
        std::vector<std::string> lines;
        for (const auto& l : m_tracer->Lines()) {
            if (l.level <= 300) {
                lines.push_back(l.text);
            }
        }
        return lines;
    }

    ImplPtr<nti::test::RecordingTracer> m_tracer = Create<nti::test::RecordingTracer>();
    ImplPtr<nti::host::ServiceLocator> m_locator = Create<nti::host::ServiceLocator>();
    ImplPtr<nti::test::FakeDynamicRules> m_rules = Create<nti::test::FakeDynamicRules>();
    std::shared_ptr<Script> m_script = std::make_shared<Script>();
    ImplPtr<ScriptedFacade> m_facade;
    ImplPtr<FakePacketCallback> m_events[3] = {
        Create<FakePacketCallback>(), Create<FakePacketCallback>(), Create<FakePacketCallback>()};
};

TEST_F(FacadeTest, StopTwiceAndVerdictForKeyZeroReportTheUnknownKey) {
    ASSERT_EQ(m_facade->StartInterception(Event(0), {{}, {}}, "svc"), 0);
    EXPECT_EQ(m_facade->StopInterception(Event(0)), 0);
    EXPECT_EQ(m_facade->StopInterception(Event(0)), qor::errors::kNotFound);
    EXPECT_EQ(m_facade->SetVerdict(nullptr, ni::Packet{}, 0), qor::errors::kNotFound);
    EXPECT_THAT(Errors(),
                ElementsAre(NotFoundRecord(65, Hex(Event(0))), NotFoundRecord(82, "0x0")));
    EXPECT_THAT(m_script->Log(), ElementsAre("start 1 svc 2", "stop 1", "destroyed 1"));
}

TEST_F(FacadeTest, FailedStartRegistersNothing) {
    m_script->startResult = qor::errors::kUnspecified;
    EXPECT_EQ(m_facade->StartInterception(Event(0), {}, "svc"), qor::errors::kUnspecified);
    EXPECT_THAT(Errors(),
                ElementsAre(CheckRecord(44, "interceptor->Start(filter, event, serviceName)",
                                        "0x8000004b (Unspecified error)",
                                        "Cannot start interceptor for svc")));
    EXPECT_THAT(m_script->Log(), ElementsAre("start 1 svc 0", "destroyed 1"));
    EXPECT_EQ(m_facade->StopInterception(Event(0)), qor::errors::kNotFound);
}

TEST_F(FacadeTest, FailedStopKeepsTheEntryForARetry) {
    ASSERT_EQ(m_facade->StartInterception(Event(1), {}, "svc"), 0);
    m_script->stopResults[1] = qor::errors::kInvalidState;
    EXPECT_EQ(m_facade->StopInterception(Event(1)), qor::errors::kInvalidState);
    ni::Packet packet;
    packet.id = 42;
    EXPECT_EQ(m_facade->SetVerdict(Event(1), packet, 1), 0);
    m_script->verdictResult = 1;  // LATER
    EXPECT_EQ(m_facade->SetVerdict(Event(1), packet, 3), 0);
    m_script->verdictResult = qor::errors::kUnspecified;
    EXPECT_EQ(m_facade->SetVerdict(Event(1), packet, 0), qor::errors::kUnspecified);
    EXPECT_THAT(Errors(),
                ElementsAre(CheckRecord(68, "interceptor->Stop()", "0x8000006a (Invalid state)",
                                        "Cannot stop interceptor"),
                            CheckRecord(84, "it->second->SetVerdict(packet, verdict)",
                                        "0x8000004b (Unspecified error)", "Cannot set verdict")));
    m_script->stopResults.clear();
    EXPECT_EQ(m_facade->StopInterception(Event(1)), 0);
    EXPECT_THAT(m_script->Log(),
                ElementsAre("start 1 svc 0", "stop 1", "verdict 1 42 1", "verdict 1 42 3",
                            "verdict 1 42 0", "stop 1", "destroyed 1"));
}

TEST_F(FacadeTest, StartTwiceWithOneEventKeepsTheFirstAndTracesEachEntry) {
    ASSERT_EQ(m_facade->StartInterception(Event(0), {}, "first"), 0);
    ASSERT_EQ(m_facade->StartInterception(Event(0), {}, "second"), 0);
    // The second was started, then released without a Stop.
    EXPECT_THAT(m_script->Log(), ElementsAre("start 1 first 0", "start 2 second 0", "destroyed 2"));
    EXPECT_EQ(m_facade->SetVerdict(Event(0), ni::Packet{}, 0), 0);
    EXPECT_THAT(m_script->Log(), Contains("verdict 1 0 0"));
    ASSERT_EQ(m_facade->StopInterception(Event(0)), 0);
    m_facade.Reset();
    EXPECT_TRUE(Errors().empty());
}

TEST_F(FacadeTest, DestructionStopsEveryInterceptorInKeyOrder) {
    std::vector<int> byKey = {0, 1, 2};
    std::sort(byKey.begin(), byKey.end(), [&](int a, int b) {
        return reinterpret_cast<std::uintptr_t>(Event(a)) <
               reinterpret_cast<std::uintptr_t>(Event(b));
    });
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(m_facade->StartInterception(Event(i), {}, "svc"), 0);
    }
    // Serial i + 1 belongs to Event(i); the middle key fails.
    m_script->stopResults[byKey[1] + 1] = qor::errors::kUnspecified;
    m_facade.Reset();
    std::vector<std::string> stops;
    for (const auto& entry : m_script->Log()) {
        if (entry.rfind("stop", 0) == 0) {
            stops.push_back(entry);
        }
    }
    EXPECT_THAT(stops, ElementsAre("stop " + std::to_string(byKey[0] + 1),
                                   "stop " + std::to_string(byKey[1] + 1),
                                   "stop " + std::to_string(byKey[2] + 1)));
    EXPECT_THAT(Errors(), ElementsAre("NetworkInterceptor: ~NetworkInterceptor: "
                                      "'(interceptor->Stop())=0x8000004b (Unspecified error)' "
                                      "Cannot stop interceptor"));
    EXPECT_EQ(m_script->Log().back().rfind("destroyed", 0), 0u);
}

}  // namespace
