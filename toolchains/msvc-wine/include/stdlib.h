// Wraps Wine's <stdlib.h>, adding what the Universal CRT's header has and
// Wine's lacks: quick_exit, at_quick_exit, _wgetenv_s, _wputenv_s,
// _set_abort_behavior; and
// atexit and _onexit as the module's own functions (the start-up unit has
// them, as MSVC's static runtime does), not imports. Test build only.
#pragma once
#define atexit ambrel_wine_atexit
#define _onexit ambrel_wine_onexit
#include_next <stdlib.h>
#undef atexit
#undef _onexit
// The Universal CRT's <stdlib.h> brings errno's names along.
#include <errno.h>

#ifdef __cplusplus
extern "C" {
#endif
int __cdecl atexit(void(__cdecl*)(void));
_onexit_t __cdecl _onexit(_onexit_t);
_ACRTIMP __declspec(noreturn) void __cdecl quick_exit(int);
_ACRTIMP unsigned int __cdecl _set_abort_behavior(unsigned int, unsigned int);
_ACRTIMP int __cdecl _crt_at_quick_exit(void(__cdecl*)(void));
static __inline int __cdecl at_quick_exit(void(__cdecl* function)(void)) { return _crt_at_quick_exit(function); }
_ACRTIMP errno_t __cdecl _wgetenv_s(size_t*, wchar_t*, size_t, const wchar_t*);
_ACRTIMP errno_t __cdecl _wputenv_s(const wchar_t*, const wchar_t*);
#ifdef __cplusplus
}
#endif
