#include "network_traffic_interceptor/src/meta_registry.h"

#include "network_traffic_interceptor/src/statistics_meta.h"

namespace dwi::network_interceptor::MetaInfoDescriptorsNamespace {

qor::result_t TypeDescriptorStaticRegistry::EnumerateTypes(
    std::vector<std::uint32_t>& ids) noexcept {
    try {
        ids.reserve(ids.size() + std::size(kTypeIds));
    } catch (...) {
        return qor::errors::kOutOfMemory;
    }
    ids.insert(ids.end(), std::begin(kTypeIds), std::end(kTypeIds));
    return qor::errors::kOk;
}

qor::result_t TypeDescriptorStaticRegistry::GetTypeInfo(
    std::uint32_t typeId, const qor::meta::TypeDescriptor** out) noexcept {
    if (out == nullptr) {
        return qor::errors::kInvalidArgument;
    }
    for (const std::uint32_t id : kTypeIds) {
        if (id == typeId) {
            *out = FindStatisticsType(typeId);
            return qor::errors::kOk;
        }
    }
    return qor::errors::kNotFound;
}

}  // namespace dwi::network_interceptor::MetaInfoDescriptorsNamespace
