/* A DLL with an ordinary import of ambrel_dldep.dll: loading it needs its
   dependency to be found too. */
#include <windows.h>

__declspec(dllimport) unsigned DlProbeModulePath(wchar_t* buffer, unsigned size);

/* The path of the dependency this DLL was bound to. */
__declspec(dllexport) unsigned DlChainDependencyPath(wchar_t* buffer, unsigned size) {
  return DlProbeModulePath(buffer, size);
}
