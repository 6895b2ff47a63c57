// FakeMetaInfoProvider answers the descriptors it was given; 0x8000004C for
// any other type id.
#pragma once

#include <cstdint>
#include <map>

#include "qor/meta.h"
#include "qor/object.h"

namespace nti::test {

class FakeMetaInfoProvider : public qor::object::Ifaces<qor::IMetaInfoProvider> {
public:
    qor::result_t GetTypeInfo(std::uint32_t typeId,
                              const qor::meta::TypeDescriptor** out) noexcept override {
        const auto it = m_types.find(typeId);
        if (it == m_types.end()) {
            return qor::errors::kNotFound;
        }
        *out = it->second;
        return 0;
    }
    void Add(const qor::meta::TypeDescriptor* type) { m_types[type->typeId] = type; }

private:
    std::map<std::uint32_t, const qor::meta::TypeDescriptor*> m_types;
};

}  // namespace nti::test
