// Wraps Wine's <stdio.h>, adding what the Universal CRT's header has and
// Wine's lacks: the v*scanf family (inline there too) and
// _get_stream_buffer_pointers. Test build only.
#pragma once
#include_next <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif
_ACRTIMP errno_t __cdecl _get_stream_buffer_pointers(FILE*, char***, char***, int**);

AMBREL_VSCANF_FAMILY(char, vfscanf, vsscanf, vscanf, __stdio_common_vfscanf, __stdio_common_vsscanf)
#ifdef __cplusplus
}
#endif
