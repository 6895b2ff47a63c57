// SQLite history of closed intervals.
#include "host/cli/service/history_store.h"

#include <sqlite3.h>

#include <cstring>
#include <ctime>
#include <map>
#include <tuple>

#include "dwi_common/ticks.h"
#include "host/cli/service/service_config.h"

namespace nti::host {
namespace {

using system_interceptors::net::statistics::ConnectionCounter;
using system_interceptors::net::statistics::IntervalCounters;
using system_interceptors::net::statistics::ip_t;

using dwi::ticks::kTicksPerSecond;

// Times are the records' own 100-ns ticks, so rows read back equal what the
// JSON sink wrote; the indexes serve --since and --addr.
constexpr const char* kSchema =
    "PRAGMA journal_mode=WAL;"
    "CREATE TABLE IF NOT EXISTS history ("
    " collector INTEGER NOT NULL, begin INTEGER NOT NULL, end INTEGER NOT NULL,"
    " local_ip BLOB, local_port INTEGER, remote_ip BLOB, remote_port INTEGER,"
    " protocol INTEGER, ether_type INTEGER NOT NULL, local_mac BLOB, remote_mac BLOB,"
    " gateway_ip BLOB, gateway_mac BLOB,"
    " packets_sent INTEGER NOT NULL, bytes_sent INTEGER NOT NULL,"
    " packets_received INTEGER NOT NULL, bytes_received INTEGER NOT NULL);"
    "CREATE INDEX IF NOT EXISTS history_end ON history(end);"
    "CREATE INDEX IF NOT EXISTS history_local_ip ON history(local_ip, end);"
    "CREATE INDEX IF NOT EXISTS history_remote_ip ON history(remote_ip, end);";

constexpr const char* kInsert = "INSERT INTO history VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)";

struct DbCloser {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StmtCloser {
    void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Db = std::unique_ptr<sqlite3, DbCloser>;
using Stmt = std::unique_ptr<sqlite3_stmt, StmtCloser>;

std::string DbError(sqlite3* db, const std::string& what) {
    return what + ": " + sqlite3_errmsg(db);
}

Db OpenDb(const std::string& path, int flags, std::string& error) {
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
    Db db(raw);
    if (rc != SQLITE_OK) {
        error = path + ": " + (raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc));
        return nullptr;
    }
    // Another process (a query, the next run) may hold the lock briefly.
    sqlite3_busy_timeout(raw, 5000);
    return db;
}

Stmt Prepare(sqlite3* db, const char* sql, std::string& error) {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &raw, nullptr) != SQLITE_OK) {
        error = DbError(db, "prepare");
    }
    return Stmt(raw);
}

void BindIp(sqlite3_stmt* s, int i, const std::optional<ip_t>& ip) {
    if (!ip) {
        sqlite3_bind_null(s, i);
    } else if (ip->family == 4) {
        sqlite3_bind_blob(s, i, ip->v4.bytes.data(), 4, SQLITE_TRANSIENT);
    } else {
        sqlite3_bind_blob(s, i, ip->v6.bytes.data(), 16, SQLITE_TRANSIENT);
    }
}

void BindMac(sqlite3_stmt* s, int i, const std::optional<qor::mac48_address_t>& mac) {
    mac ? void(sqlite3_bind_blob(s, i, mac->bytes.data(), 6, SQLITE_TRANSIENT))
        : void(sqlite3_bind_null(s, i));
}

template <typename T>
void BindOptional(sqlite3_stmt* s, int i, const std::optional<T>& v) {
    v ? void(sqlite3_bind_int64(s, i, *v)) : void(sqlite3_bind_null(s, i));
}

std::optional<ip_t> ColumnIp(sqlite3_stmt* s, int i) {
    const int size = sqlite3_column_bytes(s, i);
    const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(s, i));
    if (data == nullptr || (size != 4 && size != 16)) {
        return std::nullopt;
    }
    ip_t ip;
    ip.family = size == 4 ? 4 : 6;
    size == 4 ? void(std::memcpy(ip.v4.bytes.data(), data, 4))
              : void(std::memcpy(ip.v6.bytes.data(), data, 16));
    return ip;
}

