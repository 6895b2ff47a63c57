// JSON lines sink: the interval schema of `nti stats --json`, one line each.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host/cli/commands/stats_format.h"
#include "host/cli/service/interval_sink.h"
#include "host/services/json_records.h"
#include "qor/result.h"

namespace nti::host {
namespace {

using system_interceptors::net::statistics::IntervalCounters;

class JsonLinesSink : public IIntervalSink {
public:
    JsonLinesSink(std::string name, std::FILE* file, bool owned)
        : m_name(std::move(name)), m_file(file), m_owned(owned) {}
    ~JsonLinesSink() override {
        if (m_owned) {
            std::fclose(m_file);
        }
    }
    JsonLinesSink(const JsonLinesSink&) = delete;
    JsonLinesSink& operator=(const JsonLinesSink&) = delete;

    std::string Write(std::uint32_t collector, bool restored,
                      const IntervalCounters& interval) override {
        const std::string line = JsonLine(IntervalJson(collector, interval, restored));
        // A line is written whole or the failure is reported; a reader
        // never sees a line cut short by a full buffer without an error.
        if (std::fwrite(line.data(), 1, line.size(), m_file) != line.size() ||
            std::fflush(m_file) != 0) {
            const int error = errno;
            std::clearerr(m_file);
            return std::string("cannot write: ") + qor::ErrnoText(error);
        }
        return {};
    }
    const std::string& Name() const override { return m_name; }

private:
    std::string m_name;
    std::FILE* m_file;
    bool m_owned;
};

}  // namespace

std::unique_ptr<IIntervalSink> OpenJsonLinesSink(const std::string& name, const std::string& path,
                                                 std::string& error) {
    if (path == "-") {
        return std::make_unique<JsonLinesSink>(name, stdout, false);
    }
    std::FILE* file = std::fopen(path.c_str(), "ae");
    if (file == nullptr) {
        error = path + ": " + qor::ErrnoText(errno);
        return nullptr;
    }
    return std::make_unique<JsonLinesSink>(name, file, true);
}

}  // namespace nti::host
