// A stand-in DLL of the MSVC-ABI build whose attach fails: in its DllMain
// (AMBREL_FAIL_IN_DLLMAIN) or in a C initialiser the runtime runs before
// DllMain. It appends what ran (its initialiser, DllMain's attach and detach,
// its exit list) to the process's AMBREL_ATTACH_LOG variable, which
// test_msvc_runtime reads after the load failed.
#include <windows.h>

#include <stdlib.h>

namespace {
void Log(const wchar_t* what) {
  wchar_t log[256] = {};
  ::GetEnvironmentVariableW(L"AMBREL_ATTACH_LOG", log, 200);
  wcscat_s(log, 256, what);
  wcscat_s(log, 256, L" ");
  ::SetEnvironmentVariableW(L"AMBREL_ATTACH_LOG", log);
}

void __cdecl OnExit() { Log(L"exit"); }

// Runs with the C initialisers, before DllMain.
int __cdecl Initialise() {
  Log(L"initialiser");
  atexit(&OnExit);
#if defined(AMBREL_FAIL_IN_DLLMAIN)
  return 0;
#else
  return 1;  // a non-zero result fails the module's start
#endif
}
}  // namespace

#pragma section(".CRT$XIB", long, read)
extern "C" __declspec(allocate(".CRT$XIB")) int(__cdecl* const AmbrelTestInitialiser)(void) = &Initialise;
// Nothing refers to it: kept through the linker's garbage collection.
#pragma comment(linker, "/include:AmbrelTestInitialiser")

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) {
    Log(L"attach");
#if defined(AMBREL_FAIL_IN_DLLMAIN)
    return FALSE;
#endif
  } else if (reason == DLL_PROCESS_DETACH) {
    Log(L"detach");
  }
  return TRUE;
}
