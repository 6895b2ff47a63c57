// The factory of the statistics metadata registry.
#pragma once

#include "qor/object.h"

namespace dwi::network_interceptor {

// MetaRegistryFactory is handed out by qorGetObjectFactory.
class MetaRegistryFactory : public qor::object::Ifaces<> {
public:
    MetaRegistryFactory() = default;
};

}  // namespace dwi::network_interceptor
