// Stands in for the Universal CRT's <eh.h> and <corecrt_terminate.h>:
// terminate and its handlers with C linkage, the names ucrtbase and
// vcruntime140 export (Wine's own <eh.h> gives them C++ linkage), and
// _get_terminate, which Microsoft's STL calls for std::get_terminate. Test
// build only.
#pragma once
#include <corecrt.h>

#pragma pack(push, 8)

struct _EXCEPTION_POINTERS;

extern "C" {
typedef void(__cdecl* terminate_handler)(void);
typedef void(__cdecl* terminate_function)(void);
typedef void(__cdecl* unexpected_handler)(void);
typedef void(__cdecl* unexpected_function)(void);
typedef void(__cdecl* _se_translator_function)(unsigned int code, struct _EXCEPTION_POINTERS* info);

_ACRTIMP __declspec(noreturn) void __cdecl terminate(void) noexcept;
_ACRTIMP terminate_handler __cdecl set_terminate(terminate_handler handler) noexcept;
_ACRTIMP terminate_handler __cdecl _get_terminate(void);
_ACRTIMP __declspec(noreturn) void __cdecl unexpected(void) noexcept(false);
_ACRTIMP unexpected_handler __cdecl set_unexpected(unexpected_handler handler) noexcept;
_ACRTIMP unexpected_handler __cdecl _get_unexpected(void);
_ACRTIMP _se_translator_function __cdecl _set_se_translator(_se_translator_function translator);
}

#pragma pack(pop)
