// FakePacketCallback records the packets it is given and answers with a set
// verdict and result; an optional hook runs inside the callback.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "network_traffic_interceptor/network_interceptor.h"
#include "qor/object.h"

namespace nti::test {

class FakePacketCallback
    : public qor::object::Ifaces<dwi::network_interceptor::IPacketEventCallback> {
public:
    using Packet = dwi::network_interceptor::Packet;
    using Verdict = dwi::network_interceptor::Verdict;

    struct Seen {
        Packet packet;  // payload pointers are dangling after the call
        std::vector<std::uint8_t> payload;
        Verdict presetVerdict;
    };
    using Hook = std::function<void(Packet&, Verdict&)>;

    qor::result_t OnPacketReceived(Packet& packet, Verdict& verdict) noexcept override {
        Hook hook;
        qor::result_t result = 0;
        {
            std::lock_guard lock(m_mutex);
            m_seen.push_back({packet,
                              std::vector<std::uint8_t>(packet.payloadBegin, packet.payloadEnd),
                              verdict});
            verdict = m_verdict;
            result = m_result;
            hook = m_hook;
        }
        if (hook) {
            hook(packet, verdict);
        }
        m_changed.notify_all();
        return result;
    }

    void Answer(Verdict verdict, qor::result_t result = 0) {
        std::lock_guard lock(m_mutex);
        m_verdict = verdict;
        m_result = result;
    }
    void SetHook(Hook hook) {
        std::lock_guard lock(m_mutex);
        m_hook = std::move(hook);
    }
    std::vector<Seen> Packets() const {
        std::lock_guard lock(m_mutex);
        return m_seen;
    }
    // WaitForPackets waits until `count` packets came, at most `timeout`.
    template <class Duration>
    bool WaitForPackets(std::size_t count, Duration timeout) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return m_seen.size() >= count; });
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Seen> m_seen;
    Verdict m_verdict = Verdict::ALLOW;
    qor::result_t m_result = 0;
    Hook m_hook;
};

}  // namespace nti::test
