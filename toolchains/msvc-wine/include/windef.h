// Wraps Wine's <windef.h>, which defines the keyword inline as __inline under
// _MSC_VER; Microsoft's STL refuses a macroized keyword. Test build only.
#pragma once
#include_next <windef.h>
#if defined(__cplusplus) && defined(inline)
#undef inline
#endif
