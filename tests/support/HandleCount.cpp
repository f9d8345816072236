#include "tests/support/HandleCount.h"

#include <windows.h>

#include <vector>

namespace ambrel::test {
namespace {

// The layout of class 16 (SystemHandleInformation) of NtQuerySystemInformation.
struct HandleEntry {
  USHORT processId;
  USHORT creatorBackTraceIndex;
  UCHAR objectTypeIndex;
  UCHAR attributes;
  USHORT handleValue;
  PVOID object;
  ULONG grantedAccess;
};
struct HandleTable {
  ULONG count;
  HandleEntry entries[1];
};

constexpr ULONG kSystemHandleInformation = 16;
constexpr LONG kStatusInfoLengthMismatch = static_cast<LONG>(0xC0000004);

}  // namespace

std::size_t CountProcessHandles() {
  using QueryFunction = LONG(NTAPI*)(ULONG, PVOID, ULONG, PULONG);
  static const auto query =
      reinterpret_cast<QueryFunction>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation"));
  if (!query) return 0;
  std::vector<unsigned char> buffer(1 << 16);
  for (;;) {
    ULONG needed = 0;
    const LONG status = query(kSystemHandleInformation, buffer.data(), static_cast<ULONG>(buffer.size()), &needed);
    if (status == kStatusInfoLengthMismatch) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (status < 0) return 0;
    break;
  }
  const auto* table = reinterpret_cast<const HandleTable*>(buffer.data());
  const USHORT self = static_cast<USHORT>(::GetCurrentProcessId());
  std::size_t count = 0;
  for (ULONG i = 0; i < table->count; ++i) {
    if (table->entries[i].processId == self) ++count;
  }
  return count;
}

}  // namespace ambrel::test
