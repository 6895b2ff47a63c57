// Objects of the framework: interface lookup and the module lock.
#include "qor/object.h"

#include <gtest/gtest.h>

namespace {

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

}  // namespace
