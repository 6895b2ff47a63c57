// RunnableAdapter: a member function bound to an object and one argument,
// offered to host threads as an IRunnable.
#pragma once

#include "qor/object.h"
#include "qor/timer.h"

namespace qor {

// RunnableAdapter calls `(target->*method)(argument)` on Run. It holds a plain
// pointer to `target`: the owner must cancel every schedule of the adapter
// (ITimer::CancelAndWait) before it dies. Made with object::Create, so the
// module stays locked while an adapter lives.
template <class T, class Arg>
class RunnableAdapter : public object::Ifaces<IRunnable> {
public:
    using Method = int (T::*)(Arg);

    RunnableAdapter(T* target, Method method, Arg argument) noexcept
        : m_target(target), m_method(method), m_argument(argument) {}

    [[nodiscard]] result_t Run() noexcept override { return (m_target->*m_method)(m_argument); }

private:
    T* m_target;
    Method m_method;
    Arg m_argument;
};

}  // namespace qor
