#include <windows.h>

#include "common/ModuleHelpers.h"

// Records the instance handle for the call-stack engine's search path; nothing
// else happens at load or unload. (Before this runs, the stack protector's
// runtime has seeded its canary from sources that load nothing:
// common/StackProtector.c.)
BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID /*reserved*/) {
  if (reason == DLL_PROCESS_ATTACH) ambrel::ModuleInstanceHandle = instance;
  if (reason == DLL_PROCESS_DETACH) ambrel::ModuleInstanceHandle = nullptr;
  return TRUE;
}
