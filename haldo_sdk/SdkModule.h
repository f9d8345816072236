// Finding and loading the installer SDK DLL: its location in the registry,
// the checked path, the installer's self-update lock, and the load itself.
#pragma once

#include <windows.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "common/WinResource.h"

namespace ambrel {

inline constexpr const wchar_t* kHaldoKeyPath = L"SOFTWARE\\Tavrel\\HALDO\\";
inline constexpr const wchar_t* kSdkLocationValue = L"HALDOSDKLocation";
inline constexpr const wchar_t* kSelfUpdateLockFileName = L"TvHALDOInstaller.run.lock";

// Where the registry buffer's memory comes from and goes back to: malloc,
// realloc and free. The process keeps one; tests put failing or counting
// functions in it to reach the out-of-memory paths and to see every release.
struct RegistryBufferAllocator {
  void* (*allocate)(std::size_t size);
  void* (*reallocate)(void* memory, std::size_t size);
  void (*release)(void* memory);
};
RegistryBufferAllocator& SdkLocationBufferAllocator();

// How the SDK module is unloaded (FreeLibrary). Replaceable so that a test can
// reach the path where unloading fails, which a loaded module never shows.
using ModuleUnloadFunction = BOOL(WINAPI*)(HMODULE module);
ModuleUnloadFunction& SdkModuleUnloader();

// Why "HALDOSDKLocation" could not be read.
enum class SdkLocationRead { Read, NoBuffer, KeyNotOpened, BufferNotEnlarged, ValueNotRead };

// Reads "HALDOSDKLocation" into a NUL-terminated buffer from the allocator
// above, which the caller releases through it (free, by default). The first
// query offers 256 bytes and each retry 256 more; `offeredSizes`, when given,
// receives the byte count offered by each query. Writes no log line, so that
// a look at the machine can use it too.
SdkLocationRead ReadSdkLocationValue(wchar_t** value, std::vector<DWORD>* offeredSizes = nullptr);

// ReadSdkLocationValue, logging why it failed.
bool ReadStringFromRegistry(wchar_t** value, std::vector<DWORD>* offeredSizes = nullptr);

// Where the SDK location led, step by step; logs nothing.
struct SdkPathLookup {
  enum class Outcome { RegistryUnreadable, Empty, ExpansionFailed, Missing, Found };
  Outcome outcome = Outcome::RegistryUnreadable;
  SdkLocationRead read = SdkLocationRead::ValueNotRead;
  std::wstring value;     // the registry value up to its first NUL
  std::wstring expanded;  // its expansion, when it fits
};
SdkPathLookup LookUpSdkPath();

// Fills the shared state's dllPath with the expanded, existing SDK location,
// or leaves it empty and logs why.
void GetDllPath();

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

// Opens `path` for reading, shared with readers only, so that while the handle
// is open nobody can write, rename or delete the file. An empty handle when
// that cannot be had (a folder, access denied, a writer already there).
UniqueFileHandle HoldAgainstChanges(const std::wstring& path);

// True when the shared state holds the loaded SDK. On failure `code` tells
// why: kWrapperSdkNotLoaded, kWrapperSelfUpdateRunning or kWrapperSignatureRejected.
bool LoadSdk(int& code);

}  // namespace ambrel
