// The delay-load helper MSVC's delayimp.lib provides, for the test build:
// lld-link's delay-load thunks call __delayLoadHelper2, which loads the DLL
// and binds the import on first use, telling the notification and failure
// hooks at each step and raising the VcppException the Visual C++ helper
// raises when both fail; __FUnloadDelayLoadedDLL2 unloads a DLL linked with
// /DELAY:UNLOAD and restores its imports to the thunks.
#include <windows.h>

#include <delayimp.h>
#include <string.h>

extern "C" IMAGE_DOS_HEADER __ImageBase;

// Hooks a host does not define are null.
extern "C" const PfnDliHook AmbrelNoDliHook = nullptr;
#pragma comment(linker, "/alternatename:__pfnDliNotifyHook2=AmbrelNoDliHook")
#pragma comment(linker, "/alternatename:__pfnDliFailureHook2=AmbrelNoDliHook")

namespace {

template <class T>
T FromRva(RVA rva) {
  return reinterpret_cast<T>(reinterpret_cast<BYTE*>(&__ImageBase) + rva);
}

FARPROC Notify(unsigned what, DelayLoadInfo& info) {
  return __pfnDliNotifyHook2 != nullptr ? __pfnDliNotifyHook2(what, &info) : nullptr;
}

FARPROC Fail(unsigned what, DelayLoadInfo& info, DWORD error) {
  info.dwLastError = ::GetLastError();
  FARPROC answer = __pfnDliFailureHook2 != nullptr ? __pfnDliFailureHook2(what, &info) : nullptr;
  if (answer == nullptr) {
    PDelayLoadInfo record = &info;
    ::RaiseException(VcppException(ERROR_SEVERITY_ERROR, error), 0, 1, reinterpret_cast<ULONG_PTR*>(&record));
    answer = info.pfnCur;  // what a handler that continued left there
  }
  return answer;
}

}  // namespace

extern "C" FARPROC WINAPI __delayLoadHelper2(PCImgDelayDescr descriptor, FARPROC* iatEntry) {
  DelayLoadInfo info{};
  info.cb = sizeof(info);
  info.pidd = descriptor;
  info.ppfn = iatEntry;
  info.szDll = FromRva<LPCSTR>(descriptor->rvaDLLName);
  HMODULE* const module = FromRva<HMODULE*>(descriptor->rvaHmod);
  const auto* const iat = FromRva<const IMAGE_THUNK_DATA*>(descriptor->rvaIAT);
  const auto* const names = FromRva<const IMAGE_THUNK_DATA*>(descriptor->rvaINT);
  const IMAGE_THUNK_DATA& import = names[reinterpret_cast<const IMAGE_THUNK_DATA*>(iatEntry) - iat];
  info.dlp.fImportByName = !IMAGE_SNAP_BY_ORDINAL(import.u1.Ordinal);
  if (info.dlp.fImportByName) {
    info.dlp.szProcName =
        reinterpret_cast<LPCSTR>(FromRva<PIMAGE_IMPORT_BY_NAME>(static_cast<RVA>(import.u1.AddressOfData))->Name);
  } else {
    info.dlp.dwOrdinal = static_cast<DWORD>(IMAGE_ORDINAL(import.u1.Ordinal));
  }
  info.hmodCur = *module;

  FARPROC function = Notify(dliStartProcessing, info);
  if (function == nullptr) {
    if (info.hmodCur == nullptr) {
      HMODULE loaded = reinterpret_cast<HMODULE>(Notify(dliNotePreLoadLibrary, info));
      if (loaded == nullptr) loaded = ::LoadLibraryExA(info.szDll, nullptr, 0);
      if (loaded == nullptr) loaded = reinterpret_cast<HMODULE>(Fail(dliFailLoadLib, info, ERROR_MOD_NOT_FOUND));
      if (loaded == nullptr) return nullptr;
      // Another thread may have bound the same DLL meanwhile: keep one reference.
      if (::InterlockedExchangePointer(reinterpret_cast<void**>(module), loaded) == loaded) ::FreeLibrary(loaded);
      info.hmodCur = loaded;
    }
    function = Notify(dliNotePreGetProcAddress, info);
    if (function == nullptr) {
      function = ::GetProcAddress(
          info.hmodCur, info.dlp.fImportByName ? info.dlp.szProcName
                                               : reinterpret_cast<LPCSTR>(static_cast<ULONG_PTR>(info.dlp.dwOrdinal)));
      if (function == nullptr) function = Fail(dliFailGetProc, info, ERROR_PROC_NOT_FOUND);
    }
    *iatEntry = function;
  }
  info.dwLastError = 0;
  info.hmodCur = *module;
  info.pfnCur = function;
  Notify(dliNoteEndProcessing, info);
  return function;
}

extern "C" BOOL WINAPI __FUnloadDelayLoadedDLL2(LPCSTR dllName) {
  const auto* const headers = FromRva<const IMAGE_NT_HEADERS*>(static_cast<RVA>(__ImageBase.e_lfanew));
  const IMAGE_DATA_DIRECTORY& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT];
  if (directory.VirtualAddress == 0) return FALSE;
  for (auto* descriptor = FromRva<const ImgDelayDescr*>(directory.VirtualAddress); descriptor->rvaDLLName != 0;
       ++descriptor) {
    // The name must match exactly, as with the Visual C++ helper.
    if (strcmp(FromRva<LPCSTR>(descriptor->rvaDLLName), dllName) != 0) continue;
    HMODULE* const module = FromRva<HMODULE*>(descriptor->rvaHmod);
    if (descriptor->rvaUnloadIAT == 0 || *module == nullptr) return FALSE;
    auto* const iat = FromRva<IMAGE_THUNK_DATA*>(descriptor->rvaIAT);
    const auto* const original = FromRva<const IMAGE_THUNK_DATA*>(descriptor->rvaUnloadIAT);
    size_t count = 0;
    while (original[count].u1.Function != 0) ++count;
    // The IAT lies in a read-only section once the loader is done with it.
    DWORD protection = 0;
    ::VirtualProtect(iat, count * sizeof(*iat), PAGE_READWRITE, &protection);
    memcpy(iat, original, count * sizeof(*iat));
    ::VirtualProtect(iat, count * sizeof(*iat), protection, &protection);
    ::FreeLibrary(*module);
    *module = nullptr;
    return TRUE;
  }
  return FALSE;
}
