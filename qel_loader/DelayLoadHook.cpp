#include "qel_loader/DelayLoadHook.h"

#include <filesystem>
#include <string_view>

#include "Ambrel.h"
#include "common/ModuleHelpers.h"
#include "qel_loader/SharedDllLookup.h"
#include "common/TextConvert.h"
#include "common/WinResource.h"

namespace ambrel {
namespace {

// The DLL's own folder, the registered shared-components folder and System32:
// never PATH or the current directory.
constexpr DWORD kHookLoadFlags =
    LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_USER_DIRS | LOAD_LIBRARY_SEARCH_SYSTEM32;
static_assert(kHookLoadFlags == 0xD00);  // NOLINT(*-magic-numbers): the value hosts document

HMODULE LoadFrom(const std::wstring& directory, const char* dllName) {
  const std::filesystem::path file = std::filesystem::path(directory) / FileNameToWide(dllName);
  return ::LoadLibraryExW(file.c_str(), nullptr, kHookLoadFlags);
}

}  // namespace

std::wstring& DelayLoadSharedDllPath() {
  static std::wstring path;
  return path;
}

}  // namespace ambrel

FARPROC WINAPI QelLoadHelper::DelayLoadHook(unsigned dliNotify, PDelayLoadInfo pdli) {
  using namespace ambrel;
  if (dliNotify != dliFailLoadLib) return nullptr;

  // Registered for this call only, so the loaded DLL's own imports resolve
  // from the shared folder too; removed on every way out.
  std::wstring& shared = DelayLoadSharedDllPath();
  if (shared.empty()) shared = FindSharedDllPath();
  UniqueDllDirectory registration;
  if (!shared.empty()) registration.reset(::AddDllDirectory(shared.c_str()));

  const HMODULE self = GetThisModuleHandle();
  if (!self) return nullptr;
  HMODULE loaded = LoadFrom(ParentPathOf(GetModuleFilePath(self)), pdli->szDll);
  if (!loaded && !shared.empty()) loaded = LoadFrom(shared, pdli->szDll);
  return reinterpret_cast<FARPROC>(loaded);
}

void QelLoadHelper::UnloadDelayLoadedModules(std::string_view moduleList, BOOL(WINAPI* unloadOne)(LPCSTR)) {
  if (moduleList.empty() || !unloadOne) return;
  // Empty elements are handed on as empty names: the list is the caller's,
  // not ours to clean up.
  size_t start = 0;
  for (;;) {
    const size_t end = moduleList.find(';', start);
    const std::string name(moduleList.substr(start, end == std::string_view::npos ? end : end - start));
    unloadOne(name.c_str());
    if (end == std::string_view::npos) return;
    start = end + 1;
  }
}
