#include "host/services/key_value_storage.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
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

    EXPECT_EQ(storage->GetValue(nullptr, value), qor::errors::kInvalidArgument);
    EXPECT_EQ(storage->SetValue(nullptr, value), qor::errors::kInvalidArgument);
    EXPECT_EQ(storage->DeleteValue(nullptr), qor::errors::kInvalidArgument);

    // The state is private to its user and found again by a new connection.
    EXPECT_EQ(storage->Path(), m_dir + "/state.db");
    struct stat info {};
    ASSERT_EQ(stat(m_dir.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_EQ(Value(*Open(), "other"), Bytes("x"));
}

TEST_F(KeyValueStorageTest, ConcurrentWritersFromThreadsAndProcessesAllLand) {
    constexpr int kWriters = 4;
    constexpr int kKeys = 25;
    const auto write = [this](int writer) {
        auto storage = Open();  // one connection per writer
        for (int k = 0; k < kKeys; ++k) {
            const std::string key = "w" + std::to_string(writer) + "k" + std::to_string(k);
            if (storage->SetValue(key.c_str(), Bytes(key)) != 0) {
                return false;
            }
        }
        return true;
    };
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        _exit(write(kWriters) ? 0 : 1);
    }
    std::vector<std::thread> threads;
    std::vector<char> ok(kWriters, 0);
    for (int w = 0; w < kWriters; ++w) {
        threads.emplace_back([&, w] { ok[w] = write(w) ? 1 : 0; });
    }
    for (auto& t : threads) {
        t.join();
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    auto storage = Open();
    for (int w = 0; w <= kWriters; ++w) {
        if (w < kWriters) {
            EXPECT_TRUE(ok[w]);
        }
        for (int k = 0; k < kKeys; ++k) {
            const std::string key = "w" + std::to_string(w) + "k" + std::to_string(k);
            EXPECT_EQ(Value(*storage, key.c_str()), Bytes(key));
        }
    }
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

TEST(DefaultStateDirTest, FollowsTheUserAndXdg) {
    if (geteuid() == 0) {
        EXPECT_EQ(DefaultStateDir(), "/var/lib/nti");
        return;
    }
    const char* oldXdg = std::getenv("XDG_STATE_HOME");
    const std::string savedXdg = oldXdg != nullptr ? oldXdg : "";
    const char* oldHome = std::getenv("HOME");
    const std::string savedHome = oldHome != nullptr ? oldHome : "";
    setenv("XDG_STATE_HOME", "/x/state", 1);
    EXPECT_EQ(DefaultStateDir(), "/x/state/nti");
    setenv("XDG_STATE_HOME", "relative", 1);  // ignored: must be absolute
    setenv("HOME", "/home/someone", 1);
    EXPECT_EQ(DefaultStateDir(), "/home/someone/.local/state/nti");
    if (oldHome != nullptr) {
        setenv("HOME", savedHome.c_str(), 1);
    }
    if (oldXdg != nullptr) {
        setenv("XDG_STATE_HOME", savedXdg.c_str(), 1);
    } else {
        unsetenv("XDG_STATE_HOME");
    }
}

}  // namespace
}  // namespace nti::host
