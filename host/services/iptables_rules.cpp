#include "host/services/iptables_rules.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <tuple>
#include <variant>

#include "host/services/process.h"
#include "qor/trace/record.h"

namespace nti::host {
namespace {

using dwi::firewall::NflogRule;

const char* FamilyName(IpFamily family) {
    return family == IpFamily::kIpv4 ? "IPv4" : "IPv6";
}

}  // namespace

IptablesRules::IptablesRules(FirewallOptions options, qor::RefPtr<qor::ITracer> tracer)
    : m_options(std::move(options)),
      m_tracer(std::move(tracer)),
      m_owner(::getpid()),
      m_exitCleanup([this] {
          std::unique_lock lock = LockOnTheWayOut(m_mutex);
          if (lock.owns_lock()) {
              RemoveEverything();
          }
      }) {}

IptablesRules::~IptablesRules() {
    std::lock_guard lock(m_mutex);
    RemoveEverything();
}

void IptablesRules::RemoveEverything() {
    m_installed.insert(m_installed.end(), std::make_move_iterator(m_undeleted.begin()),
                       std::make_move_iterator(m_undeleted.end()));
    m_undeleted.clear();
    if (!m_installed.empty()) {
        // Restore traces each failure; the rules are forgotten either way, as
        // nothing better can be done with them on the way out.
        static_cast<void>(DeleteInstalled(std::move(m_installed)));
        m_installed.clear();
    }
    RemoveUnusedChains();
}

void IptablesRules::RemoveUnusedChains() {
    for (IpFamily family : {IpFamily::kIpv4, IpFamily::kIpv6}) {
        ProcessOutput output;
        const std::string& save =
            family == IpFamily::kIpv4 ? m_options.ipv4Save : m_options.ipv6Save;
        if (!QOR_SUCCEEDED(RunProcess({save, "-t", "filter"}, {}, output)) ||
            output.exitCode != 0) {
            continue;
        }
        // A refused run means another nti has just put a rule in: its chains stay.
        const std::vector<std::string> commands = TeardownCommands(output.out);
        if (!commands.empty()) {
            ProcessOutput ignored;
            const std::string& restore =
                family == IpFamily::kIpv4 ? m_options.ipv4Restore : m_options.ipv6Restore;
            (void)RunProcess({restore, "--noflush", "--wait"}, RestoreScript(commands), ignored);
        }
    }
}

qor::result_t IptablesRules::Restore(IpFamily family, const std::vector<std::string>& commands) {
    if (commands.empty()) {
        return qor::errors::kOk;
    }
    const std::string& program =
        family == IpFamily::kIpv4 ? m_options.ipv4Restore : m_options.ipv6Restore;
    ProcessOutput output;
    const qor::result_t ran =
        RunProcess({program, "--noflush", "--wait"}, RestoreScript(commands), output);
    if (QOR_SUCCEEDED(ran) && output.exitCode == 0) {
        return qor::errors::kOk;
    }
    QOR_TRACE(m_tracer.Get(), qor::trace_level::kError)
        << "Restore: " << FamilyName(family) << " " << program << " failed: run "
        << qor::FormatResult(ran).c_str() << ", exit " << output.exitCode << ": "
        << output.err.c_str();
    return qor::errors::kUnspecified;
}

qor::result_t IptablesRules::Initialize() {
    std::lock_guard lock(m_mutex);
    return SetUpChains();
}

qor::result_t IptablesRules::SetUpChains() {
    const auto alive = [this](pid_t pid) {
        return pid == m_owner || ::kill(pid, 0) == 0 || errno != ESRCH;
    };
    for (IpFamily family : {IpFamily::kIpv4, IpFamily::kIpv6}) {
        const std::string& save =
            family == IpFamily::kIpv4 ? m_options.ipv4Save : m_options.ipv6Save;
        ProcessOutput output;
        const qor::result_t ran = RunProcess({save, "-t", "filter"}, {}, output);
        if (!QOR_SUCCEEDED(ran) || output.exitCode != 0) {
            QOR_TRACE(m_tracer.Get(), qor::trace_level::kError)
                << "Initialize: " << save.c_str() << " failed: run "
                << qor::FormatResult(ran).c_str() << ", exit " << output.exitCode << ": "
                << output.err.c_str();
            return qor::errors::kUnspecified;
        }
        const std::vector<std::string> commands = SetupCommands(output.out, alive);
        if (const qor::result_t r = Restore(family, commands); !QOR_SUCCEEDED(r)) {
            return r;
        }
    }
    return qor::errors::kOk;
}

qor::result_t IptablesRules::Install(const dwi::firewall::Rules& rules, const char* tag) noexcept {
    try {
        if (tag == nullptr || !ValidTag(tag)) {
            return qor::errors::kInvalidArgument;
        }
        std::vector<Installed> added;
        std::vector<std::string> v4;
        std::vector<std::string> v6;
        for (const dwi::firewall::Rule& rule : rules) {
            const auto* nflog = std::get_if<NflogRule>(&rule);
            if (nflog != nullptr && !ValidNflogName(nflog->name)) {
                return qor::errors::kInvalidArgument;
            }
            const std::string comment = RuleComment(m_owner, tag, nflog ? nflog->name : "");
            Installed entry{rule, tag, {}, {}};
            for (auto [family, text, commands] : {std::tuple{IpFamily::kIpv4, &entry.v4, &v4},
                                                  std::tuple{IpFamily::kIpv6, &entry.v6, &v6}}) {
                if (const qor::result_t r =
                        RenderRule(rule, family, comment, m_options.failClosed, *text);
                    !QOR_SUCCEEDED(r)) {
                    return r;
                }
                if (*text) {
                    commands->push_back(AddCommand(**text));
                }
            }
            added.push_back(std::move(entry));
        }
        std::unique_lock lock(m_mutex);
        // Another nti ending may have removed the chains since we set them up.
        const auto restore = [&](IpFamily family, const std::vector<std::string>& commands) {
            if (QOR_SUCCEEDED(Restore(family, commands))) {
                return qor::errors::kOk;
            }
            if (const qor::result_t r = SetUpChains(); !QOR_SUCCEEDED(r)) {
                return r;
            }
            return Restore(family, commands);
        };
        if (const qor::result_t r = restore(IpFamily::kIpv4, v4); !QOR_SUCCEEDED(r)) {
            return r;
        }
        if (const qor::result_t r = restore(IpFamily::kIpv6, v6); !QOR_SUCCEEDED(r)) {
            std::vector<std::string> undo;
            for (const Installed& entry : added) {
                if (entry.v4) {
                    undo.push_back(DeleteCommand(*entry.v4));
                }
            }
            // Best effort: Restore traces a failed undo; `r` is what failed first.
            static_cast<void>(Restore(IpFamily::kIpv4, undo));
            return r;
        }
        m_installed.insert(m_installed.end(), std::make_move_iterator(added.begin()),
                           std::make_move_iterator(added.end()));
        return qor::errors::kOk;
    } catch (...) {
        return qor::errors::kOutOfMemory;
    }
}

std::vector<IptablesRules::Installed> IptablesRules::DeleteInstalled(std::vector<Installed> gone) {
    for (IpFamily family : {IpFamily::kIpv4, IpFamily::kIpv6}) {
        const auto text = [family](Installed& entry) -> std::optional<RuleText>& {
            return family == IpFamily::kIpv4 ? entry.v4 : entry.v6;
        };
        std::vector<std::string> commands;
        for (Installed& entry : gone) {
            if (text(entry)) {
                commands.push_back(DeleteCommand(*text(entry)));
            }
        }
        const bool all = QOR_SUCCEEDED(Restore(family, commands));
        for (Installed& entry : gone) {
            // One rule deleted behind our back fails the whole run: the
            // others are deleted one by one.
            if (text(entry) &&
                (all || QOR_SUCCEEDED(Restore(family, {DeleteCommand(*text(entry))})))) {
                text(entry).reset();
            }
        }
    }
    std::erase_if(gone, [](const Installed& entry) { return !entry.v4 && !entry.v6; });
    return gone;
}

qor::result_t IptablesRules::RemoveRules(const dwi::firewall::Rules& rules) noexcept {
    try {
        std::lock_guard lock(m_mutex);
        std::vector<Installed> gone;
        bool missing = false;
        for (const dwi::firewall::Rule& rule : rules) {
            const auto it = std::find_if(m_installed.begin(), m_installed.end(),
                                         [&](const Installed& e) { return e.rule == rule; });
            if (it == m_installed.end()) {
                missing = true;
                continue;
            }
            gone.push_back(std::move(*it));
            m_installed.erase(it);
        }
        std::vector<Installed> failed = DeleteInstalled(std::move(gone));
        if (!failed.empty()) {
            m_undeleted.insert(m_undeleted.end(), std::make_move_iterator(failed.begin()),
                               std::make_move_iterator(failed.end()));
            return qor::errors::kUnspecified;
        }
        return missing ? qor::errors::kFalse : qor::errors::kOk;
    } catch (...) {
        return qor::errors::kOutOfMemory;
    }
}

std::size_t IptablesRules::InstalledCount() const {
    std::lock_guard lock(m_mutex);
    return m_installed.size();
}

}  // namespace nti::host
