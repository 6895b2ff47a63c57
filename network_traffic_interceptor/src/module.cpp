// The module's three exports and its class table.
#include <cstdint>
#include <cstdlib>
#include <exception>

#include "network_traffic_interceptor/network_interceptor.h"
#include "network_traffic_interceptor/src/object_factory.h"
#include "qor/exception.h"
#include "qor/rtl/objclient.h"
#include "qor/service_locator.h"
#include "qor/trace/tracer.h"

using qor::result_t;

namespace {

// ReportCreationFailure converts the exception being handled, tracing it on
// the locator's tracer when there is one.
[[nodiscard]] result_t ReportCreationFailure(qor::IServiceLocator* locator,
                                             std::string_view context) noexcept {
    qor::RefPtr<qor::ITracer> tracer;
    if (locator != nullptr && !QOR_SUCCEEDED(qor::GetInterface(locator, tracer.Ref()))) {
        tracer.Reset();
    }
    return qor::CurrentExceptionToResult(tracer.Get(), context);
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) result_t qorCreateObject(std::uint32_t clsid,
                                                                const qor::CreationContext* context,
                                                                qor::IObject** out) {
    using namespace dwi::network_interceptor;
    if (clsid == kCrashClassId) {
        std::terminate();
    }
    const CreateFn create = FindClass(clsid);
    if (create == nullptr) {
        return qor::errors::kClassNotFound;
    }
    if (context == nullptr || out == nullptr) {
        return qor::errors::kInvalidArgument;
    }
    try {
        auto tracer = qor::GetMandatoryInterface<qor::ITracer>(*context);
        *out = create(context->locator, tracer.Get()).Detach();
        return qor::errors::kOk;
    } catch (...) {
        return ReportCreationFailure(context->locator, "qorCreateObject");
    }
}

__attribute__((visibility("default"))) result_t qorGetObjectFactory(qor::IServiceLocator* locator,
                                                                    std::uint32_t clsid,
                                                                    qor::IObject** out) {
    using namespace dwi::network_interceptor;
    if (clsid == kCrashClassId) {
        std::terminate();
    }
    if (out == nullptr) {
        return qor::errors::kInvalidArgument;
    }
    *out = nullptr;
    if (clsid != kMetaRegistryFactoryClassId) {
        return qor::errors::kNotImplemented;
    }
    try {
        *out = CreateMetaRegistryFactory().Detach();
        return qor::errors::kOk;
    } catch (...) {
        const result_t result =
            ReportCreationFailure(locator, "Exception during object construction: ");
        if (QOR_SUCCEEDED(result)) {
            // A failed factory must never look like a success.
            std::abort();
        }
        return result;
    }
}

__attribute__((visibility("default"))) result_t qorCanUnloadModule() {
    return qor::g_moduleObjectCount.load(std::memory_order_seq_cst) == 0 ? qor::errors::kOk
                                                                         : qor::errors::kFalse;
}

}  // extern "C"
