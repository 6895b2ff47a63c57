// NftRules: the host's firewall rules in an nftables table of this run's
// own, created with the owner flag: the kernel deletes it with everything in
// it when the netlink socket that created it closes, so no rule outlives the
// process, whether it ends normally, by SIGKILL or by a crash.
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/services/rule_text.h"
#include "host/services/rules_service.h"
#include "qor/trace/tracer.h"

struct nft_ctx;

namespace nti::host {

// NftSupport says what this kernel and libnftables let an owned table hold,
// found out without changing anything (a check run the kernel aborts).
struct NftSupport {
    bool ownedTables = false;
    bool queue = false;  // queue rules (the kernel's nft_queue)
    bool log = false;    // NFLOG rules (nft_log)
    std::string why;     // what is missing, for messages
};
[[nodiscard]] NftSupport ProbeNftables();

class NftRules : public RulesService {
public:
    NftRules(bool failClosed, qor::RefPtr<qor::ITracer> tracer);
    ~NftRules() override;

    const char* BackendName() const noexcept override { return "nftables"; }
    // Initialize creates the table "nti_<pid>" (family inet) with the chains
    // "input", "output" and "forward" on those hooks, ahead of the iptables
    // filter table.
    [[nodiscard]] qor::result_t Initialize() override;
    [[nodiscard]] qor::result_t Install(const dwi::firewall::Rules& rules,
                                        const char* tag) noexcept override;
    // RemoveRules: 1 when some record was not installed (the others are
    // removed), 0x8000004B when a rule could not be deleted.
    [[nodiscard]] qor::result_t RemoveRules(const dwi::firewall::Rules& rules) noexcept override;
    std::size_t InstalledCount() const override;

    const std::string& Table() const { return m_table; }

private:
    struct CtxFree {
        void operator()(nft_ctx* ctx) const;
    };
    struct Placed {
        std::string chain;
        std::string handle;
    };
    struct Installed {
        dwi::firewall::Rule rule;
        std::vector<Placed> placed;  // one per family the record applies to
    };

    // Run runs nft commands as one transaction; the kernel's echo of the
    // added rules goes to `echo`.
    [[nodiscard]] qor::result_t Run(const std::string& commands, std::string* echo = nullptr);
    [[nodiscard]] qor::result_t DeletePlaced(const std::vector<Installed>& gone);

    bool m_failClosed;
    qor::RefPtr<qor::ITracer> m_tracer;
    pid_t m_owner;
    std::string m_table;
    mutable std::mutex m_mutex;
    // The socket in this context owns the table: one context for the whole run.
    std::unique_ptr<nft_ctx, CtxFree> m_ctx;
    std::vector<Installed> m_installed;
};

}  // namespace nti::host
