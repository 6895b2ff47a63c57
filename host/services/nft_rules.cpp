#include "host/services/nft_rules.h"

#include <nftables/libnftables.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "qor/trace/record.h"

namespace nti::host {
namespace {

// The kernel keeps at most 128 bytes of a rule's comment.
constexpr std::size_t kMaxNftComment = 127;

std::string FirstLine(const char* text) {
    std::string line = text == nullptr ? "" : text;
    line = line.substr(0, line.find('\n'));
    return line.empty() ? "refused" : line;
}

// AddedHandles reads the handles from the kernel's echo of added rules, in
// the order the rules were given.
std::vector<std::string> AddedHandles(const std::string& echo) {
    constexpr std::string_view kHandle = "# handle ";
    std::vector<std::string> handles;
    std::istringstream in(echo);
    for (std::string line; std::getline(in, line);) {
        const std::size_t at = line.rfind(kHandle);
        if ((line.starts_with("add rule ") || line.starts_with("insert rule ")) &&
            at != std::string::npos) {
            handles.push_back(line.substr(at + kHandle.size()));
        }
    }
    return handles;
}

}  // namespace

NftSupport ProbeNftables() {
    NftSupport support;
    nft_ctx* ctx = nft_ctx_new(NFT_CTX_DEFAULT);
    if (ctx == nullptr) {
        support.why = "libnftables cannot start";
        return support;
    }
    nft_ctx_buffer_output(ctx);
    nft_ctx_buffer_error(ctx);
    nft_ctx_set_dry_run(ctx, true);
    const std::string table =
        "add table inet nti_probe { flags owner; }\n"
        "add chain inet nti_probe p { type filter hook input priority -1; }\n";
    const auto check = [&](const char* what, const std::string& commands) {
        const bool ok = nft_run_cmd_from_buffer(ctx, commands.c_str()) == 0;
        if (!ok && support.why.empty()) {
            support.why =
                std::string("no ") + what + " (" + FirstLine(nft_ctx_get_error_buffer(ctx)) + ")";
        }
        return ok;
    };
    support.ownedTables = check("owned tables", table);
    if (support.ownedTables) {
        support.queue =
            check("queue rules", table + "add rule inet nti_probe p queue num 0 bypass\n");
        support.log = check("log rules", table + "add rule inet nti_probe p log group 0\n");
    }
    nft_ctx_free(ctx);
    return support;
}

void NftRules::CtxFree::operator()(nft_ctx* ctx) const {
    nft_ctx_free(ctx);
}

NftRules::NftRules(bool failClosed, qor::RefPtr<qor::ITracer> tracer)
    : m_failClosed(failClosed),
      m_tracer(std::move(tracer)),
      m_owner(::getpid()),
      m_table("nti_" + std::to_string(m_owner)) {}

NftRules::~NftRules() {
    std::lock_guard lock(m_mutex);
    if (m_ctx) {
        // Closing the socket would delete the table too; deleting it first
        // reports a failure while the tracer is still there (Run traces it).
        static_cast<void>(Run("delete table inet " + m_table));
    }
}

qor::result_t NftRules::Run(const std::string& commands, std::string* echo) {
    nft_ctx_output_set_flags(m_ctx.get(),
                             echo != nullptr ? NFT_CTX_OUTPUT_ECHO | NFT_CTX_OUTPUT_HANDLE : 0);
    const int rc = nft_run_cmd_from_buffer(m_ctx.get(), commands.c_str());
    const char* out = nft_ctx_get_output_buffer(m_ctx.get());
    const char* err = nft_ctx_get_error_buffer(m_ctx.get());
    if (rc == 0) {
        if (echo != nullptr) {
            *echo = out == nullptr ? "" : out;
        }
        return qor::errors::kOk;
    }
    QOR_TRACE(m_tracer.Get(), qor::trace_level::kError)
        << "Run: nft refused \"" << FirstLine(commands.c_str()).c_str()
        << "\": " << FirstLine(err).c_str();
    return qor::errors::kUnspecified;
}

qor::result_t NftRules::Initialize() {
    try {
        std::lock_guard lock(m_mutex);
        m_ctx.reset(nft_ctx_new(NFT_CTX_DEFAULT));
        if (!m_ctx) {
            return qor::errors::kUnspecified;
        }
        nft_ctx_buffer_output(m_ctx.get());
        nft_ctx_buffer_error(m_ctx.get());
        std::string commands = "add table inet " + m_table + " { flags owner; }\n";
        // Ahead of the iptables filter table (priority 0), as the jumps to
        // the NTI chains come first there.
        for (const char* hook : {"input", "output", "forward"}) {
            commands += "add chain inet " + m_table + " " + hook + " { type filter hook " + hook +
                        " priority -1; policy accept; }\n";
        }
        const qor::result_t r = Run(commands);
        if (!QOR_SUCCEEDED(r)) {
            m_ctx.reset();
        }
        return r;
    } catch (...) {
        return qor::errors::kOutOfMemory;
    }
}

qor::result_t NftRules::Install(const dwi::firewall::Rules& rules, const char* tag) noexcept {
    try {
        if (tag == nullptr || !ValidTag(tag)) {
            return qor::errors::kInvalidArgument;
        }
        std::vector<Installed> added;
        std::string commands;
        for (const dwi::firewall::Rule& rule : rules) {
            const auto* nflog = std::get_if<dwi::firewall::NflogRule>(&rule);
            if (nflog != nullptr && !ValidNflogName(nflog->name)) {
                return qor::errors::kInvalidArgument;
            }
            const std::string comment =
                RuleComment(m_owner, tag, nflog ? nflog->name : "").substr(0, kMaxNftComment);
            Installed entry{rule, {}};
            for (IpFamily family : {IpFamily::kIpv4, IpFamily::kIpv6}) {
                std::optional<RuleText> text;
                if (const qor::result_t r =
                        RenderNftRule(rule, family, comment, m_failClosed, text);
                    !QOR_SUCCEEDED(r)) {
                    return r;
                }
                if (text) {
                    commands += std::string(text->atHead ? "insert" : "add") + " rule inet " +
                                m_table + " " + text->chain + " " + text->spec + "\n";
                    entry.placed.push_back({text->chain, {}});
                }
            }
            added.push_back(std::move(entry));
        }
        std::lock_guard lock(m_mutex);
        if (!m_ctx) {
            return qor::errors::kInvalidState;
        }
        std::string echo;
        if (!commands.empty()) {
            if (const qor::result_t r = Run(commands, &echo); !QOR_SUCCEEDED(r)) {
                return r;
            }
        }
        const std::vector<std::string> handles = AddedHandles(echo);
        std::size_t next = 0;
        for (Installed& entry : added) {
            for (Placed& placed : entry.placed) {
                if (next < handles.size()) {
                    placed.handle = handles[next];
                }
                ++next;
            }
        }
        if (next != handles.size()) {
            // Rules we cannot name cannot be removed one by one: take them
            // all back out rather than keep some we lose track of.
            QOR_TRACE(m_tracer.Get(), qor::trace_level::kError)
                << "Install: nft echoed " << static_cast<std::uint64_t>(handles.size())
                << " handles for " << static_cast<std::uint64_t>(next) << " rules";
            // Best effort: Run traces a failure, and the table with whatever
            // is left goes when this object closes its nftables context.
            static_cast<void>(DeletePlaced(added));
            return qor::errors::kUnspecified;
        }
        m_installed.insert(m_installed.end(), std::make_move_iterator(added.begin()),
                           std::make_move_iterator(added.end()));
        return qor::errors::kOk;
    } catch (...) {
        return qor::errors::kOutOfMemory;
    }
}

qor::result_t NftRules::DeletePlaced(const std::vector<Installed>& gone) {
    std::vector<std::string> commands;
    for (const Installed& entry : gone) {
        for (const Placed& placed : entry.placed) {
            if (!placed.handle.empty()) {
                commands.push_back("delete rule inet " + m_table + " " + placed.chain + " handle " +
                                   placed.handle + "\n");
            }
        }
    }
    std::string all;
    for (const std::string& c : commands) {
        all += c;
    }
    if (all.empty() || QOR_SUCCEEDED(Run(all))) {
        return qor::errors::kOk;
    }
    // One rule deleted behind our back fails the whole run: delete the
    // others one by one.
    qor::result_t result = qor::errors::kOk;
    for (const std::string& c : commands) {
        if (!QOR_SUCCEEDED(Run(c))) {
            result = qor::errors::kUnspecified;
        }
    }
    return result;
}

qor::result_t NftRules::RemoveRules(const dwi::firewall::Rules& rules) noexcept {
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
        if (!m_ctx) {
            return missing ? qor::errors::kFalse : qor::errors::kOk;
        }
        const qor::result_t deleted = DeletePlaced(gone);
        if (!QOR_SUCCEEDED(deleted)) {
            return deleted;
        }
        return missing ? qor::errors::kFalse : qor::errors::kOk;
    } catch (...) {
        return qor::errors::kOutOfMemory;
    }
}

std::size_t NftRules::InstalledCount() const {
    std::lock_guard lock(m_mutex);
    return m_installed.size();
}

}  // namespace nti::host
