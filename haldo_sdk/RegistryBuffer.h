// Owner of the buffer ReadSdkLocationValue fills: it goes back through the
// allocator it came from.
#pragma once

#include "common/WinResource.h"
#include "haldo_sdk/SdkLocation.h"

namespace ambrel {

inline void ReleaseRegistryBuffer(void* memory) noexcept { SdkLocationBufferAllocator().release(memory); }
using RegistryBuffer = UniqueAny<void*, &ReleaseRegistryBuffer>;

}  // namespace ambrel
