// Owner of the buffer ReadSdkLocationValue fills: malloc's memory, given back
// with free.
#pragma once

#include <cstdlib>

#include "common/WinResource.h"

namespace ambrel {

inline void ReleaseRegistryBuffer(void* memory) noexcept { std::free(memory); }  // NOLINT(cppcoreguidelines-no-malloc)
using RegistryBuffer = UniqueAny<void*, &ReleaseRegistryBuffer>;

}  // namespace ambrel
