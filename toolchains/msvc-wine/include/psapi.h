// Wraps Wine's <psapi.h>, adding PROCESS_MEMORY_COUNTERS_EX (the counters
// plus PrivateUsage), which the Windows SDK has and Wine's header lacks.
// Test build only.
#pragma once
#include_next <psapi.h>

typedef struct _PROCESS_MEMORY_COUNTERS_EX {
  DWORD cb;
  DWORD PageFaultCount;
  SIZE_T PeakWorkingSetSize;
  SIZE_T WorkingSetSize;
  SIZE_T QuotaPeakPagedPoolUsage;
  SIZE_T QuotaPagedPoolUsage;
  SIZE_T QuotaPeakNonPagedPoolUsage;
  SIZE_T QuotaNonPagedPoolUsage;
  SIZE_T PagefileUsage;
  SIZE_T PeakPagefileUsage;
  SIZE_T PrivateUsage;
} PROCESS_MEMORY_COUNTERS_EX, *PPROCESS_MEMORY_COUNTERS_EX;

#ifdef __cplusplus
static_assert(sizeof(PROCESS_MEMORY_COUNTERS_EX) == 80, "PROCESS_MEMORY_COUNTERS_EX is 80 bytes with x64");
#endif
