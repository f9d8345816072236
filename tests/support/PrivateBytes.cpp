#include "tests/support/PrivateBytes.h"

#include <windows.h>

#include <psapi.h>

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
    if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE) committed += static_cast<long long>(region.RegionSize);
  }
  return committed;
}

}  // namespace ambrel::test
