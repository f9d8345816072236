#include "haldo_sdk/SdkLocation.h"

#include <cstdlib>

#include "common/WinResource.h"
#include "haldo_sdk/RegistryBuffer.h"
#include "haldo_sdk/WrapperLog.h"

namespace ambrel {
namespace {

constexpr std::size_t kRegistryBufferBytes = 2048;
constexpr DWORD kRegistryQueryStep = 256;

// Puts a NUL after what the query returned. Every buffer has room for it: the
// first is far larger than the first query, each enlargement one unit larger
// than the byte count it offers.
void TerminateAfter(wchar_t* buffer, DWORD returnedBytes) { buffer[returnedBytes / sizeof(wchar_t)] = L'\0'; }

}  // namespace

SdkLocationRead ReadSdkLocationValue(wchar_t** value) {
  *value = nullptr;
  // The buffer grows with realloc, which only malloc's memory allows; the
  // RegistryBuffer that holds it frees it on every path.
  RegistryBuffer buffer(std::malloc(kRegistryBufferBytes));  // NOLINT(cppcoreguidelines-no-malloc)
  if (!buffer) return SdkLocationRead::NoBuffer;

  UniqueRegKey key;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kHaldoKeyPath, 0, KEY_READ, key.put()) != ERROR_SUCCESS) {
    return SdkLocationRead::KeyNotOpened;
  }

  DWORD offered = kRegistryQueryStep;
  DWORD size = offered;
  auto query = [&] {
    return ::RegQueryValueExW(key.get(), kSdkLocationValue, nullptr, nullptr, static_cast<BYTE*>(buffer.get()), &size);
  };
  LSTATUS status = query();
  while (status == ERROR_MORE_DATA) {
    offered += kRegistryQueryStep;
    void* larger = std::realloc(buffer.get(), offered + sizeof(wchar_t));  // NOLINT(cppcoreguidelines-no-malloc)
    if (!larger) return SdkLocationRead::BufferNotEnlarged;  // the owners free the old buffer and close the key
    (void)buffer.release();                                  // realloc has taken over the old block
    buffer.reset(larger);
    size = offered;
    status = query();
  }
  if (status != ERROR_SUCCESS) return SdkLocationRead::ValueNotRead;

  TerminateAfter(static_cast<wchar_t*>(buffer.get()), size);
  *value = static_cast<wchar_t*>(buffer.release());  // the caller frees it
  return SdkLocationRead::Read;
}

void LogLocationReadFailure(SdkLocationRead read) {
  switch (read) {
    case SdkLocationRead::NoBuffer:
      LogWrapperError("ReadStringFromRegistry: Failed to allocate memory for buffer to read registry!");
      break;
    case SdkLocationRead::KeyNotOpened: LogWrapperError("ReadStringFromRegistry: RegOpenKeyEx failed!"); break;
    case SdkLocationRead::ValueNotRead: LogWrapperError("ReadStringFromRegistry: RegQueryValueEx failed!"); break;
    case SdkLocationRead::BufferNotEnlarged:
    case SdkLocationRead::Read: break;
  }
}

bool ReadStringFromRegistry(wchar_t** value) {
  const SdkLocationRead read = ReadSdkLocationValue(value);
  LogLocationReadFailure(read);
  return read == SdkLocationRead::Read;
}

}  // namespace ambrel
