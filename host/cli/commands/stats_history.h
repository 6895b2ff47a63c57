// `nti stats --history`: intervals read back from the service's SQLite history.
#pragma once

#include <string>

namespace nti::host {

// HistoryOptions are the command-line values of a history query.
struct HistoryOptions {
    std::string since = "1d";
    std::string address;
    std::string database;  // empty: the first [sqlite] sink of `config`
    std::string config;
    bool json = false;
};

// RunHistory prints the matching intervals like `nti stats` does and returns
// the exit code.
[[nodiscard]] int RunHistory(const HistoryOptions& options);

}  // namespace nti::host
