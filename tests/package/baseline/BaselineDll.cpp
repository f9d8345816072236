// A DLL with no code of the library's: what the toolchain's start-up code
// imports on its own, linked as Ambrel.dll is (package.images).
#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE /*instance*/, DWORD /*reason*/, LPVOID /*reserved*/) { return TRUE; }
