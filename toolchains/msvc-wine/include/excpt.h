// Wraps Wine's <excpt.h> so that GetExceptionCode and GetExceptionInformation
// name the compiler's own intrinsics, as the Windows SDK's do. Test build only.
#pragma once
#ifndef USE_COMPILER_EXCEPTIONS
#define USE_COMPILER_EXCEPTIONS
#endif
#include_next <excpt.h>
