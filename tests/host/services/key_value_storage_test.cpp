#include "host/services/key_value_storage.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace nti::host {
namespace {

qor::ByteVector Bytes(const std::string& text) {
    return qor::ByteVector(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

class KeyValueStorageTest : public ::testing::Test {
protected:
    KeyValueStorageTest() {
        char pattern[] = "/tmp/nti_kv_XXXXXX";
        m_root = mkdtemp(pattern);
        m_dir = m_root + "/state/nti";
    }
    ~KeyValueStorageTest() override { std::filesystem::remove_all(m_root); }

    // Value is what `key` holds, nothing when the read fails.
    static std::optional<qor::ByteVector> Value(SqliteKeyValueStorage& storage, const char* key) {
        qor::ByteVector value = Bytes("stale");
        return storage.GetValue(key, value) == 0 ? std::optional(value) : std::nullopt;
    }
    qor::object::ImplPtr<SqliteKeyValueStorage> Open() {
        return qor::object::Create<SqliteKeyValueStorage>(m_dir);
    }

    std::string m_root;
    std::string m_dir;
};

TEST_F(KeyValueStorageTest, SetGetReplaceDeleteAndMissingKeys) {
    auto storage = Open();
    qor::ByteVector value;
    EXPECT_EQ(storage->GetValue("Collectors", value), qor::errors::kNotFound);
    EXPECT_EQ(storage->DeleteValue("Collectors"), 0);  // absent is fine

    ASSERT_EQ(storage->SetValue("Collectors", Bytes(std::string("a\0b", 3))), 0);
    EXPECT_EQ(Value(*storage, "Collectors"), Bytes(std::string("a\0b", 3)));

    ASSERT_EQ(storage->SetValue("Collectors", Bytes("second")), 0);
    ASSERT_EQ(storage->SetValue("other", Bytes("x")), 0);
    EXPECT_EQ(Value(*storage, "Collectors"), Bytes("second"));

    ASSERT_EQ(storage->SetValue("empty", qor::ByteVector()), 0);
    EXPECT_EQ(Value(*storage, "empty"), qor::ByteVector());

    ASSERT_EQ(storage->DeleteValue("Collectors"), 0);
    EXPECT_EQ(storage->GetValue("Collectors", value), qor::errors::kNotFound);
    EXPECT_EQ(Value(*storage, "other"), Bytes("x"));

    // The state is private to its user and found again by a new connection.
    struct stat info {};
    ASSERT_EQ(stat(m_dir.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_EQ(Value(*Open(), "other"), Bytes("x"));
}

// A state directory under a plain file, and a database file that is a
// directory, are paths that cannot be there.
TEST_F(KeyValueStorageTest, DatabaseThatCannotBeOpenedIsAMissingPath) {
    ASSERT_EQ(
        std::system(("touch " + m_root + "/plain && mkdir -p " + m_root + "/dir/state.db").c_str()),
        0);
    for (const std::string& dir : {m_root + "/plain/nti", m_root + "/dir"}) {
        auto storage = qor::object::Create<SqliteKeyValueStorage>(dir);
        qor::ByteVector value;
        EXPECT_EQ(storage->GetValue("k", value), qor::errors::kPathNotFound) << dir;
        EXPECT_EQ(storage->SetValue("k", value), qor::errors::kPathNotFound) << dir;
    }
}

}  // namespace
}  // namespace nti::host
