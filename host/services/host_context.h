// HostContext: a loaded module with a service locator and tracer, as every
// nti command needs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/services/meta_info_provider.h"
#include "host/services/module_loader.h"
#include "host/services/nflog_listener.h"
#include "host/services/nfqueue_query.h"
#include "host/services/rules_service.h"
#include "host/services/service_locator.h"
#include "host/services/startup_data_provider.h"
#include "host/services/timer.h"
#include "qor/object.h"
#include "qor/trace/tracer.h"

namespace nti::host {

// Options common to every command.
struct CommonOptions {
    std::string module = ModuleLoader::kDefaultModule;  // path or name
    std::uint32_t traceLevel = 300;                     // records above are dropped
    std::string traceFile;                              // empty: stderr
    bool traceJournal = false;  // systemd journal, stderr when it is unavailable
    // Statistics firewall settings: ip6tables availability (unset: detect)
    // and the mark that keeps packets out of NFLOG.
    std::optional<bool> ip6tables;
    std::uint32_t nflogBypassMark = kDefaultNflogBypassMark;
    std::string stateDir;           // empty: DefaultStateDir()
    std::string firewall = "auto";  // nft, iptables or auto: which firewall holds the rules
};

// Settings of the firewall services the host offers the module.
struct FirewallSettings {
    std::uint16_t queueFirst = 1000;  // queue numbers handed out
    std::uint16_t queueLast = 1999;
    bool failClosed = false;  // queue rules drop packets while nobody reads the queue
    bool queues = true;       // queue rules will be asked for, not only NFLOG rules
};

// FirewallChoice is the firewall that holds the rules of a run, and why.
struct FirewallChoice {
    bool nftables = false;
    // Empty when the choice can hold the rules; else why it cannot (a forced
    // nftables the kernel does not support).
    std::string error;
    // Why auto did not take nftables.
    std::string note;
};

// ChooseFirewall picks for `wanted` (nft, iptables or auto): auto takes
// nftables where an owned table can hold the rules the run needs.
FirewallChoice ChooseFirewall(const std::string& wanted, bool queues);

class HostContext {
public:
    HostContext() = default;
    HostContext(const HostContext&) = delete;
    HostContext& operator=(const HostContext&) = delete;
    ~HostContext();

    // Open registers the tracer and the host services (RegisterServices) and
    // loads the module. Returns 0 or a failure code with a message in Error().
    [[nodiscard]] qor::result_t Open(const CommonOptions& options);

    // StartFirewall creates the queue number and firewall rules services,
    // removes the rules that ended runs left behind and registers both in
    // the locator. Returns 0 or a failure code with a message in Error().
    [[nodiscard]] qor::result_t StartFirewall(const FirewallSettings& settings);
    // The services StartFirewall made; null before it.
    NfqueueQuery* Queues() { return m_queues.Get(); }
    RulesService* Firewall() { return m_firewall.Get(); }

    // NflogListeners is the factory of the module's NFLOG listeners; null
    // before Open.
    const NflogListenerFactory* NflogListeners() const { return m_nflog.Get(); }

    ServiceLocator& Locator() { return *m_locator; }
    ModuleLoader& Module() { return m_module; }
    qor::ITracer* Tracer() { return m_tracer.Get(); }
    const std::string& Error() const { return m_error; }

    // CreateObject creates class `clsid` of the module through the locator.
    [[nodiscard]] qor::result_t CreateObject(std::uint32_t clsid, qor::IObject** out);

    // Shutdown drops the services, stops the timer thread and unloads the
    // module if it allows.
    // Returns the module's unload answer (0 unloaded, 1 objects still live).
    [[nodiscard]] qor::result_t Shutdown();

private:
    // RegisterServices puts the tracer and every host service the module finds
    // through the locator into a new locator, all but the firewall services
    // StartFirewall adds; throws on failure.
    void RegisterServices(const CommonOptions& options);

    qor::RefPtr<ServiceLocator> m_locator;
    qor::RefPtr<qor::ITracer> m_tracer;
    qor::object::ImplPtr<NfqueueQuery> m_queues;
    qor::RefPtr<RulesService> m_firewall;
    std::string m_firewallChoice = "auto";
    qor::object::ImplPtr<Timer> m_timer;
    qor::object::ImplPtr<NflogListenerFactory> m_nflog;
    qor::RefPtr<MetaInfoProvider> m_metaInfo;
    ModuleLoader m_module;
    std::string m_error;
};

}  // namespace nti::host
