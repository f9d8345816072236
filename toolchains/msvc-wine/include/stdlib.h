// Wraps Wine's <stdlib.h>, adding what the Universal CRT's header has and
// Wine's lacks: quick_exit, at_quick_exit, _wgetenv_s, _wputenv_s,
// _set_abort_behavior; the C++ overloads of abs and div for long and long
// long (the STL's <cstdlib> counts on them, and without them a call such as
// std::abs(long) is ambiguous under /permissive-); and
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

#ifdef __cplusplus
extern "C++" {
inline long __cdecl abs(long const value) noexcept { return labs(value); }
inline long long __cdecl abs(long long const value) noexcept { return llabs(value); }
inline ldiv_t __cdecl div(long const numerator, long const denominator) noexcept {
  return ldiv(numerator, denominator);
}
inline lldiv_t __cdecl div(long long const numerator, long long const denominator) noexcept {
  return lldiv(numerator, denominator);
}
}
#endif
