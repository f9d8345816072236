// The delay-load failure hook's own state.
#pragma once

#include <string>

namespace ambrel {

// The shared-components folder the hook found; empty until a hook call finds
// one, then kept for the life of the library. Not synchronised.
std::wstring& DelayLoadSharedDllPath();

}  // namespace ambrel
