// A host image with two delay-loaded DLLs (ambrel_dlprobe.dll and
// ambrel_dlchain.dll), run as a child process by the delay-load tests. It
// loads a copy of Ambrel.dll from a folder given on the command line (not its
// own folder, so the ordinary search cannot find what lies beside the
// library), installs the library's hook as the failure hook and reports, one
// "key: value" line each, what got loaded from where.
//
//   ambrel_dlhost <library folder> <sandbox key or -> <mode> [folder]
//
// Built twice: ambrel_dlhost with `dlltool -y` delay-import libraries, and
// ambrel_dlhost_unloadable with ones that carry an unload IAT.
#include <windows.h>
#include <delayimp.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "tests/support/TestSupport.h"

extern "C" __declspec(dllimport) unsigned DlProbeModulePath(wchar_t* buffer, unsigned size);
extern "C" __declspec(dllimport) unsigned DlChainDependencyPath(wchar_t* buffer, unsigned size);

namespace {

using ambrel::test::Narrow;

using InitializeQelFn = bool (*)();

constexpr DWORD kDelayLoadModuleNotFound = 0xC06D007E;  // VcppException(ERROR_SEVERITY_ERROR, ERROR_MOD_NOT_FOUND)

HMODULE g_library = nullptr;

void Report(const char* key, const std::wstring& value) { std::printf("%s: %s\n", key, Narrow(value).c_str()); }

std::wstring ModulePath(HMODULE module) {
  if (!module) return L"(not loaded)";
  wchar_t buffer[MAX_PATH] = {};
  ::GetModuleFileNameW(module, buffer, MAX_PATH);
  return buffer;
}

// A variable of the Win32 environment, which the C runtime's writes update.
std::wstring Variable(const wchar_t* name) {
  static wchar_t value[32767];
  ::SetLastError(ERROR_SUCCESS);
  const DWORD length = ::GetEnvironmentVariableW(name, value, 32767);
  if (length == 0 && ::GetLastError() == ERROR_ENVVAR_NOT_FOUND) return L"(absent)";
  return std::wstring(value, length);
}

std::wstring LoadError(DWORD code) { return L"error " + std::to_wstring(code); }

// The delay-load helper raises its failure as an exception; it is caught here
// so the report can say so. Kept out of line: clang only catches exceptions
// raised in functions called from the __try block. Nothing here needs
// unwinding, as MSVC requires next to __try.
using DelayImportFn = void (*)(wchar_t*, unsigned);
#if defined(__clang__) || defined(_MSC_VER)
__declspec(noinline) DWORD TryDelayImport(DelayImportFn fn, wchar_t* buffer, unsigned size) {
  DWORD code = 0;
  __try {  // Compiler-specific: structured exception handling (-fms-extensions on clang).
    fn(buffer, size);
  } __except (code = GetExceptionCode(),
              code == kDelayLoadModuleNotFound ? EXCEPTION_EXECUTE_HANDLER : EXCEPTION_CONTINUE_SEARCH) {
    return code;
  }
  return 0;
}
#else
// Compiler-specific (GCC): no structured-exception guards. A vectored handler
// takes the failure while a call is guarded and resumes this thread at the
// context captured before the call, as the guard's handler would; the frames
// of the failed call are abandoned (the delay-load helper holds no resources).
CONTEXT g_resumeContext;
volatile DWORD g_failureCode = 0;
volatile bool g_guarded = false;

LONG CALLBACK ResumeAfterDelayLoadFailure(EXCEPTION_POINTERS* info) {
  if (!g_guarded || info->ExceptionRecord->ExceptionCode != kDelayLoadModuleNotFound) return EXCEPTION_CONTINUE_SEARCH;
  g_guarded = false;
  g_failureCode = info->ExceptionRecord->ExceptionCode;
  *info->ContextRecord = g_resumeContext;
  return EXCEPTION_CONTINUE_EXECUTION;
}

__declspec(noinline) DWORD TryDelayImport(DelayImportFn fn, wchar_t* buffer, unsigned size) {
  g_failureCode = 0;
  void* const handler = ::AddVectoredExceptionHandler(1, ResumeAfterDelayLoadFailure);
  // Execution comes back here a second time, with g_failureCode set, when the call fails.
  ::RtlCaptureContext(&g_resumeContext);
  if (g_failureCode == 0) {
    g_guarded = true;
    fn(buffer, size);
    g_guarded = false;
  }
  ::RemoveVectoredExceptionHandler(handler);
  return g_failureCode;
}
#endif

std::wstring CallDelayImport(DelayImportFn fn) {
  wchar_t buffer[MAX_PATH] = {};
  if (const DWORD code = TryDelayImport(fn, buffer, MAX_PATH)) {
    wchar_t text[32];
    std::swprintf(text, 32, L"failed 0x%08lX", code);
    return text;
  }
  return buffer;
}

__declspec(noinline) void CallProbe(wchar_t* buffer, unsigned size) { DlProbeModulePath(buffer, size); }
__declspec(noinline) void CallChain(wchar_t* buffer, unsigned size) { DlChainDependencyPath(buffer, size); }

FARPROC Export(const char* itaniumName) { return ::GetProcAddress(g_library, itaniumName); }

// The shutdown export, declared as the library declares it.
using UnloadModulesFn = void (*)(std::string_view, BOOL(WINAPI*)(LPCSTR));
UnloadModulesFn UnloadModules() {
  return reinterpret_cast<UnloadModulesFn>(Export(AMBREL_EXPORT_NAME(
      "?UnloadDelayLoadedModules@QelLoadHelper@@YAXV?$basic_string_view@DU?$char_traits@D@std@@@std@@P6AHPEBD@Z@Z",
      "_ZN13QelLoadHelper24UnloadDelayLoadedModulesESt17basic_string_viewIcSt11char_traitsIcEEPFiPKcE")));
}

std::wstring ProbeModule() { return ModulePath(::GetModuleHandleW(L"ambrel_dlprobe.dll")); }

PfnDliHook Hook() {
  return reinterpret_cast<PfnDliHook>(
      Export(AMBREL_EXPORT_NAME("?DelayLoadHook@QelLoadHelper@@YAP6A_JXZIPEAUDelayLoadInfo@@@Z",
                                "_ZN13QelLoadHelper13DelayLoadHookEjP13DelayLoadInfo")));
}

// The library's hook, found at run time (null: none).
PfnDliHook g_failureHook = nullptr;

#if defined(_MSC_VER)
// Compiler-specific (MSVC's delayimp.h): the failure hook is const and set at
// link time, so it is a function of this host that hands each failure to the
// hook found at run time.
FARPROC WINAPI ForwardFailure(unsigned notification, PDelayLoadInfo info) {
  return g_failureHook != nullptr ? g_failureHook(notification, info) : nullptr;
}
#endif

// Calls the hook the way the delay-load helper would for a failed load.
std::wstring CallHookDirectly(const char* dllName) {
  DelayLoadInfo info{};
  info.cb = sizeof(info);
  info.szDll = dllName;
  const FARPROC result = Hook()(dliFailLoadLib, &info);
  return result ? ModulePath(reinterpret_cast<HMODULE>(result)) : L"null";
}

std::wstring LoadLoose(DWORD flags) {
  HMODULE module = ::LoadLibraryExW(L"ambrel_dlloose.dll", nullptr, flags);
  return module ? ModulePath(module) : LoadError(::GetLastError());
}

}  // namespace

