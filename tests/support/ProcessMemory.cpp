#include "tests/support/ProcessMemory.h"

#include <windows.h>

#include <psapi.h>

#include <vector>

namespace ambrel::test {

long long PrivateBytes() {
  PROCESS_MEMORY_COUNTERS_EX counters{};
  counters.cb = sizeof counters;
  if (::GetProcessMemoryInfo(::GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                             sizeof counters) &&
      counters.PrivateUsage > 0)
    return static_cast<long long>(counters.PrivateUsage);
  long long committed = 0;
  MEMORY_BASIC_INFORMATION region{};
  for (const char* address = nullptr; ::VirtualQuery(address, &region, sizeof region) == sizeof region;
       address = static_cast<const char*>(region.BaseAddress) + region.RegionSize) {
    if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE)
      committed += static_cast<long long>(region.RegionSize);
  }
  return committed;
}

long long HeapBytesInUse() {
  std::vector<HANDLE> heaps(64);
  for (;;) {
    const DWORD count = ::GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
    if (count <= heaps.size()) {
      heaps.resize(count);
      break;
    }
    heaps.resize(count);
  }
  long long inUse = 0;
  for (const HANDLE heap : heaps) {
    if (!::HeapLock(heap)) continue;
    PROCESS_HEAP_ENTRY entry{};
    while (::HeapWalk(heap, &entry)) {
      if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) inUse += entry.cbData;
    }
    ::HeapUnlock(heap);
  }
  return inUse;
}

}  // namespace ambrel::test
