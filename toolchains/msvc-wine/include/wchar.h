// Wraps Wine's <wchar.h>: mbstate_t is the Universal CRT's 8-byte _Mbstatet
// (Wine's is an int), and what Wine's header leaves out is added (mbsinit,
// fwide, the v*wscanf family, wcstold). Test build only.
#pragma once
#include <corecrt.h>

// Wine's own declarations of the restartable conversions take its int state:
// renamed out of the way, then declared again over _Mbstatet below.
#define mbstate_t ambrel_wine_mbstate_t
#define mbrlen ambrel_wine_mbrlen
#define mbrtowc ambrel_wine_mbrtowc
#define mbsrtowcs ambrel_wine_mbsrtowcs
#define wcrtomb ambrel_wine_wcrtomb
#define wcsrtombs ambrel_wine_wcsrtombs
#include_next <wchar.h>
#undef mbstate_t
#undef mbrlen
#undef mbrtowc
#undef mbsrtowcs
#undef wcrtomb
#undef wcsrtombs

#ifdef __cplusplus
extern "C" {
#endif
typedef _Mbstatet mbstate_t;

_ACRTIMP size_t __cdecl mbrlen(const char*, size_t, mbstate_t*);
_ACRTIMP size_t __cdecl mbrtowc(wchar_t*, const char*, size_t, mbstate_t*);
_ACRTIMP size_t __cdecl mbsrtowcs(wchar_t*, const char**, size_t, mbstate_t*);
_ACRTIMP size_t __cdecl wcrtomb(char*, wchar_t, mbstate_t*);
_ACRTIMP size_t __cdecl wcsrtombs(char*, const wchar_t**, size_t, mbstate_t*);
_ACRTIMP long double __cdecl wcstold(const wchar_t*, wchar_t**);

// The Universal CRT has these inline in its headers, not as exports.
static __inline int __cdecl mbsinit(const mbstate_t* state) { return state == NULL || state->_Wchar == 0; }
static __inline int __cdecl fwide(FILE* stream, int mode) {
  (void)stream;
  return mode;
}
AMBREL_VSCANF_FAMILY(wchar_t, vfwscanf, vswscanf, vwscanf, __stdio_common_vfwscanf, __stdio_common_vswscanf)
#ifdef __cplusplus
}
#endif
