// The environment marker of a bootstrapped process: while it is present (any
// value), sessions here and in child processes skip the installer service.
// The session reads it; the bootstrap writes it.
#pragma once

namespace ambrel {

inline constexpr const wchar_t* kBypassMarker = L"QEL_INITIALIZE_BYPASSED";

}  // namespace ambrel
