// Wraps Wine's <synchapi.h>, which needs the Windows base types declared
// first; the Windows SDK's stands alone (stl/src/sharedmutex.cpp includes it
// so). Test build only.
#pragma once
#include <windows.h>
#include_next <synchapi.h>
