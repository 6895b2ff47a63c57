// Blob tools: serialisable objects to flat byte blobs and back, through the
// host's serialisers.
#pragma once

#include "qor/byte_vector.h"
#include "qor/meta.h"
#include "qor/service_locator.h"

namespace dwi::tools {

// AnyToBlob serialises `any` with the host's IBinarySerializer (buffer owned
// by the host's IAllocator) into `dataBlob`. Returns 0 or a failure code
// (0x80000046 when `any` refers to nothing), traced at level 300.
[[nodiscard]] int AnyToBlob(qor::IServiceLocator* sl, const qor::AnyRef& any,
                            qor::ByteVector& dataBlob);

// AnyFromBlob deserialises `dataBlob` into the object behind `any`.
[[nodiscard]] int AnyFromBlob(qor::IServiceLocator* sl, const qor::ByteVector& dataBlob,
                              const qor::AnyRef& any);

// AnyToStorageBlob writes `any` through the host's IStorageSerializer2 into a
// storage (root node "root") kept in `buffer`. An existing storage image in
// `buffer` is opened and its root rewritten. Throws GetInterfaceException
// when `sl` has no tracer; any other failure is a returned code.
[[nodiscard]] int AnyToStorageBlob(qor::IServiceLocator* sl, const qor::AnyRef& any,
                                   qor::ByteVector& buffer);

// AnyFromStorageBlob reads the storage image `blob` into the object behind
// `any`. Throws GetInterfaceException when `sl` has no tracer.
[[nodiscard]] int AnyFromStorageBlob(qor::IServiceLocator* sl, const qor::ByteVector& blob,
                                     const qor::AnyRef& any);

}  // namespace dwi::tools
