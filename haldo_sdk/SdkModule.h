// Finding and loading the installer SDK DLL: its location in the registry,
// the checked path, the installer's self-update lock, and the load itself.
#pragma once

#include <windows.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace ambrel {

// Why a load failed (read by Initialize only when the load fails).
enum SdkLoadCode : int {
  kSdkNotLoaded = 3,
  kSdkSelfUpdateRunning = 8,
  kSdkSignatureRejected = 9,
};

inline constexpr wchar_t kHaldoKeyPath[] = L"SOFTWARE\\Tavrel\\HALDO\\";
inline constexpr wchar_t kSdkLocationValue[] = L"HALDOSDKLocation";
inline constexpr wchar_t kSelfUpdateLockFileName[] = L"TvHALDOInstaller.run.lock";

// Where the registry buffer's memory comes from. The process keeps one; tests
// put failing functions in it to reach the out-of-memory paths.
struct RegistryBufferAllocator {
  void* (*allocate)(std::size_t size);
  void* (*reallocate)(void* memory, std::size_t size);
};
RegistryBufferAllocator& SdkLocationBufferAllocator();

// How the SDK module is unloaded (FreeLibrary). Replaceable so that a test can
// reach the path where unloading fails, which a loaded module never shows.
using ModuleUnloadFunction = BOOL(WINAPI*)(HMODULE module);
ModuleUnloadFunction& SdkModuleUnloader();

// Reads "HALDOSDKLocation" into a malloc'd, NUL-terminated buffer that the
// caller frees. The first query offers 256 bytes and each retry 256 more;
// `offeredSizes`, when given, receives the byte count offered by each query.
bool ReadStringFromRegistry(wchar_t** value, std::vector<DWORD>* offeredSizes = nullptr);

// Fills the shared state's dllPath with the expanded, existing SDK location,
// or leaves it empty and logs why.
void GetDllPath();

// The lock file's full path: under the machine-wide program-data folder, or
// the temporary directory when that folder cannot be obtained.
std::filesystem::path SelfUpdateLockFilePath();

// True when the lock file holds exactly the decimal id of a running process.
// An unexpected error testing for the file raises filesystem_error ("exists").
bool IsSelfUpdateRunning();

// True when the shared state holds the loaded SDK. On failure `code` tells
// why (3, 8 or 9).
bool LoadSdk(int& code);

}  // namespace ambrel
