#include "host/host_context.h"

#include <unistd.h>

#include "host/journal_tracer.h"
#include "host/tracer_sink.h"
#include "qor/exception.h"

namespace nti::host {

HostContext::~HostContext() {
    Shutdown();
}

qor::result_t HostContext::Open(const CommonOptions& options) {
    try {
        m_locator = qor::object::Create<ServiceLocator>();
        if (options.traceJournal) {
            m_tracer = qor::object::Create<JournalTracer>(options.traceLevel, STDERR_FILENO);
        } else if (options.traceFile.empty()) {
            m_tracer = qor::object::Create<LineTracer>(STDERR_FILENO, options.traceLevel);
        } else {
            m_tracer = OpenFileTracer(options.traceFile, options.traceLevel);
        }
        m_locator->Register(m_tracer.Get());
    } catch (const std::exception& e) {
        m_error = e.what();
        return qor::CurrentExceptionToResult(nullptr, "");
    }
    const qor::result_t loaded = m_module.Load(options.module);
    if (!QOR_SUCCEEDED(loaded)) {
        m_error = m_module.Error();
    }
    return loaded;
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
    return m_module.Unload();
}

}  // namespace nti::host