std::optional<qor::mac48_address_t> ColumnMac(sqlite3_stmt* s, int i) {
    const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(s, i));
    if (data == nullptr || sqlite3_column_bytes(s, i) != 6) {
        return std::nullopt;
    }
    qor::mac48_address_t mac;
    std::memcpy(mac.bytes.data(), data, 6);
    return mac;
}

template <typename T>
std::optional<T> ColumnOptional(sqlite3_stmt* s, int i) {
    if (sqlite3_column_type(s, i) == SQLITE_NULL) {
        return std::nullopt;
    }
    return static_cast<T>(sqlite3_column_int64(s, i));
}

class HistorySink : public IIntervalSink {
public:
    HistorySink(std::string name, Db db, Stmt insert, Stmt expire, std::uint64_t retention)
        : m_name(std::move(name)),
          m_db(std::move(db)),
          m_insert(std::move(insert)),
          m_expire(std::move(expire)),
          m_retentionSeconds(retention) {}

    std::string Write(std::uint32_t collector, bool /*restored*/,
                      const IntervalCounters& interval) override {
        sqlite3* db = m_db.get();
        // One transaction per interval: a harvest costs one sync, and a
        // failed interval leaves no half of itself behind.
        if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
            return DbError(db, "begin");
        }
        sqlite3_stmt* s = m_insert.get();
        for (const ConnectionCounter& c : interval.counters) {
            sqlite3_reset(s);
            sqlite3_bind_int64(s, 1, collector);
            sqlite3_bind_int64(s, 2, static_cast<sqlite3_int64>(interval.begin));
            sqlite3_bind_int64(s, 3, static_cast<sqlite3_int64>(interval.end));
            BindIp(s, 4, c.localIp);
            BindOptional(s, 5, c.localPort);
            BindIp(s, 6, c.remoteIp);
            BindOptional(s, 7, c.remotePort);
            BindOptional(s, 8, c.ipProtocol);
            sqlite3_bind_int64(s, 9, c.etherType);
            BindMac(s, 10, c.localMac);
            BindMac(s, 11, c.remoteMac);
            BindIp(s, 12, c.gatewayIp);
            BindMac(s, 13, c.gatewayMac);
            sqlite3_bind_int64(s, 14, static_cast<sqlite3_int64>(c.packetsSent));
            sqlite3_bind_int64(s, 15, static_cast<sqlite3_int64>(c.bytesSent));
            sqlite3_bind_int64(s, 16, static_cast<sqlite3_int64>(c.packetsReceived));
            sqlite3_bind_int64(s, 17, static_cast<sqlite3_int64>(c.bytesReceived));
            if (sqlite3_step(s) != SQLITE_DONE) {
                std::string error = DbError(db, "insert");
                sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
                return error;
            }
        }
        if (m_retentionSeconds != 0) {
            const std::uint64_t now = NowTicks();
            const std::uint64_t keep = m_retentionSeconds * kTicksPerSecond;
            sqlite3_reset(m_expire.get());
            sqlite3_bind_int64(m_expire.get(), 1,
                               static_cast<sqlite3_int64>(now > keep ? now - keep : 0));
            if (sqlite3_step(m_expire.get()) != SQLITE_DONE) {
                std::string error = DbError(db, "expire");
                sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
                return error;
            }
        }
        if (sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
            std::string error = DbError(db, "commit");
            sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
            return error;
        }
        return {};
    }
    const std::string& Name() const override { return m_name; }

private:
    std::string m_name;
    Db m_db;
    Stmt m_insert;
    Stmt m_expire;
    std::uint64_t m_retentionSeconds;
};

}  // namespace

std::uint64_t NowTicks() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return dwi::ticks::FromUnix(ts);
}

std::unique_ptr<IIntervalSink> OpenHistorySink(const std::string& name, const std::string& path,
                                               std::uint64_t retentionSeconds, std::string& error) {
    Db db = OpenDb(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, error);
    if (!db) {
        return nullptr;
    }
    if (sqlite3_exec(db.get(), kSchema, nullptr, nullptr, nullptr) != SQLITE_OK) {
        error = DbError(db.get(), path);
        return nullptr;
    }
    Stmt insert = Prepare(db.get(), kInsert, error);
    Stmt expire = Prepare(db.get(), "DELETE FROM history WHERE end < ?", error);
    if (!insert || !expire) {
        error = path + ": " + error;
        return nullptr;
    }
    return std::make_unique<HistorySink>(name, std::move(db), std::move(insert), std::move(expire),
                                         retentionSeconds);
}

