// Threads that run a member function returning a result code.
#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>

#include "qor/result.h"

namespace dwi::network_interceptor {

// ThreadRunnable is one thread, shared by the running thread and its owner.
// Whichever of the two lets go last frees it, so an owner may detach a thread
// that it cannot join (a join from the thread itself) and forget it.
class ThreadRunnable {
public:
    virtual ~ThreadRunnable();
    ThreadRunnable(const ThreadRunnable&) = delete;
    ThreadRunnable& operator=(const ThreadRunnable&) = delete;

    // Start creates the thread and waits until it runs. Returns 0 or the
    // pthread_create error as a result code.
    [[nodiscard]] qor::result_t Start() noexcept;
    // Joinable is true from a successful Start to a successful Join or Detach.
    bool Joinable() const noexcept;
    // Join waits for the end of the thread and clears the joinable flag.
    // Called from the thread itself it fails with EDEADLK's code and leaves
    // the flag set.
    [[nodiscard]] qor::result_t Join() noexcept;
    // Detach leaves the thread to end on its own.
    void Detach() noexcept;
    // Result is what the body returned; valid after a successful Join.
    [[nodiscard]] qor::result_t Result() const noexcept { return m_result; }

    // Release gives up the owner's share.
    static void Release(ThreadRunnable* thread) noexcept;

protected:
    ThreadRunnable();
    [[nodiscard]] virtual qor::result_t Body() noexcept = 0;

private:
    static void* Entry(void* arg) noexcept;
    static void Unshare(ThreadRunnable* thread) noexcept;

    mutable pthread_mutex_t m_mutex;
    pthread_cond_t m_cond;  // on the monotonic clock
    pthread_t m_handle{};
    bool m_joinable = false;
    bool m_running = false;
    // 1 while both the thread and the owner hold the object; the first one to
    // exchange it to 0 leaves the freeing to the other.
    std::atomic<int> m_shared{0};
    qor::result_t m_result = 0;
};

struct ThreadReleaser {
    void operator()(ThreadRunnable* thread) const noexcept { ThreadRunnable::Release(thread); }
};
// ThreadHandle is the owner's share of a thread.
using ThreadHandle = std::unique_ptr<ThreadRunnable, ThreadReleaser>;

// ThreadRunnableMemFn runs `(object->*fn)()` on its thread.
template <class T>
class ThreadRunnableMemFn final : public ThreadRunnable {
public:
    using Fn = qor::result_t (T::*)();

    ThreadRunnableMemFn(T* object, Fn fn) noexcept : m_object(object), m_fn(fn) {}

private:
    [[nodiscard]] qor::result_t Body() noexcept override { return (m_object->*m_fn)(); }

    T* m_object;
    Fn m_fn;
};

// StartThread makes a thread running `(object->*fn)()` and starts it. The
// handle is stored in `out` in either case (not joinable after a failure).
template <class T>
[[nodiscard]] qor::result_t StartThread(T* object, typename ThreadRunnableMemFn<T>::Fn fn,
                                        ThreadHandle& out) {
    out = ThreadHandle(std::make_unique<ThreadRunnableMemFn<T>>(object, fn).release());
    return out->Start();
}

}  // namespace dwi::network_interceptor