#if defined(_MSC_VER)
extern "C" const PfnDliHook __pfnDliFailureHook2 = ForwardFailure;
#endif

int wmain(int argc, wchar_t** argv) {
  if (argc < 4) {
    std::printf("usage: ambrel_dlhost <library folder> <sandbox key or -> <mode> [folder]\n");
    return 2;
  }
  const std::wstring libraryDir = argv[1];
  const std::wstring sandbox = argv[2];
  const std::wstring mode = argv[3];
  const std::wstring folder = argc > 4 ? argv[4] : L"";

  if (sandbox != L"-" && !ambrel::test::RedirectToSandbox(sandbox)) {
    std::printf("sandbox: failed\n");
    return 3;
  }
  g_library = ::LoadLibraryW((libraryDir + L"\\Ambrel.dll").c_str());
  if (!g_library || !Hook() || !UnloadModules()) {
    std::printf("library: failed %lu\n", ::GetLastError());
    return 4;
  }
  if (mode != L"probe-nohook") {
    g_failureHook = Hook();
#if !defined(_MSC_VER)
    // Compiler-specific (mingw-w64's delayimp.h): a writable hook variable.
    __pfnDliFailureHook2 = g_failureHook;
#endif
  }

  if (mode == L"probe" || mode == L"probe-nohook") {
    Report("probe", CallDelayImport(CallProbe));
  } else if (mode == L"chain") {
    Report("chain dependency", CallDelayImport(CallChain));
    Report("chain", ModulePath(::GetModuleHandleW(L"ambrel_dlchain.dll")));
    // The hook's registration must be gone: a DLL that only the shared
    // folder holds is no longer found through the user directories.
    Report("after", LoadLoose(LOAD_LIBRARY_SEARCH_USER_DIRS));
  } else if (mode == L"control") {
    // What the check after "chain" would see if a registration were left.
    const DLL_DIRECTORY_COOKIE cookie = ::AddDllDirectory(folder.c_str());
    Report("control", LoadLoose(LOAD_LIBRARY_SEARCH_USER_DIRS));
    if (cookie) ::RemoveDllDirectory(cookie);
  } else if (mode == L"hook-cwd" || mode == L"hook-path") {
    if (mode == L"hook-cwd") {
      ::SetCurrentDirectoryW(folder.c_str());
    } else {
      wchar_t path[32767] = {};
      ::GetEnvironmentVariableW(L"PATH", path, 32767);
      ::SetEnvironmentVariableW(L"PATH", (folder + L";" + path).c_str());
    }
    Report("hook", CallHookDirectly("ambrel_dlloose.dll"));
    // The same name is within reach of the ordinary search.
    Report("ordinary", LoadLoose(0));
  } else if (mode == L"unload") {
    Report("probe", CallDelayImport(CallProbe));
    Report("loaded", ProbeModule());
    // The shutdown code the library documents for hosts.
    UnloadModules()("ambrel_dlprobe.dll", __FUnloadDelayLoadedDLL2);
    Report("after unload", ProbeModule());
    Report("probe again", CallDelayImport(CallProbe));
    Report("reloaded", ProbeModule());
  } else if (mode == L"unload-direct") {
    // The helper's own answer for the name given as folder argument.
    Report("probe", CallDelayImport(CallProbe));
    Report("result", __FUnloadDelayLoadedDLL2(Narrow(folder).c_str()) ? L"TRUE" : L"FALSE");
    Report("after unload", ProbeModule());
  } else if (mode == L"init") {
    auto initialize = reinterpret_cast<InitializeQelFn>(Export("InitializeQel"));
    auto sharedDllPath = reinterpret_cast<const wchar_t* (*)()>(Export("GetSharedDllPath"));
    Report("marker before", Variable(L"QEL_INITIALIZE_BYPASSED"));
    Report("path before", Variable(L"PATH"));
    Report("init", initialize() ? L"true" : L"false");
    Report("path after", Variable(L"PATH"));
    Report("marker after", Variable(L"QEL_INITIALIZE_BYPASSED"));
    Report("lookup", sharedDllPath());
  } else if (mode == L"init-then-chain") {
    auto initialize = reinterpret_cast<InitializeQelFn>(Export("InitializeQel"));
    Report("init", initialize() ? L"true" : L"false");
    Report("hook", CallHookDirectly("ambrel_dlchain.dll"));
    Report("chain dependency", CallDelayImport(CallChain));
    Report("chain", ModulePath(::GetModuleHandleW(L"ambrel_dlchain.dll")));
  } else {
    std::printf("unknown mode\n");
    return 2;
  }
  std::fflush(stdout);
  return 0;
}
