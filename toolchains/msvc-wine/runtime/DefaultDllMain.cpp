// The DllMain of a DLL that defines none: a separate object of the runtime
// library, so the linker takes it only when the module has no DllMain of its
// own. Test build only.
#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID) { return TRUE; }
