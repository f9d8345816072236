// The registry value that names the installer SDK's DLL: "HALDOSDKLocation"
// under HKLM\SOFTWARE\Tavrel\HALDO\, read through a buffer that grows.
#pragma once

#include <windows.h>

namespace ambrel {

inline constexpr const wchar_t* kHaldoKeyPath = L"SOFTWARE\\Tavrel\\HALDO\\";
inline constexpr const wchar_t* kSdkLocationValue = L"HALDOSDKLocation";

// Why "HALDOSDKLocation" could not be read.
enum class SdkLocationRead { Read, NoBuffer, KeyNotOpened, BufferNotEnlarged, ValueNotRead };

// Reads "HALDOSDKLocation" into a NUL-terminated buffer from malloc, which the
// caller frees (RegistryBuffer owns it). The first query offers 256 bytes and
// each retry 256 more. Writes no log line, so that a look at the machine can
// use it too.
SdkLocationRead ReadSdkLocationValue(wchar_t** value);

// ReadStringFromRegistry's log line for a failed read (a failed enlargement
// has none of its own: the caller's line says the read failed).
void LogLocationReadFailure(SdkLocationRead read);

// ReadSdkLocationValue, logging why it failed.
bool ReadStringFromRegistry(wchar_t** value);

}  // namespace ambrel
