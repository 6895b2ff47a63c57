#include "host/services/host_context.h"

#include <unistd.h>

#include "host/services/allocator.h"
#include "host/services/binary_serializer.h"
#include "host/services/iptables_info_provider.h"
#include "host/services/iptables_rules.h"
#include "host/services/journal_tracer.h"
#include "host/services/key_value_storage.h"
#include "host/services/nft_rules.h"
#include "host/services/tracer_sink.h"
#include "qor/exception.h"

namespace nti::host {

HostContext::~HostContext() {
    // A module that cannot unload yet stays mapped until the process ends.
    static_cast<void>(Shutdown());
}

FirewallChoice ChooseFirewall(const std::string& wanted, bool queues) {
    FirewallChoice choice;
    if (wanted == "iptables") {
        return choice;
    }
    const NftSupport nft = ProbeNftables();
    const bool fits = nft.ownedTables && nft.log && (nft.queue || !queues);
    const std::string& why = nft.why;
    if (wanted == "nft") {
        choice.nftables = true;
        if (!fits) {
            choice.error = "nftables cannot hold the rules here: " + why;
        }
    } else if (fits) {
        choice.nftables = true;
    } else {
        choice.note = "nftables: " + why;
    }
    return choice;
}

qor::result_t HostContext::Open(const CommonOptions& options) {
    m_firewallChoice = options.firewall;
    try {
        RegisterServices(options);
    } catch (const std::exception& e) {
        m_error = e.what();
        return qor::CurrentExceptionToResult(nullptr, "");
    }
    const qor::result_t loaded = m_module.Load(options.module);
    if (!QOR_SUCCEEDED(loaded)) {
        m_error = m_module.Error();
        return loaded;
    }
    m_metaInfo->AttachModule(&m_module, m_locator.Get());
    return loaded;
}

void HostContext::RegisterServices(const CommonOptions& options) {
    m_locator = qor::object::Create<ServiceLocator>();
    if (options.traceJournal) {
        m_tracer = qor::object::Create<JournalTracer>(options.traceLevel, STDERR_FILENO);
    } else if (options.traceFile.empty()) {
        m_tracer = qor::object::Create<LineTracer>(STDERR_FILENO, options.traceLevel);
    } else {
        m_tracer = OpenFileTracer(options.traceFile, options.traceLevel);
    }
    m_locator->Add(m_tracer.Get());
    m_timer = qor::object::Create<Timer>();
    m_locator->Add<qor::ITimer>(m_timer.Get());
    m_nflog = qor::object::Create<NflogListenerFactory>(m_tracer.Get());
    m_locator->Add<dwi::firewall::INflogListenerFactory>(m_nflog.Get());
    m_locator->Add<dwi::firewall::IIptablesInfoProvider>(
        qor::object::Create<IptablesInfoProvider>(options.ip6tables).Get());
    m_locator->Add<dwi::firewall::IStartupDataProvider>(
        qor::object::Create<StartupDataProvider>(
            dwi::firewall::StartupData{options.nflogBypassMark})
            .Get());
    m_locator->Add<qor::IAllocator>(qor::object::Create<MallocAllocator>().Get());
    m_locator->Add<qor::IBinarySerializer>(qor::object::Create<BinarySerializer>().Get());
    // The database is opened on first use.
    m_locator->Add<app_core::component::IKeyValueStorage>(
        qor::object::Create<SqliteKeyValueStorage>(options.stateDir.empty() ? DefaultStateDir()
                                                                            : options.stateDir)
            .Get());
    // Answers the module's types once it is loaded and attached.
    m_metaInfo = qor::object::Create<MetaInfoProvider>();
    m_locator->Add<qor::IMetaInfoProvider>(m_metaInfo.Get());
}

qor::result_t HostContext::StartFirewall(const FirewallSettings& settings) {
    try {
        const FirewallChoice choice = ChooseFirewall(m_firewallChoice, settings.queues);
        if (!choice.error.empty()) {
            m_error = choice.error;
            return qor::errors::kUnspecified;
        }
        qor::RefPtr<RulesService> firewall;
        if (choice.nftables) {
            firewall = qor::object::Create<NftRules>(settings.failClosed, m_tracer);
        } else {
            FirewallOptions options;
            options.failClosed = settings.failClosed;
            firewall = qor::object::Create<IptablesRules>(options, m_tracer);
        }
        if (const qor::result_t r = firewall->Initialize(); !QOR_SUCCEEDED(r)) {
            m_error = choice.nftables
                          ? "cannot create the nftables table"
                          : "cannot set up the firewall chains (is iptables-restore there?)";
            return r;
        }
        m_queues = qor::object::Create<NfqueueQuery>(settings.queueFirst, settings.queueLast);
        m_firewall = std::move(firewall);
        m_locator->Add(m_queues.Get());
        m_locator->Add(m_firewall.Get());
        return qor::errors::kOk;
    } catch (const std::exception& e) {
        m_error = e.what();
        return qor::CurrentExceptionToResult(nullptr, "");
    }
}

qor::result_t HostContext::CreateObject(std::uint32_t clsid, qor::IObject** out) {
    qor::CreationContext context;
    context.locator = m_locator.Get();
    return m_module.CreateObject(clsid, context, out);
}

qor::result_t HostContext::Shutdown() {
    if (m_locator) {
        m_locator->Clear();
    }
    m_queues = nullptr;
    m_firewall = nullptr;
    if (m_timer) {
        m_timer->Shutdown();  // drops runnables of the module before it goes
    }
    // The module's registry must go before the module may unload.
    if (m_metaInfo) {
        m_metaInfo->DropRegistries();
        m_metaInfo.Reset();
    }
    return m_module.Unload();
}

}  // namespace nti::host
