// The installer SDK's entry points, bound by name at each call.
#pragma once

#include <array>

namespace ambrel {

inline constexpr const char* kSdkInitializeExport = "Initialize";
inline constexpr const char* kSdkReleaseMemoryExport = "ReleaseMemory";
inline constexpr const char* kSdkUninitializeExport = "Uninitialize";
inline constexpr const char* kSdkLockDirectoryExport = "LockDirectory";
inline constexpr const char* kSdkUnLockDirectoryExport = "UnLockDirectory";

struct SdkEntryPoint {
  const char* name;
  // Without it no lock is taken: the wrapper's Initialize (no session, so
  // the session does not ask for the lock) or its LockDirectory answers
  // kWrapperExportMissing. The others only cost a log line or the unlock.
  bool lockNeedsIt;
};

// All five, in the order the SDK's documentation lists them.
inline constexpr std::array<SdkEntryPoint, 5> kSdkEntryPoints = {{
    {kSdkInitializeExport, true},
    {kSdkReleaseMemoryExport, false},
    {kSdkUninitializeExport, false},
    {kSdkLockDirectoryExport, true},
    {kSdkUnLockDirectoryExport, false},
}};

}  // namespace ambrel
