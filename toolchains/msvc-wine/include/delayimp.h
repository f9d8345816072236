// Stands in for the Visual C++ <delayimp.h>, which Wine's headers lack: the
// delay-load helper's records with MSVC's layout, and the hook variables as
// Visual Studio 2015 and later declare them, const, so that a host sets its
// hook at link time (runtime/DelayLoadHelper.cpp is the helper, delayimp.lib).
// Test build only.
#pragma once
#include <windows.h>

#ifdef __cplusplus
#define AMBREL_DELAYIMP_EXTERN_C extern "C"
#else
#define AMBREL_DELAYIMP_EXTERN_C extern
#endif

typedef DWORD RVA;

typedef struct ImgDelayDescr {
  DWORD grAttrs;
  RVA rvaDLLName;
  RVA rvaHmod;
  RVA rvaIAT;
  RVA rvaINT;
  RVA rvaBoundIAT;
  RVA rvaUnloadIAT;
  DWORD dwTimeStamp;
} ImgDelayDescr, *PImgDelayDescr;
typedef const ImgDelayDescr* PCImgDelayDescr;

enum DLAttr { dlattrRva = 0x1 };

enum {
  dliStartProcessing,
  dliNoteStartProcessing = dliStartProcessing,
  dliNotePreLoadLibrary,
  dliNotePreGetProcAddress,
  dliFailLoadLib,
  dliFailGetProc,
  dliNoteEndProcessing,
};

typedef struct DelayLoadProc {
  BOOL fImportByName;
  union {
    LPCSTR szProcName;
    DWORD dwOrdinal;
  };
} DelayLoadProc;

typedef struct DelayLoadInfo {
  DWORD cb;
  PCImgDelayDescr pidd;
  FARPROC* ppfn;
  LPCSTR szDll;
  DelayLoadProc dlp;
  HMODULE hmodCur;
  FARPROC pfnCur;
  DWORD dwLastError;
} DelayLoadInfo, *PDelayLoadInfo;

typedef FARPROC(WINAPI* PfnDliHook)(unsigned dliNotify, PDelayLoadInfo pdli);

#ifndef FACILITY_VISUALCPP
#define FACILITY_VISUALCPP 109
#endif
#define VcppException(sev, err) ((sev) | (FACILITY_VISUALCPP << 16) | (err))

AMBREL_DELAYIMP_EXTERN_C const PfnDliHook __pfnDliNotifyHook2;
AMBREL_DELAYIMP_EXTERN_C const PfnDliHook __pfnDliFailureHook2;
AMBREL_DELAYIMP_EXTERN_C BOOL WINAPI __FUnloadDelayLoadedDLL2(LPCSTR szDll);

#ifdef __cplusplus
static_assert(sizeof(ImgDelayDescr) == 32, "ImgDelayDescr is 32 bytes");
static_assert(sizeof(DelayLoadInfo) == 72, "DelayLoadInfo is 72 bytes with MSVC x64");
#endif
