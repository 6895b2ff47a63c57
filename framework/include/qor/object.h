// Reference-counted framework objects.
//
// Interfaces derive from IObject and declare their own operations after its
// three slots, in a fixed order; the vtable layout is the binary contract
// between the module and its host. Interfaces therefore have no virtual
// destructor (it would add slots) and each carries its identifier as `IID`.
#pragma once

#include <atomic>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

#include "qor/result.h"

namespace qor {

using iid_t = std::uint32_t;

struct IObject {
    static constexpr iid_t IID = 0x00000000;

    // AddRef returns the incremented count.
    virtual std::uint32_t AddRef() noexcept = 0;
    // Release returns the decremented count; at 0 the object is destroyed.
    virtual std::uint32_t Release() noexcept = 0;
    // QueryInterface stores a new reference in `*out` when the object offers
    // `iid`; otherwise returns 0x80000001 and stores nothing.
    [[nodiscard]] virtual result_t QueryInterface(iid_t iid, void** out) noexcept = 0;

protected:
    IObject() = default;
    IObject(const IObject&) = default;
    IObject& operator=(const IObject&) = default;
    ~IObject() = default;
};

// RefPtr owns one reference to a framework object.
template <class T>
class RefPtr {
public:
    RefPtr() noexcept = default;
    RefPtr(std::nullptr_t) noexcept {}
    // Adopt takes over a reference the caller already owns.
    static RefPtr Adopt(T* p) noexcept {
        RefPtr r;
        r.m_p = p;
        return r;
    }
    // RefPtr(T*) takes a new reference.
    explicit RefPtr(T* p) noexcept : m_p(p) {
        if (m_p != nullptr) {
            m_p->AddRef();
        }
    }
    RefPtr(const RefPtr& o) noexcept : RefPtr(o.m_p) {}
    RefPtr(RefPtr&& o) noexcept : m_p(std::exchange(o.m_p, nullptr)) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RefPtr(RefPtr<U>&& o) noexcept : m_p(o.Detach()) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RefPtr(const RefPtr<U>& o) noexcept : RefPtr(o.Get()) {}
    RefPtr& operator=(RefPtr o) noexcept {
        std::swap(m_p, o.m_p);
        return *this;
    }
    ~RefPtr() { Reset(); }

    void Reset() noexcept {
        if (T* p = std::exchange(m_p, nullptr)) {
            p->Release();
        }
    }
    // Ref releases what is held and returns the slot for an out parameter.
    T** Ref() noexcept {
        Reset();
        return &m_p;
    }
    void** RefVoid() noexcept { return reinterpret_cast<void**>(Ref()); }
    T* Detach() noexcept { return std::exchange(m_p, nullptr); }
    T* Get() const noexcept { return m_p; }
    T* operator->() const noexcept { return m_p; }
    T& operator*() const noexcept { return *m_p; }
    explicit operator bool() const noexcept { return m_p != nullptr; }
    bool operator==(std::nullptr_t) const noexcept { return m_p == nullptr; }

private:
    T* m_p = nullptr;
};

// QueryInterfaceAs asks `obj` for interface T.
template <class T, class U>
[[nodiscard]] result_t QueryInterfaceAs(U* obj, RefPtr<T>& out) noexcept {
    if (obj == nullptr) {
        return errors::kInvalidArgument;
    }
    return obj->QueryInterface(T::IID, out.RefVoid());
}

// g_moduleObjectCount counts the live objects of this module; the module may
// be unloaded only at 0. Each binary that links the framework has its own.
extern std::atomic<std::uint32_t> g_moduleObjectCount;

namespace object {

// Ifaces lists the interfaces an implementation offers; the first one also
// answers for IObject. An empty list is a plain IObject. Implementations
// derive from exactly one Ifaces<...>.
// The destructor is virtual so that no implementation class has an accessible
// non-virtual one; only ObjectImpl (final) deletes, so calls stay direct.
template <class... I>
class Ifaces : public I... {
public:
    using IfaceList = Ifaces;

protected:
    Ifaces() = default;
    Ifaces(const Ifaces&) = default;
    Ifaces& operator=(const Ifaces&) = default;
    virtual ~Ifaces() = default;
};
template <>
class Ifaces<> : public IObject {
public:
    using IfaceList = Ifaces;

protected:
    Ifaces() = default;
    Ifaces(const Ifaces&) = default;
    Ifaces& operator=(const Ifaces&) = default;
    virtual ~Ifaces() = default;
};

namespace detail {
template <class L>
struct IfaceQuery;
template <>
struct IfaceQuery<Ifaces<>> {
    template <class Self>
    static IObject* Find(Self* self, iid_t iid) noexcept {
        return iid == IObject::IID ? static_cast<IObject*>(self) : nullptr;
    }
};
template <class First, class... Rest>
struct IfaceQuery<Ifaces<First, Rest...>> {
    template <class Self>
    static IObject* Find(Self* self, iid_t iid) noexcept {
        if (iid == IObject::IID || iid == First::IID) {
            return static_cast<First*>(self);
        }
        IObject* found = nullptr;
        ((found == nullptr && iid == Rest::IID ? (void)(found = static_cast<Rest*>(self))
                                               : (void)0),
         ...);
        return found;
    }
};
}  // namespace detail

// ObjectModuleAutoLock ties an instance to the module lock: counted from the
// start of construction to the release of its memory (it is the first base,
// so it is built first and destroyed last, also when a constructor throws).
class ObjectModuleAutoLock {
public:
    ObjectModuleAutoLock() noexcept { g_moduleObjectCount.fetch_add(1, std::memory_order_seq_cst); }
    ObjectModuleAutoLock(const ObjectModuleAutoLock&) = delete;
    ObjectModuleAutoLock& operator=(const ObjectModuleAutoLock&) = delete;
    ~ObjectModuleAutoLock() { g_moduleObjectCount.fetch_sub(1, std::memory_order_seq_cst); }
};

// ObjectImpl completes an implementation class T (derived from some
// Ifaces<...>) with the reference count and IObject's three slots.
template <class T, class List = typename T::IfaceList>
class ObjectImpl final : private ObjectModuleAutoLock, public T {
public:
    template <class... A>
    explicit ObjectImpl(A&&... args) : ObjectModuleAutoLock(), T(std::forward<A>(args)...) {}

    std::uint32_t AddRef() noexcept override {
        return m_refCount.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    std::uint32_t Release() noexcept override {
        const std::uint32_t left = m_refCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0) {
            delete this;
        }
        return left;
    }
    [[nodiscard]] result_t QueryInterface(iid_t iid, void** out) noexcept override {
        if (out == nullptr) {
            return errors::kInvalidArgument;
        }
        IObject* found = detail::IfaceQuery<List>::Find(static_cast<T*>(this), iid);
        if (found == nullptr) {
            return errors::kNoInterface;
        }
        found->AddRef();
        *out = found;
        return errors::kOk;
    }

private:
    std::atomic<std::uint32_t> m_refCount{1};
};

// ImplPtr owns a complete object; it converts to a RefPtr of any of its
// interfaces.
template <class T>
using ImplPtr = RefPtr<ObjectImpl<T>>;

// Create builds a T with count 1 and returns the owning reference. Failures
// of the constructor propagate as exceptions.
template <class T, class... A>
ImplPtr<T> Create(A&&... args) {
    return ImplPtr<T>::Adopt(new ObjectImpl<T>(std::forward<A>(args)...));
}

}  // namespace object
}  // namespace qor
