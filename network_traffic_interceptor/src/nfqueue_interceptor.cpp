// NfQueueInterceptor lifecycle (Start, Stop, destruction) and its queue rules.
#include "network_traffic_interceptor/src/nfqueue_interceptor.h"

#include <libmnl/libmnl.h>
#include <sys/prctl.h>

#include <memory>
#include <utility>

#include "dwi_common/mnl_parser.h"
#include "dwi_tracing/check.h"
#include "dwi_tracing/tracing.h"
#include "network_traffic_interceptor/src/nfqueue_attributes.h"
#include "qor/exception.h"
#include "qor/rtl/objclient.h"

namespace dwi::network_interceptor {

using qor::result_t;
namespace errors = qor::errors;
namespace level = qor::trace_level;

namespace {

constexpr std::uint32_t kQueueCount = 2;

}  // namespace

NfQueueInterceptor::NfQueueInterceptor(qor::IServiceLocator* serviceLocator, qor::ITracer* tracer,
                                       qor::RefPtr<dwi::firewall::IDynamicRules> firewall)
    : ServiceLocatorProvider(serviceLocator),
      TracerProvider(qor::trace::CreatePrefixTracer(tracer, "NfQueueInterceptor")),
      m_firewall(std::move(firewall)),
      // Slots are touched only as far as messages fill them.
      m_receiveBuffer(
          std::make_unique_for_overwrite<std::uint8_t[]>(kReadBatch * kReceiveSlotStride)),
      m_packetParser(
          GetTracer(),
          [this](const nlmsghdr* nlh, const nlattr** table) {
              return HandlePacket(*m_readingEndpoint, nlh, table);
          },
          kNfqueueMaxAttribute, &NfqueueAttributeChecker()) {
    DWI_TRACE_ENTRY(GetTracer());
    for (unsigned i = 0; i < kReadBatch; ++i) {
        m_receiveVectors[i] = {m_receiveBuffer.get() + i * kReceiveSlotStride, kReceiveBufferSize};
    }
}

NfQueueInterceptor::~NfQueueInterceptor() {
    DWI_TRACE_ENTRY(GetTracer());
    ReapThreads();
    CloseSockets();
}

void NfQueueInterceptor::ReapThreads() noexcept {
    {
        std::lock_guard lock(m_verdictMutex);
        if (m_stop) {
            DWI_IGNORED_RESULT(GetTracer(), m_stop->Notify(), "Cannot stop interceptor thread");
        }
        if (m_stopReply) {
            DWI_IGNORED_RESULT(GetTracer(), m_stopReply->Notify(), "Cannot stop reply thread");
        }
    }
    for (ThreadHandle* thread : {&m_replyThread, &m_pollThread}) {
        // A join from the thread itself fails: that thread frees its object.
        if (*thread && (*thread)->Joinable() && !QOR_SUCCEEDED((*thread)->Join())) {
            (*thread)->Detach();
        }
        thread->reset();
    }
}

void NfQueueInterceptor::CloseSockets() noexcept {
    if (m_input.socket != nullptr) {
        mnl_socket_close(std::exchange(m_input.socket, nullptr));
    }
    if (m_output.socket != nullptr) {
        mnl_socket_close(std::exchange(m_output.socket, nullptr));
    }
}

// ---------------------------------------------------------------------------
// Lifecycle

result_t NfQueueInterceptor::Start(const dwi::firewall::Filter& filter,
                                   IPacketEventCallback* eventCallback,
                                   const char* serviceName) noexcept {
    std::lock_guard lock(m_stateMutex);
    DWI_TRACE_ENTRY(GetTracer());
    try {
        if (!m_stopped) {
            DWI_TRACE_FN(GetTracer(), level::kDebug) << "interceptor is started already";
            return errors::kInvalidState;
        }
        // Only a failed reply-thread start leaves a poll thread behind.
        ReapThreads();

        m_eventCallback = qor::RefPtr<IPacketEventCallback>(eventCallback);
        m_filter = filter;
        m_stopped = false;
        m_tag = serviceName != nullptr ? serviceName : "";

        qor::RefPtr<::firewall::INfqueueQuery> nfqueue;
        {
            result_t _result = qor::GetInterface(GetServiceLocator(), nfqueue.Ref());
            if (QOR_SUCCEEDED(_result) && !nfqueue) {
                _result = errors::kNoInterface;
            }
            if (!QOR_SUCCEEDED(_result)) {
                DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_HERE,
                                 "qor::GetInterface(GetServiceLocator(), nfqueue.Ref())", _result)
                    << "Cannot get firewall::INfqueueQuery interface";
                return _result;
            }
        }
        const std::uint32_t count = kQueueCount;
        std::uint16_t queueNum = 0;
        {
            const result_t _result = nfqueue->GetAvailableQueue(count, &queueNum);
            if (!QOR_SUCCEEDED(_result)) {
                DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_HERE,
                                 "nfqueue->GetAvailableQueue(count, queueNum)", _result)
                    << "Cannot get available NFQUEUE number";
                return _result;
            }
        }
        m_input.queueNumber = queueNum;
        m_output.queueNumber = static_cast<std::uint16_t>(queueNum + 1);
        nfqueue.Reset();

