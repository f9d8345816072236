/* A stand-in for one of the shared components' DLLs. The sample host
   delay-loads it; it is built outside the host's folder and copied into the
   sandbox's shared-components folder, so only the library's hook can find it. */
#include <windows.h>

__declspec(dllexport) unsigned SampleComponentPath(wchar_t* buffer, unsigned size) {
  HMODULE self = NULL;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          (LPCWSTR)&SampleComponentPath, &self)) {
    return 0;
  }
  return GetModuleFileNameW(self, buffer, size);
}
