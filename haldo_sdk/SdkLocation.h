// The registry value that names the installer SDK's DLL: "HALDOSDKLocation"
// under HKLM\SOFTWARE\Tavrel\HALDO\, read through a buffer that grows.
#pragma once

#include <windows.h>

#include <cstddef>
#include <vector>

namespace ambrel {

inline constexpr const wchar_t* kHaldoKeyPath = L"SOFTWARE\\Tavrel\\HALDO\\";
inline constexpr const wchar_t* kSdkLocationValue = L"HALDOSDKLocation";

// Where the registry buffer's memory comes from and goes back to: malloc,
// realloc and free. The process keeps one; tests put failing or counting
// functions in it to reach the out-of-memory paths and to see every release.
struct RegistryBufferAllocator {
  void* (*allocate)(std::size_t size);
  void* (*reallocate)(void* memory, std::size_t size);
  void (*release)(void* memory);
};
RegistryBufferAllocator& SdkLocationBufferAllocator();

// Why "HALDOSDKLocation" could not be read.
enum class SdkLocationRead { Read, NoBuffer, KeyNotOpened, BufferNotEnlarged, ValueNotRead };

// Reads "HALDOSDKLocation" into a NUL-terminated buffer from the allocator
// above, which the caller releases through it (free, by default). The first
// query offers 256 bytes and each retry 256 more; `offeredSizes`, when given,
// receives the byte count offered by each query. Writes no log line, so that
// a look at the machine can use it too.
SdkLocationRead ReadSdkLocationValue(wchar_t** value, std::vector<DWORD>* offeredSizes = nullptr);

// ReadStringFromRegistry's log line for a failed read (a failed enlargement
// has none of its own: the caller's line says the read failed).
void LogLocationReadFailure(SdkLocationRead read);

// ReadSdkLocationValue, logging why it failed.
bool ReadStringFromRegistry(wchar_t** value, std::vector<DWORD>* offeredSizes = nullptr);

}  // namespace ambrel
