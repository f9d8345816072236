/* A tiny DLL that can say where it was loaded from. Built under several names
   (ambrel_dlprobe, ambrel_dldep, ambrel_dlloose) so the tests can place each
   copy in a folder of their choice. */
#include <windows.h>

__declspec(dllexport) unsigned DlProbeModulePath(wchar_t* buffer, unsigned size) {
  HMODULE self = NULL;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          (LPCWSTR)&DlProbeModulePath, &self)) {
    return 0;
  }
  return GetModuleFileNameW(self, buffer, size);
}
