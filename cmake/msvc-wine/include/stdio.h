// Wraps Wine's <stdio.h>, adding what the Universal CRT's header has and
// Wine's lacks: the v*scanf family (inline there too) and
// _get_stream_buffer_pointers. Test build only.
#pragma once
#include_next <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif
_ACRTIMP errno_t __cdecl _get_stream_buffer_pointers(FILE*, char***, char***, int**);

static __inline int __cdecl vfscanf(FILE* stream, const char* format, va_list args) {
  return __stdio_common_vfscanf(_CRT_INTERNAL_LOCAL_SCANF_OPTIONS, stream, format, NULL, args);
}
static __inline int __cdecl vsscanf(const char* buffer, const char* format, va_list args) {
  return __stdio_common_vsscanf(_CRT_INTERNAL_LOCAL_SCANF_OPTIONS, buffer, (size_t)-1, format, NULL, args);
}
static __inline int __cdecl vscanf(const char* format, va_list args) { return vfscanf(stdin, format, args); }
#ifdef __cplusplus
}
#endif