std::string QueryHistory(const std::string& path, const HistoryQuery& query,
                         std::vector<HistoryInterval>& out) {
    std::string error;
    Db db = OpenDb(path, SQLITE_OPEN_READONLY, error);
    if (!db) {
        return error;
    }
    const std::string sql =
        "SELECT collector, begin, end, local_ip, local_port, remote_ip, remote_port, protocol,"
        " ether_type, local_mac, remote_mac, gateway_ip, gateway_mac, packets_sent, bytes_sent,"
        " packets_received, bytes_received FROM history WHERE end >= ?1" +
        std::string(query.address ? " AND (local_ip = ?2 OR remote_ip = ?2)" : "") +
        (query.collector ? " AND collector = ?3" : "") + " ORDER BY end, begin, collector, rowid";
    Stmt stmt = Prepare(db.get(), sql.c_str(), error);
    if (!stmt) {
        return path + ": " + error;
    }
    sqlite3_stmt* s = stmt.get();
    sqlite3_bind_int64(s, 1, static_cast<sqlite3_int64>(query.sinceTicks));
    if (query.address) {
        BindIp(s, 2, query.address);
    }
    if (query.collector) {
        sqlite3_bind_int64(s, 3, *query.collector);
    }
    int rc = SQLITE_ROW;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
        const auto collector = static_cast<std::uint32_t>(sqlite3_column_int64(s, 0));
        const auto begin = static_cast<std::uint64_t>(sqlite3_column_int64(s, 1));
        const auto end = static_cast<std::uint64_t>(sqlite3_column_int64(s, 2));
        if (out.empty() || out.back().collector != collector ||
            out.back().interval.begin != begin || out.back().interval.end != end) {
            out.push_back({collector, {begin, end, {}}});
        }
        ConnectionCounter c;
        c.localIp = ColumnIp(s, 3);
        c.localPort = ColumnOptional<std::uint16_t>(s, 4);
        c.remoteIp = ColumnIp(s, 5);
        c.remotePort = ColumnOptional<std::uint16_t>(s, 6);
        c.ipProtocol = ColumnOptional<std::uint8_t>(s, 7);
        c.etherType = static_cast<std::uint16_t>(sqlite3_column_int64(s, 8));
        c.localMac = ColumnMac(s, 9);
        c.remoteMac = ColumnMac(s, 10);
        c.gatewayIp = ColumnIp(s, 11);
        c.gatewayMac = ColumnMac(s, 12);
        c.packetsSent = static_cast<std::uint64_t>(sqlite3_column_int64(s, 13));
        c.bytesSent = static_cast<std::uint64_t>(sqlite3_column_int64(s, 14));
        c.packetsReceived = static_cast<std::uint64_t>(sqlite3_column_int64(s, 15));
        c.bytesReceived = static_cast<std::uint64_t>(sqlite3_column_int64(s, 16));
        out.back().interval.counters.push_back(std::move(c));
    }
    return rc == SQLITE_DONE ? std::string() : DbError(db.get(), path);
}

std::optional<std::uint64_t> ParseSince(const std::string& text, std::uint64_t nowTicks) {
    if (const auto seconds = ParseDurationSeconds(text)) {
        const std::uint64_t back = *seconds * kTicksPerSecond;
        return nowTicks > back ? nowTicks - back : 0;
    }
    std::tm tm{};
    const char* end = strptime(text.c_str(), "%Y-%m-%d", &tm);
    if (end != nullptr && *end == 'T') {
        end = strptime(end + 1, "%H:%M:%S", &tm);
    }
    if (end != nullptr && *end == 'Z') {
        ++end;
    }
    if (end == nullptr || *end != '\0') {
        return std::nullopt;
    }
    const std::time_t unix = timegm(&tm);
    if (unix < 0) {
        return std::nullopt;
    }
    return dwi::ticks::FromUnix(static_cast<std::uint64_t>(unix));
}

}  // namespace nti::host
