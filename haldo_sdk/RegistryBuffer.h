// Owner of the buffer ReadSdkLocationValue fills: it goes back through the
// allocator it came from.
#pragma once

#include "common/WinResource.h"
#include "haldo_sdk/SdkLocation.h"

namespace ambrel {

struct RegistryBufferTraits {
  using Type = void*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type memory) noexcept { SdkLocationBufferAllocator().release(memory); }
};
using RegistryBuffer = UniqueResource<RegistryBufferTraits>;

}  // namespace ambrel
