// Wraps Wine's <time.h>, adding the C11 timespec, _timespec64 and
// timespec_get of the Universal CRT (ucrtbase exports _timespec64_get), and
// its inline localtime_s.
// Test build only.
#pragma once
#include_next <time.h>

#ifdef __cplusplus
extern "C" {
#endif
#ifndef _CRT_TIMESPEC_DEFINED
#define _CRT_TIMESPEC_DEFINED
struct timespec {
  time_t tv_sec;
  long tv_nsec;
};
struct _timespec64 {
  __time64_t tv_sec;
  long tv_nsec;
};
#endif
#ifndef TIME_UTC
#define TIME_UTC 1
#endif
_ACRTIMP int __cdecl _timespec64_get(struct _timespec64*, int);
_ACRTIMP errno_t __cdecl _localtime64_s(struct tm*, const __time64_t*);
static __inline int __cdecl timespec_get(struct timespec* when, int base) {
  return _timespec64_get((struct _timespec64*)when, base);
}
#ifndef _CRT_LOCALTIME_S_DEFINED
#define _CRT_LOCALTIME_S_DEFINED
static __inline errno_t __cdecl localtime_s(struct tm* result, const time_t* when) {
  return _localtime64_s(result, when);
}
#endif
#ifdef __cplusplus
}
#endif
