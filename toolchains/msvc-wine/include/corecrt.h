// Wraps Wine's <corecrt.h>, adding the C runtime's conversion state
// _Mbstatet with the Universal CRT's 8-byte layout (Wine's mbstate_t is an
// int). std::fpos and std::streampos hold one and cross into msvcp140, so a
// wrong size breaks silently. Also the generator of the v*scanf functions.
// Test build only.
#pragma once
#include_next <corecrt.h>

#ifndef _MBSTATET_DEFINED
#define _MBSTATET_DEFINED
typedef struct _Mbstatet {
  unsigned long _Wchar;
  unsigned short _Byte;
  unsigned short _State;
} _Mbstatet;
#endif
#ifdef __cplusplus
static_assert(sizeof(_Mbstatet) == 8, "_Mbstatet is 8 bytes in the Universal CRT");
#endif

// The v*scanf functions, inline over the Universal CRT's common entry points
// as its headers have them; stdio.h makes the char ones, wchar.h the wchar_t
// ones (Wine declares neither).
#define AMBREL_VSCANF_FAMILY(Char, vfName, vsName, vName, commonFile, commonString)                 \
  static __inline int __cdecl vfName(FILE* stream, const Char* format, va_list args) {              \
    return commonFile(_CRT_INTERNAL_LOCAL_SCANF_OPTIONS, stream, format, NULL, args);               \
  }                                                                                                 \
  static __inline int __cdecl vsName(const Char* buffer, const Char* format, va_list args) {        \
    return commonString(_CRT_INTERNAL_LOCAL_SCANF_OPTIONS, buffer, (size_t)-1, format, NULL, args); \
  }                                                                                                 \
  static __inline int __cdecl vName(const Char* format, va_list args) { return vfName(stdin, format, args); }
