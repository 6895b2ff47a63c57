// The statistics metadata registry and its factory.
#pragma once

#include <cstdint>
#include <vector>

#include "qor/meta.h"
#include "qor/object.h"
#include "qor/rtl/generic_factory.h"

namespace dwi::network_interceptor {
namespace MetaInfoDescriptorsNamespace {

// TypeDescriptorStaticRegistry answers the descriptors of the three top-level
// statistics records: Collectors, IntervalCounters and ConnectionCounter.
// The nested types are reached through their fields. Stateless.
class TypeDescriptorStaticRegistry
    : public qor::object::Ifaces<qor::IStructMetaInfoRegistry, qor::IMetaInfoProvider> {
public:
    // The top-level type ids, in enumeration order.
    static constexpr std::uint32_t kTypeIds[] = {0x55afdee1, 0x792d16ae, 0x93bc078b};

    // EnumerateTypes appends the three ids; 0x80000041 when `ids` cannot grow.
    [[nodiscard]] qor::result_t EnumerateTypes(std::vector<std::uint32_t>& ids) noexcept override;
    // GetTypeInfo serves both interfaces: 0 with the descriptor for one of
    // the three ids, 0x8000004C for any other.
    [[nodiscard]] qor::result_t GetTypeInfo(
        std::uint32_t typeId, const qor::meta::TypeDescriptor** out) noexcept override;
};

}  // namespace MetaInfoDescriptorsNamespace

// MetaRegistryFactory is handed out by qorGetObjectFactory.
using MetaRegistryFactory =
    qor::GenericObjectFactory<MetaInfoDescriptorsNamespace::TypeDescriptorStaticRegistry>;

}  // namespace dwi::network_interceptor
