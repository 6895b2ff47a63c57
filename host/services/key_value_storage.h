// The host's key-value storage: one SQLite database file in a state directory.
#pragma once

#include <mutex>
#include <string>

#include "qor/object.h"
#include "qor/storage.h"

struct sqlite3;
struct sqlite3_stmt;

namespace nti::host {

// DefaultStateDir is /var/lib/nti for root, else $XDG_STATE_HOME/nti or
// ~/.local/state/nti.
std::string DefaultStateDir();

// SqliteKeyValueStorage keeps values in the table "kv" of `<stateDir>/state.db`.
// The database opens on first use (creating the directory, mode 0700); every
// write is one transaction, journalled in WAL mode with synchronous=FULL, so a
// value is the old or the new one after a crash, never torn. Several
// processes may share the file; a locked database is retried for up to
// kBusyTimeoutMs before 0x8000004F.
class SqliteKeyValueStorage : public qor::object::Ifaces<app_core::component::IKeyValueStorage> {
public:
    static constexpr int kBusyTimeoutMs = 5000;
    static constexpr const char* kFileName = "state.db";

    explicit SqliteKeyValueStorage(std::string stateDir);
    ~SqliteKeyValueStorage() override;
    SqliteKeyValueStorage(const SqliteKeyValueStorage&) = delete;
    SqliteKeyValueStorage& operator=(const SqliteKeyValueStorage&) = delete;

    [[nodiscard]] qor::result_t GetValue(const char* key, qor::ByteVector& value) noexcept override;
    [[nodiscard]] qor::result_t SetValue(const char* key,
                                         const qor::ByteVector& value) noexcept override;
    [[nodiscard]] qor::result_t DeleteValue(const char* key) noexcept override;

    const std::string& Path() const noexcept { return m_path; }

private:
    // Open opens the database once; the caller holds m_mutex.
    [[nodiscard]] qor::result_t Open() noexcept;
    // Run prepares `sql` with `key` bound as ?1 on the open database and
    // hands the statement to `use`, all under m_mutex.
    template <class F>
    [[nodiscard]] qor::result_t Run(const char* key, const char* sql, F&& use) noexcept;

    std::mutex m_mutex;
    std::string m_stateDir;
    std::string m_path;
    sqlite3* m_db = nullptr;
};

}  // namespace nti::host
