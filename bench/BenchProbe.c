/* A DLL with nothing in it, loaded and freed by the delay-load benchmark. */
#include <windows.h>

__declspec(dllexport) int BenchProbe(void) { return 1; }
