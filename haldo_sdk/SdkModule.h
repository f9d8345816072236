// Loading the installer SDK DLL: the checks that stand before LoadLibraryW,
// in the wrapper's order, and the load itself.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "common/WinResource.h"
#include "haldo_sdk/SdkLocation.h"
#include "haldo_sdk/SdkPath.h"
#include "haldo_sdk/SelfUpdateLock.h"
#include "haldo_sdk/SignatureCheck.h"

namespace ambrel {

// Told of the load walk's steps as they happen, each before the walk goes on.
class SdkLoadSteps {
 public:
  SdkLoadSteps() = default;
  SdkLoadSteps(const SdkLoadSteps&) = delete;
  SdkLoadSteps& operator=(const SdkLoadSteps&) = delete;
  SdkLoadSteps(SdkLoadSteps&&) = delete;
  SdkLoadSteps& operator=(SdkLoadSteps&&) = delete;
  virtual ~SdkLoadSteps() = default;
  // The lock file names a running process: the walk ends here.
  virtual void SelfUpdateRunning() = 0;
  // The registry was read for the SDK location (only while no path was known).
  virtual void PathLookedUp(const SdkPathLookup& lookup) = 0;
  // There is no SDK file to check: the walk ends here.
  virtual void NoPath() = 0;
  // The SDK file is known; its signature is checked next.
  virtual void SignatureCheckNext(const std::wstring& path) = 0;
  // The signature check refused the file: the walk ends here.
  virtual void SignatureRejected(const std::wstring& path) = 0;
  // Told of the signature check's own steps; none when null.
  virtual SignatureSteps* signatureSteps() = 0;
};

// What stands between the wrapper and LoadLibraryW, in the order it meets it:
// the self-update lock, the SDK file's path, its signature and publisher.
// Each step is reached only when the one before it let the load go on; the
// first refusal ends the walk.
struct SdkLoadCheck {
  SelfUpdateLock selfUpdate;
  std::optional<SdkPathLookup> lookup;  // absent when the path was known already, or not reached
  std::wstring path;                    // the SDK file, when known or found
  std::optional<SignatureFindings> signature;  // absent when not reached
  // kWrapperSuccess when nothing refuses the load; else kWrapperSelfUpdateRunning,
  // kWrapperSdkNotLoaded (no path) or kWrapperSignatureRejected.
  int refusal = 0;
};
// `knownPath`: the path an earlier load found (then the registry is not read).
// `steps` is told of each step as it happens. An unexpected error testing for
// the lock file raises filesystem_error ("exists"), and one obtaining the
// temporary directory (when the program-data folder cannot be had)
// filesystem_error ("temp_directory_path").
SdkLoadCheck CheckSdkLoad(const std::wstring& knownPath, SdkLoadSteps* steps = nullptr);

// Opens `path` for reading, shared with readers only, so that while the handle
// is open nobody can write, rename or delete the file. An empty handle when
// that cannot be had (a folder, access denied, a writer already there).
UniqueFileHandle HoldAgainstChanges(const std::wstring& path);

// True when the shared state holds the loaded SDK. On failure `code` tells
// why: kWrapperSdkNotLoaded, kWrapperSelfUpdateRunning or kWrapperSignatureRejected.
bool LoadSdk(int& code);

}  // namespace ambrel
