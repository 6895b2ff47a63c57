#include "host/services/key_value_storage.h"

#include <pwd.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <memory>
#include <system_error>
#include <thread>

#include "qor/exception.h"

namespace nti::host {
namespace {

namespace errors = qor::errors;

[[nodiscard]] qor::result_t SqliteToResult(int code) noexcept {
    switch (code & 0xFF) {
        case SQLITE_OK:
        case SQLITE_DONE:
        case SQLITE_ROW:
            return errors::kOk;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return errors::kLocked;
        case SQLITE_NOMEM:
            return errors::kOutOfMemory;
        case SQLITE_FULL:
            return errors::kOutOfSpace;
        case SQLITE_IOERR:
            return errors::kMediaError;
        case SQLITE_PERM:
        case SQLITE_READONLY:
        case SQLITE_AUTH:
            return errors::kAccessDenied;
        case SQLITE_CANTOPEN:
            return errors::kPathNotFound;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return static_cast<qor::result_t>(0x80000069);  // Bases corrupted
        case SQLITE_TOOBIG:
            return errors::kInvalidSize;
        default:
            return errors::kUnspecified;
    }
}

struct StatementDeleter {
    void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

// Prepare makes a statement over `key`, bound as parameter 1.
[[nodiscard]] qor::result_t Prepare(sqlite3* db, const char* sql, const char* key,
                                    Statement& statement) noexcept {
    sqlite3_stmt* raw = nullptr;
    int code = sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
    statement.reset(raw);
    if (code != SQLITE_OK) {
        return SqliteToResult(code);
    }
    code = sqlite3_bind_text(raw, 1, key, -1, SQLITE_TRANSIENT);
    return SqliteToResult(code);
}

// InitialiseSchema switches a new database to WAL and creates the table.
// When several processes open a new database at once, the switch to WAL can
// fail with SQLITE_BUSY without SQLite calling the busy handler (waiting
// could deadlock two connections that both hold a shared lock), so the
// script is retried here, for as long as a busy statement would wait.
int InitialiseSchema(sqlite3* db) noexcept {
    constexpr auto kPause = std::chrono::milliseconds(5);
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(SqliteKeyValueStorage::kBusyTimeoutMs);
    for (;;) {
        const int code = sqlite3_exec(db,
                                      "PRAGMA journal_mode=WAL;"
                                      "PRAGMA synchronous=FULL;"
                                      "CREATE TABLE IF NOT EXISTS kv("
                                      "key TEXT PRIMARY KEY NOT NULL, value BLOB NOT NULL);",
                                      nullptr, nullptr, nullptr);
        const int primary = code & 0xFF;
        if ((primary != SQLITE_BUSY && primary != SQLITE_LOCKED) ||
            std::chrono::steady_clock::now() >= deadline) {
            return code;
        }
        std::this_thread::sleep_for(kPause);
    }
}

}  // namespace

std::string DefaultStateDir() {
    if (geteuid() == 0) {
        return "/var/lib/nti";
    }
    // nti never changes its environment: reading it is safe from any thread.
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    const char* xdg = std::getenv("XDG_STATE_HOME");
    if (xdg != nullptr && xdg[0] == '/') {
        return std::string(xdg) + "/nti";
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    const char* home = std::getenv("HOME");
    if (home == nullptr || home[0] != '/') {
        // Called while the services are set up, before any other thread runs.
        // NOLINTNEXTLINE(concurrency-mt-unsafe)
        const passwd* entry = getpwuid(geteuid());
        home = entry != nullptr ? entry->pw_dir : "/tmp";
    }
    return std::string(home) + "/.local/state/nti";
}

SqliteKeyValueStorage::SqliteKeyValueStorage(std::string stateDir)
    : m_stateDir(std::move(stateDir)), m_path(m_stateDir + "/" + kFileName) {}

SqliteKeyValueStorage::~SqliteKeyValueStorage() {
    sqlite3_close_v2(m_db);
}

qor::result_t SqliteKeyValueStorage::Open() noexcept {
    if (m_db != nullptr) {
        return errors::kOk;
    }
    std::error_code error;
    std::filesystem::create_directories(m_stateDir, error);
    if (error) {
        return qor::ErrnoToResult(error.value());
    }
    std::filesystem::permissions(m_stateDir, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::replace, error);
    sqlite3* db = nullptr;
    int code = sqlite3_open_v2(m_path.c_str(), &db,
                               SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                               nullptr);
    if (code == SQLITE_OK) {
        sqlite3_busy_timeout(db, kBusyTimeoutMs);
        code = InitialiseSchema(db);
    }
    if (code != SQLITE_OK) {
        sqlite3_close_v2(db);
        return SqliteToResult(code);
    }
    m_db = db;
    return errors::kOk;
}

template <class F>
qor::result_t SqliteKeyValueStorage::Run(const char* key, const char* sql, F&& use) noexcept {
    if (key == nullptr) {
        return errors::kInvalidArgument;
    }
    std::lock_guard lock(m_mutex);
    qor::result_t result = Open();
    if (!QOR_SUCCEEDED(result)) {
        return result;
    }
    Statement statement;
    result = Prepare(m_db, sql, key, statement);
    if (!QOR_SUCCEEDED(result)) {
        return result;
    }
    return use(statement.get());
}

qor::result_t SqliteKeyValueStorage::GetValue(const char* key, qor::ByteVector& value) noexcept {
    return Run(key, "SELECT value FROM kv WHERE key = ?1", [&](sqlite3_stmt* statement) {
        const int code = sqlite3_step(statement);
        if (code == SQLITE_DONE) {
            return errors::kNotFound;
        }
        if (code != SQLITE_ROW) {
            return SqliteToResult(code);
        }
        const void* blob = sqlite3_column_blob(statement, 0);
        const int size = sqlite3_column_bytes(statement, 0);
        try {
            value.Assign(static_cast<const std::uint8_t*>(blob), blob != nullptr ? size : 0);
        } catch (...) {
            return errors::kOutOfMemory;
        }
        return errors::kOk;
    });
}

qor::result_t SqliteKeyValueStorage::SetValue(const char* key,
                                              const qor::ByteVector& value) noexcept {
    if (value.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        return errors::kInvalidSize;
    }
    const char* sql =
        "INSERT INTO kv(key, value) VALUES(?1, ?2) "
        "ON CONFLICT(key) DO UPDATE SET value = excluded.value";
    return Run(key, sql, [&](sqlite3_stmt* statement) {
        // An empty value binds as a zero-length blob, not as NULL.
        static const std::uint8_t kNothing = 0;
        const int code = sqlite3_bind_blob(statement, 2, value.empty() ? &kNothing : value.data(),
                                           static_cast<int>(value.size()), SQLITE_STATIC);
        if (code != SQLITE_OK) {
            return SqliteToResult(code);
        }
        return SqliteToResult(sqlite3_step(statement));
    });
}

qor::result_t SqliteKeyValueStorage::DeleteValue(const char* key) noexcept {
    return Run(key, "DELETE FROM kv WHERE key = ?1",
               [](sqlite3_stmt* statement) { return SqliteToResult(sqlite3_step(statement)); });
}

}  // namespace nti::host
