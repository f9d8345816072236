// Results of the shared-components session. Callers decide on the number
// alone and compare it numerically, so the values are fixed (and not
// contiguous); no other value is ever returned by a session operation.
#pragma once

#include <cstdint>

enum QelStatus : std::int32_t {
  Success = 0,
  // The shared-components key could not be opened, or InstallPath or Version
  // could not be read.
  RegistryReadFailed = 6,
  // The session holds no release: never initialised, or bypassed.
  NotInitialized = 8,
  // InstallPath or its version folder does not exist, or the override is
  // enabled but its variable is not set.
  PathNotFound = 12,
  // The Version value exists but is empty.
  VersionEmpty = 13,
  // QEL_INITIALIZE_BYPASSED is present: no SDK session was started.
  InitializeBypassed = 14,
  // No path override is configured.
  NoPathOverride = 100,
};
