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

// What stands between the wrapper and LoadLibraryW, in the order it meets it:
// the self-update lock, the SDK file's path, its signature and publisher.
// Each step is reached only when the one before it let the load go on; the
// first refusal ends the walk.
struct SdkLoadCheck {
  SelfUpdateLock selfUpdate;
  std::optional<SdkPathLookup> lookup;  // absent when the path was known already, or not reached
  std::wstring path;                    // the SDK file, when known or found
  // The SDK file held against changes (HoldAgainstChanges) from just before
  // its signature check for as long as the record keeps it: a caller that
  // loads the file releases it once the loader has it.
  UniqueFileHandle hold;
  std::optional<SignatureFindings> signature;  // absent when not reached; holds the publisher search's handles
  // kWrapperSuccess when nothing refuses the load; else kWrapperSelfUpdateRunning,
  // kWrapperSdkNotLoaded (no path) or kWrapperSignatureRejected.
  int refusal = 0;
  // Closes what the record holds (the file, the publisher search's store and
  // message), keeping what was found: for a caller that loads nothing.
  void CloseHandles() noexcept;
};
// `knownPath`: the path an earlier load found (then the registry is not read).
// `signatureSteps` is told of the signature check's steps as they happen. An
// unexpected error testing for the lock file raises filesystem_error
// ("exists"), and one obtaining the temporary directory (when the
// program-data folder cannot be had) filesystem_error ("temp_directory_path").
SdkLoadCheck CheckSdkLoad(const std::wstring& knownPath, SignatureSteps* signatureSteps = nullptr);

// Opens `path` for reading, shared with readers only, so that while the handle
// is open nobody can write, rename or delete the file. An empty handle when
// that cannot be had (a folder, access denied, a writer already there).
UniqueFileHandle HoldAgainstChanges(const std::wstring& path);

// True when the shared state holds the loaded SDK. On failure `code` tells
// why: kWrapperSdkNotLoaded, kWrapperSelfUpdateRunning or kWrapperSignatureRejected.
bool LoadSdk(int& code);

}  // namespace ambrel
