// Wraps Wine's <winnt.h>: WCHAR is wchar_t, as in the Windows SDK (Wine
// otherwise makes it char16_t), and Wine's inline
// _InterlockedCompareExchange128 is renamed out of the way of clang's builtin
// of that name. Test build only.
#pragma once
#ifndef WINE_UNICODE_NATIVE
#define WINE_UNICODE_NATIVE
#endif
#define _InterlockedCompareExchange128 ambrel_wine_InterlockedCompareExchange128
#include_next <winnt.h>
#undef _InterlockedCompareExchange128
#undef InterlockedCompareExchange128
#define InterlockedCompareExchange128 _InterlockedCompareExchange128
