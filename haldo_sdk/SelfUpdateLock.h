// The installer's self-update lock: a file holding the decimal id of the
// installer process that is updating itself.
#pragma once

#include <filesystem>
#include <string>

namespace ambrel {

inline constexpr const wchar_t* kSelfUpdateLockFileName = L"TvHALDOInstaller.run.lock";

// The lock file's full path: under the machine-wide program-data folder, or
// the temporary directory when that folder cannot be obtained.
std::filesystem::path SelfUpdateLockFilePath();

// What the lock file says: whether it is there, its bytes, and whether they
// are exactly the decimal id of a running process. An unexpected error
// testing for the file raises filesystem_error ("exists").
struct SelfUpdateLock {
  std::filesystem::path file;
  bool present = false;
  std::string content;
  bool running = false;
};
SelfUpdateLock InspectSelfUpdateLock();

// True when the lock file holds exactly the decimal id of a running process.
// An unexpected error testing for the file raises filesystem_error ("exists").
bool IsSelfUpdateRunning();

}  // namespace ambrel
