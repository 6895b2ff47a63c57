// Locks the binary interface: slot order of IObject and of the framework
// interfaces, called through the vtable as a host in another binary would.
#include "qor/object.h"

#include <gtest/gtest.h>

#include "qor/service_locator.h"
#include "qor/trace/tracer.h"

namespace {

template <class R, class... A>
R CallSlot(void* object, std::size_t slot, A... args) {
    void** vtable = *static_cast<void***>(object);
    return reinterpret_cast<R (*)(void*, A...)>(vtable[slot])(object, args...);
}

struct ITestA : qor::IObject {
    static constexpr qor::iid_t IID = 0x0000A001;
    virtual int First() noexcept = 0;
    virtual int Second() noexcept = 0;

protected:
    ~ITestA() = default;
};
struct ITestB : qor::IObject {
    static constexpr qor::iid_t IID = 0x0000B002;
    virtual int Third() noexcept = 0;

protected:
    ~ITestB() = default;
};

int g_destroyed = 0;

class Impl : public qor::object::Ifaces<ITestA, ITestB> {
public:
    explicit Impl(bool fail) {
        if (fail) {
            throw 1;
        }
    }
    ~Impl() { ++g_destroyed; }
    int First() noexcept override { return 11; }
    int Second() noexcept override { return 22; }
    int Third() noexcept override { return 33; }
};

TEST(ObjectTest, SlotOrderThroughVtable) {
    auto object = qor::object::Create<Impl>(false);
    ITestA* a = object.Get();
    EXPECT_EQ(CallSlot<std::uint32_t>(a, 0), 2u);  // AddRef
    EXPECT_EQ(CallSlot<std::uint32_t>(a, 1), 1u);  // Release
    void* out = nullptr;
    EXPECT_EQ((CallSlot<qor::result_t, qor::iid_t, void**>(a, 2, ITestB::IID, &out)), 0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(CallSlot<int>(out, 3), 33);  // ITestB's first own slot
    static_cast<qor::IObject*>(out)->Release();
    EXPECT_EQ(CallSlot<int>(a, 3), 11);
    EXPECT_EQ(CallSlot<int>(a, 4), 22);
}

TEST(ObjectTest, QueryInterfaceTable) {
    auto object = qor::object::Create<Impl>(false);
    qor::RefPtr<qor::IObject> identity;
    ASSERT_EQ(object->QueryInterface(qor::IObject::IID, identity.RefVoid()), 0);
    EXPECT_EQ(identity.Get(), static_cast<qor::IObject*>(static_cast<ITestA*>(object.Get())));
    void* out = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(object->QueryInterface(0xDEAD, &out), qor::errors::kNoInterface);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1));  // untouched
}

TEST(ObjectTest, ModuleLockCoversLifetimeAndFailedConstruction) {
    const auto base = qor::g_moduleObjectCount.load();
    g_destroyed = 0;
    {
        auto object = qor::object::Create<Impl>(false);
        EXPECT_EQ(qor::g_moduleObjectCount.load(), base + 1);
        qor::RefPtr<ITestB> b(object.Get());
        object.Reset();
        EXPECT_EQ(qor::g_moduleObjectCount.load(), base + 1);
        EXPECT_EQ(g_destroyed, 0);
    }
    EXPECT_EQ(g_destroyed, 1);
    EXPECT_EQ(qor::g_moduleObjectCount.load(), base);
    EXPECT_THROW(qor::object::Create<Impl>(true), int);
    EXPECT_EQ(qor::g_moduleObjectCount.load(), base);
}

// The fixed slots of the interfaces a host implements.
struct LocatorProbe : qor::object::Ifaces<qor::IServiceLocator> {
    [[nodiscard]] qor::result_t GetInterface(qor::iid_t iid, std::uint32_t key,
                                             void** out) noexcept override {
        *out = nullptr;
        return static_cast<qor::result_t>(iid + key);
    }
};

struct TracerProbe : qor::object::Ifaces<qor::ITracer> {
    [[nodiscard]] qor::result_t BeginRecord(std::uint32_t level, std::uint32_t*,
                                            qor::TraceBuffer*) noexcept override {
        return static_cast<qor::result_t>(level);
    }
    [[nodiscard]] qor::result_t CommitRecord(qor::TraceBuffer*,
                                             std::uint32_t length) noexcept override {
        return static_cast<qor::result_t>(length + 1);
    }
    std::uint32_t GetMaxLevel() noexcept override { return 77; }
};

TEST(ObjectTest, HostInterfaceSlots) {
    auto locator = qor::object::Create<LocatorProbe>();
    void* out = nullptr;
    qor::IServiceLocator* sl = locator.Get();
    EXPECT_EQ((CallSlot<qor::result_t, qor::iid_t, std::uint32_t, void**>(sl, 3, 5, 2, &out)), 7);

    auto tracer = qor::object::Create<TracerProbe>();
    qor::ITracer* t = tracer.Get();
    EXPECT_EQ((CallSlot<qor::result_t, std::uint32_t, std::uint32_t*, qor::TraceBuffer*>(
                  t, 3, 300, nullptr, nullptr)),
              300);
    EXPECT_EQ((CallSlot<qor::result_t, qor::TraceBuffer*, std::uint32_t>(t, 4, nullptr, 9)), 10);
    EXPECT_EQ(CallSlot<std::uint32_t>(t, 5), 77u);
}

}  // namespace