        DWI_CHECK_RETURN(GetTracer(), InitNetLinkSocket(), "Cannot initialize netlink m_socket");

        if (const result_t result = StartThread(this, &NfQueueInterceptor::Run, m_pollThread);
            !QOR_SUCCEEDED(result)) {
            DWI_TRACE_FN(GetTracer(), level::kError) << "Cannot start interceptor thread";
            m_stopped = true;
            return result;
        }
        if (const result_t result =
                StartThread(this, &NfQueueInterceptor::ReplyThread, m_replyThread);
            !QOR_SUCCEEDED(result)) {
            // The poll thread keeps running until the next Start or the end.
            DWI_TRACE_FN(GetTracer(), level::kError) << "Cannot start reply thread";
            m_stopped = true;
            return result;
        }
        return errors::kOk;
    } catch (...) {
        return qor::CurrentExceptionToResult(GetTracer(), "Start");
    }
}

result_t NfQueueInterceptor::Stop() noexcept {
    std::lock_guard lock(m_stateMutex);
    DWI_TRACE_ENTRY(GetTracer());
    if (m_stopped) {
        DWI_TRACE_FN(GetTracer(), level::kDebug) << "interceptor is stopped already";
        return errors::kInvalidState;
    }
    {
        std::lock_guard verdictLock(m_verdictMutex);
        if (m_stop) {
            DWI_CHECK_RETURN(GetTracer(), m_stop->Notify(), "Cannot stop interceptor thread");
        }
    }
    if (m_pollThread && m_pollThread->Joinable()) {
        // Fails only on a self-join: the thread was told to stop and ends alone.
        static_cast<void>(m_pollThread->Join());
    }
    {
        std::lock_guard verdictLock(m_verdictMutex);
        if (m_stopReply) {
            DWI_CHECK_RETURN(GetTracer(), m_stopReply->Notify(), "Cannot stop reply thread");
        }
    }
    if (m_replyThread && m_replyThread->Joinable()) {
        // Fails only on a self-join: the thread was told to stop and ends alone.
        static_cast<void>(m_replyThread->Join());
    }
    {
        // Verdicts left behind name the sockets closed below.
        std::lock_guard verdictLock(m_verdictMutex);
        m_verdicts.clear();
    }
    if (m_input.socket != nullptr) {
        mnl_socket_close(std::exchange(m_input.socket, nullptr));
    }
    m_input.queueNumber = 0xFFFF;
    if (m_output.socket != nullptr) {
        mnl_socket_close(std::exchange(m_output.socket, nullptr));
    }
    m_eventCallback.Reset();
    m_output.queueNumber = 0xFFFF;
    m_stopped = true;
    return errors::kOk;
}
// ---------------------------------------------------------------------------
// Firewall rules

result_t NfQueueInterceptor::SetFirewallRules(bool insert) {
    DWI_TRACE_ENTRY(GetTracer());
    if (!m_firewall) {
        return errors::kNotInitialized;
    }
    dwi::firewall::Rules rules;
    rules.reserve(m_filter.size());
    for (const dwi::firewall::QueueRule& record : m_filter) {
        dwi::firewall::QueueRule rule{};
        rule = record;
        // Received (0) and forwarded-by-input (2) traffic goes to the input queue.
        rule.queueNumber =
            (record.direction & ~static_cast<std::uint32_t>(dwi::firewall::kForwarded)) == 0
                ? m_input.queueNumber
                : m_output.queueNumber;
        rules.emplace_back(std::in_place_index<dwi::firewall::kQueueRuleIndex>, std::move(rule));
    }
    if (insert) {
        const result_t _result = m_firewall->AddRules(rules, m_tag.c_str());
        if (!QOR_SUCCEEDED(_result)) {
            DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_HERE,
                             "m_firewall->AddRules(rules, m_tag)", _result)
                << "Cannot add firewall queue rules";
        }
        return _result;
    }
    const result_t _result = m_firewall->RemoveRules(rules);
    if (!QOR_SUCCEEDED(_result)) {
        DWI_CHECK_RECORD(GetTracer(), level::kError, QOR_HERE, "m_firewall->RemoveRules(rules)",
                         _result)
            << "Cannot remove firewall queue rules";
    }
    return _result;
}

result_t NfQueueInterceptor::AddFirewallRules() {
    DWI_TRACE_ENTRY(GetTracer());
    const bool insert = true;
    DWI_CHECK_RETURN(GetTracer(), SetFirewallRules(insert), "Cannot set firewall rules");
    return errors::kOk;
}

result_t NfQueueInterceptor::RemoveFirewallRules() {
    DWI_TRACE_ENTRY(GetTracer());
    const bool insert = false;
    DWI_CHECK_RETURN(GetTracer(), SetFirewallRules(insert), "Cannot set firewall rules");
    return errors::kOk;
}
}  // namespace dwi::network_interceptor
