// The Windows SDK's spelling, which Microsoft's STL sources use; Wine's
// header is windows.h and file names are case-sensitive here. Test build only.
#pragma once
#include <windows.h>
