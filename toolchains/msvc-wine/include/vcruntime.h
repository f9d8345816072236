// Stands in for the Visual C++ runtime's <vcruntime.h>, which Wine's headers
// lack: the language-level switches and declaration macros Microsoft's STL
// and the C headers expect from it. Test build only.
#pragma once

#include <corecrt.h>

#ifndef _VCRUNTIME_H
#define _VCRUNTIME_H

#define _VCRT_COMPILER_PREPROCESSOR 1

#ifndef _CRT_STRINGIZE
#define _CRT_STRINGIZE_(x) #x
#define _CRT_STRINGIZE(x) _CRT_STRINGIZE_(x)
#endif
#ifndef _CRT_WIDE
#define _CRT_WIDE_(s) L##s
#define _CRT_WIDE(s) _CRT_WIDE_(s)
#endif
#ifndef _CRT_CONCATENATE
#define _CRT_CONCATENATE_(a, b) a##b
#define _CRT_CONCATENATE(a, b) _CRT_CONCATENATE_(a, b)
#endif
// MSVC predefines the wide file name; clang 16 does not.
#ifndef __FILEW__
#define __FILEW__ _CRT_WIDE(__FILE__)
#endif
#define _CRT_APPEND(a, b) _CRT_CONCATENATE(a, b)
#define _CRT_UNPARENTHESIZE_(...) __VA_ARGS__
#define _CRT_UNPARENTHESIZE(...) _CRT_UNPARENTHESIZE_ __VA_ARGS__

#ifndef _VCRTIMP
#define _VCRTIMP __declspec(dllimport)
#endif
#ifndef _CRTIMP2
#define _CRTIMP2 __declspec(dllimport)
#endif
#ifndef _MRTIMP2
#define _MRTIMP2
#endif
#ifndef _CRTIMP2_IMPORT
#define _CRTIMP2_IMPORT __declspec(dllimport)
#endif
#ifndef __CLR_OR_THIS_CALL
#define __CLR_OR_THIS_CALL
#endif
#ifndef __CLRCALL_OR_CDECL
#define __CLRCALL_OR_CDECL __cdecl
#endif
#ifndef __CLRCALL_PURE_OR_CDECL
#define __CLRCALL_PURE_OR_CDECL __cdecl
#endif
#ifndef __CRTDECL
#define __CRTDECL __cdecl
#endif
#define _VCRT_NOALIAS __declspec(noalias)
#define _VCRT_RESTRICT __declspec(restrict)
#define _VCRT_ALLOCATOR __declspec(allocator)
#define _VCRT_JIT_INTRINSIC
#define _CRT_GUARDOVERFLOW
#define _CRT_HYBRIDPATCHABLE
#ifndef _CRTRESTRICT
#define _CRTRESTRICT __declspec(restrict)
#endif
#ifndef _CRTALLOCATOR
#define _CRTALLOCATOR __declspec(allocator)
#endif
#ifndef _CRT_BEGIN_C_HEADER
#define _CRT_BEGIN_C_HEADER __pragma(pack(push, 8)) extern "C" {
#define _CRT_END_C_HEADER \
  }                       \
  __pragma(pack(pop))
#endif
#ifndef _CRT_PACKING
#define _CRT_PACKING 8
#endif
#ifndef _CRT_DEPRECATE_TEXT
#define _CRT_DEPRECATE_TEXT(text) __declspec(deprecated(text))
#endif
#ifndef _CRT_INSECURE_DEPRECATE
#define _CRT_INSECURE_DEPRECATE(replacement)
#endif
#ifndef _CRT_UNUSED
#define _CRT_UNUSED(x) (void)x
#endif

#ifndef _HAS_EXCEPTIONS
#define _HAS_EXCEPTIONS 1
#endif

// The language switches; without them every "#if _HAS_CXX20" reads as 0.
#ifndef _HAS_CXX17
#if _MSVC_LANG > 201402L
#define _HAS_CXX17 1
#else
#define _HAS_CXX17 0
#endif
#endif
#ifndef _HAS_CXX20
#if _HAS_CXX17 && _MSVC_LANG > 201703L
#define _HAS_CXX20 1
#else
#define _HAS_CXX20 0
#endif
#endif
#ifndef _HAS_CXX23
#if _HAS_CXX20 && _MSVC_LANG > 202002L
#define _HAS_CXX23 1
#else
#define _HAS_CXX23 0
#endif
#endif
#ifndef _HAS_NODISCARD
#define _HAS_NODISCARD 1
#endif
#ifndef _NODISCARD
#define _NODISCARD [[nodiscard]]
#endif
#ifndef _MSVC_CONSTEXPR
#define _MSVC_CONSTEXPR
#endif
#ifndef _NODISCARD_CTOR
#define _NODISCARD_CTOR [[nodiscard]]
#endif

// The runtime's satellite DLLs msvcp140_1 and msvcp140_2. Wine has no
// msvcp140_codecvt_ids: the char16_t/char32_t codecvt ids stay undefined
// here, and the library uses neither.
#define _CRT_SATELLITE_1 __declspec(dllimport)
#define _CRT_SATELLITE_2 __declspec(dllimport)
#define _CRT_SATELLITE_CODECVT_IDS
#define _CRT_SATELLITE_CODECVT_IDS_NOIMPORT
// Process-wide data under /clr:pure, plain data otherwise.
#define _PGLOBAL

#ifdef __cplusplus
extern "C" {
#endif
_ACRTIMP __declspec(noreturn) void __cdecl _invalid_parameter_noinfo_noreturn(void);
_ACRTIMP void __cdecl _invalid_parameter_noinfo(void);
_VCRTIMP __declspec(noreturn) void __cdecl __report_gsfailure(unsigned __int64 cookie);
extern unsigned __int64 __security_cookie;
void __cdecl __security_init_cookie(void);
void __cdecl __security_check_cookie(unsigned __int64 cookie);
#ifdef __cplusplus
}
#endif

#ifndef _CRT_SECURE_INVALID_PARAMETER
#define _CRT_SECURE_INVALID_PARAMETER(expr) ::_invalid_parameter_noinfo_noreturn()
#endif

#if defined(__cplusplus)
extern "C++" {
template <typename T, size_t N>
char (*__countof_helper(T (&)[N]))[N];
}
#define __crt_countof(a) (sizeof(*__countof_helper(a)) + 0)
#else
#define __crt_countof(a) (sizeof(a) / sizeof(a[0]))
#endif
#ifndef _countof
#define _countof __crt_countof
#endif

#endif  // _VCRUNTIME_H
