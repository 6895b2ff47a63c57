#include "network_traffic_interceptor/src/thread_runnable.h"

#include <cerrno>
#include <ctime>

namespace dwi::network_interceptor {
namespace {

// How long Start waits for the new thread to report in before going on.
constexpr time_t kStartWaitSeconds = 10;

class MutexLock {
public:
    explicit MutexLock(pthread_mutex_t& mutex) noexcept : m_mutex(mutex) {
        pthread_mutex_lock(&m_mutex);
    }
    ~MutexLock() { pthread_mutex_unlock(&m_mutex); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    pthread_mutex_t& m_mutex;
};

}  // namespace

ThreadRunnable::ThreadRunnable() {
    pthread_mutex_init(&m_mutex, nullptr);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_cond, &attr);
    pthread_condattr_destroy(&attr);
}

ThreadRunnable::~ThreadRunnable() {
    pthread_cond_destroy(&m_cond);
    pthread_mutex_destroy(&m_mutex);
}

qor::result_t ThreadRunnable::Start() noexcept {
    MutexLock lock(m_mutex);
    if (m_joinable) {
        return qor::errors::kInvalidState;
    }
    m_running = false;
    m_shared.store(1, std::memory_order_release);
    const int error = pthread_create(&m_handle, nullptr, &ThreadRunnable::Entry, this);
    if (error != 0) {
        m_shared.store(0, std::memory_order_release);
        return qor::ErrnoToResult(error);
    }
    m_joinable = true;
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += kStartWaitSeconds;
    while (!m_running) {
        if (pthread_cond_timedwait(&m_cond, &m_mutex, &deadline) == ETIMEDOUT) {
            break;
        }
    }
    return qor::errors::kOk;
}

bool ThreadRunnable::Joinable() const noexcept {
    MutexLock lock(m_mutex);
    return m_joinable;
}

qor::result_t ThreadRunnable::Join() noexcept {
    pthread_t handle{};
    {
        MutexLock lock(m_mutex);
        if (!m_joinable) {
            return qor::errors::kInvalidState;
        }
        handle = m_handle;
    }
    const int error = pthread_join(handle, nullptr);
    if (error != 0) {
        return qor::ErrnoToResult(error);
    }
    MutexLock lock(m_mutex);
    m_joinable = false;
    return qor::errors::kOk;
}

void ThreadRunnable::Detach() noexcept {
    MutexLock lock(m_mutex);
    if (m_joinable && pthread_detach(m_handle) == 0) {
        m_joinable = false;
    }
}

void ThreadRunnable::Release(ThreadRunnable* thread) noexcept {
    if (thread != nullptr) {
        Unshare(thread);
    }
}

void ThreadRunnable::Unshare(ThreadRunnable* thread) noexcept {
    if (thread->m_shared.exchange(0, std::memory_order_acq_rel) == 0) {
        std::unique_ptr<ThreadRunnable> last(thread);
    }
}

void* ThreadRunnable::Entry(void* arg) noexcept {
    auto* self = static_cast<ThreadRunnable*>(arg);
    {
        MutexLock lock(self->m_mutex);
        self->m_running = true;
        pthread_cond_broadcast(&self->m_cond);
    }
    self->m_result = self->Body();
    Unshare(self);
    return nullptr;
}

}  // namespace dwi::network_interceptor
