// RecordingTracer keeps every committed record's text for assertions.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "qor/object.h"
#include "qor/trace/tracer.h"

namespace nti::test {

struct TraceLine {
    std::uint32_t level;
    std::string text;
};

// WithoutLine writes every "<file>:<line>(" of `text` as "<file>:#(", so that
// tests do not move with edits.
inline std::string WithoutLine(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        std::size_t digits = i + 1;
        while (text[i] == ':' && digits < text.size() &&
               std::isdigit(static_cast<unsigned char>(text[digits]))) {
            ++digits;
        }
        if (digits > i + 1 && digits < text.size() && text[digits] == '(') {
            out += ":#";
            i = digits;
        } else {
            out += text[i++];
        }
    }
    return out;
}

class RecordingTracer : public qor::object::Ifaces<qor::ITracer> {
public:
    explicit RecordingTracer(std::uint32_t maxLevel = 1000) : m_maxLevel(maxLevel) {}

    qor::result_t BeginRecord(std::uint32_t level, std::uint32_t* position,
                              qor::TraceBuffer* buffer) noexcept override {
        if (level > m_maxLevel) {
            return qor::errors::kNotMatched;
        }
        if (buffer != nullptr && position != nullptr) {
            // The level rides in front of the text until the commit.
            std::memcpy(buffer->data, &level, sizeof(level));
            *position += sizeof(level);
        }
        return 0;
    }
    qor::result_t CommitRecord(qor::TraceBuffer* buffer, std::uint32_t length) noexcept override {
        std::uint32_t level = 0;
        std::memcpy(&level, buffer->data, sizeof(level));
        std::lock_guard lock(m_mutex);
        m_lines.push_back(
            {level, std::string(buffer->data + sizeof(level), length - sizeof(level))});
        return 0;
    }
    std::uint32_t GetMaxLevel() noexcept override { return m_maxLevel; }

    std::vector<TraceLine> Lines() const {
        std::lock_guard lock(m_mutex);
        return m_lines;
    }
    std::vector<std::string> Texts() const {
        std::lock_guard lock(m_mutex);
        std::vector<std::string> texts;
        for (const auto& l : m_lines) {
            texts.push_back(l.text);
        }
        return texts;
    }
    // Contains is true when some record's text contains `part`.
    bool Contains(const std::string& part) const {
        const auto texts = Texts();
        return std::any_of(texts.begin(), texts.end(),
                           [&](const std::string& t) { return t.find(part) != std::string::npos; });
    }
    // Has: a record of `level` reads `text`, line numbers written as '#'.
    bool Has(std::uint32_t level, const std::string& text) const {
        const auto lines = Lines();
        return std::any_of(lines.begin(), lines.end(), [&](const TraceLine& l) {
            return l.level == level && WithoutLine(l.text) == text;
        });
    }
    // HasCheckRecord: a level-300 record holds the failed result check of
    // `expression` in `source`, followed somewhere later by `tail`.
    bool HasCheckRecord(const std::string& source, const std::string& expression,
                        const std::string& tail) const {
        const std::string head =
            source + ":#(" + expression + "),(QOR_SUCCEEDED(_result)) failed: result = ";
        for (const auto& line : Lines()) {
            const std::string text = WithoutLine(line.text);
            const auto at = text.find(head);
            if (line.level == 300 && at != std::string::npos &&
                text.find(tail, at + head.size()) != std::string::npos) {
                return true;
            }
        }
        return false;
    }
    void Clear() {
        std::lock_guard lock(m_mutex);
        m_lines.clear();
    }

private:
    std::uint32_t m_maxLevel;
    mutable std::mutex m_mutex;
    std::vector<TraceLine> m_lines;
};

}  // namespace nti::test
