// nti info: load the module, create and release each class, report.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "host/cli/commands/commands.h"
#include "network_traffic_interceptor/network_interceptor.h"
#include "qor/result.h"

namespace nti::host {

CommandRunner AddInfoCommand(CLI::App& app) {
    app.add_subcommand(
        "info",
        "Load the module, create and release each of its classes and print the "
        "result codes and the module's unload answer. Changes nothing on the machine.");
    return [](const CommonOptions& options) {
        HostContext host;
        const qor::result_t opened = host.Open(options);
        if (!QOR_SUCCEEDED(opened)) {
            std::fprintf(stderr, "nti: cannot load module: %s\n", host.Error().c_str());
            return kExitFailure;
        }
        int exitCode = kExitOk;
        std::printf("module: %s\n", host.Module().Path().c_str());
        for (const auto& [command, queues] : {std::pair{"intercept", true}, {"stats", false}}) {
            const FirewallChoice choice = ChooseFirewall(options.firewall, queues);
            std::printf("firewall for %s: %s%s%s\n", command,
                        choice.nftables ? "nftables" : "iptables",
                        choice.error.empty() && choice.note.empty() ? "" : " - ",
                        !choice.error.empty() ? choice.error.c_str() : choice.note.c_str());
            if (!choice.error.empty()) {
                exitCode = kExitFailure;
            }
        }
        std::printf("qorCanUnloadModule before: %s\n",
                    qor::FormatResult(host.Module().CanUnloadModule()).c_str());
        struct Class {
            const char* name;
            std::uint32_t clsid;
            bool factory;
        };
        using namespace dwi::network_interceptor;
        const Class classes[] = {
            {"NetworkInterceptor", kNetworkInterceptorClassId, false},
            {"ConnectionCounters", kConnectionCountersClassId, false},
            {"TypeDescriptorStaticRegistry factory", kMetaRegistryFactoryClassId, true},
        };
        for (const auto& c : classes) {
            qor::RefPtr<qor::IObject> object;
            const qor::result_t created =
                c.factory ? host.Module().GetObjectFactory(&host.Locator(), c.clsid, object.Ref())
                          : host.CreateObject(c.clsid, object.Ref());
            std::printf("%-40s 0x%08x  %s\n", c.name, c.clsid, qor::FormatResult(created).c_str());
            if (!QOR_SUCCEEDED(created)) {
                exitCode = kExitFailure;
            }
        }
        std::printf("qorCanUnloadModule after release: %s\n",
                    qor::FormatResult(host.Module().CanUnloadModule()).c_str());
        const qor::result_t unloaded = host.Shutdown();
        std::printf("unloaded: %s\n", unloaded == qor::errors::kOk ? "yes" : "no");
        return exitCode;
    };
}

}  // namespace nti::host
