// Wraps Wine's <corecrt.h>, adding the C runtime's conversion state
// _Mbstatet with the Universal CRT's 8-byte layout (Wine's mbstate_t is an
// int). std::fpos and std::streampos hold one and cross into msvcp140, so a
// wrong size breaks silently. Test build only.
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
