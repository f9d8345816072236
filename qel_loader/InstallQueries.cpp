#include "qel_loader/InstallQueries.h"

#include <windows.h>

#include <array>
#include <filesystem>

#include "Ambrel.h"
#include "common/FileSystemStatus.h"
#include "common/ModuleHelpers.h"
#include "common/RegistryText.h"
#include "common/WinResource.h"

namespace ambrel {
namespace {

// Room for the edition name read from Kalvex.ini.
constexpr DWORD kEditionChars = 256;

std::wstring JoinPath(const std::wstring& directory, const std::wstring& name) {
  return (std::filesystem::path(directory) / std::filesystem::path(name)).wstring();
}

// Drive designator ("C:") when the path starts with one, else empty: UNC
// paths, extended-length prefixes and relative paths have no drive here.
std::wstring DriveRootName(const std::wstring& path) {
  if (path.size() >= 2 && path[1] == L':' &&
      ((path[0] >= L'A' && path[0] <= L'Z') || (path[0] >= L'a' && path[0] <= L'z'))) {
    return path.substr(0, 2);
  }
  return {};
}

}  // namespace

std::wstring& SharedDllPath() {
  static std::wstring path;
  return path;
}

bool IsDevelopmentModulePath(const std::wstring& moduleFile) {
  const std::wstring root = DriveRootName(moduleFile);
  return root == L"R:" || root == L"r:";
}

bool IsLiteEdition() { return IsLiteEditionIn(GetThisModuleDirectory()); }

bool IsLiteEditionIn(const std::wstring& directory) {
  const std::wstring iniFile = JoinPath(directory, L"Kalvex.ini");
  if (!PathExists(iniFile)) return false;
  std::array<wchar_t, kEditionChars> edition{};
  ::GetPrivateProfileStringW(L"Tavrel Kalvex Installation Options", L"ProductEdition", L"", edition.data(),
                             kEditionChars, iniFile.c_str());
  return std::wstring(edition.data()) == L"KLXLITE";
}

}  // namespace ambrel

bool QelLoadHelper::IsDevelopment() {
  return ambrel::IsDevelopmentModulePath(ambrel::GetModuleFilePath(ambrel::GetThisModuleHandle()));
}

bool QelLoadHelper::IsQELInstalled() {
  using namespace ambrel;
  UniqueRegKey key;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, SharedComponentsKeyPath(QelRelease).c_str(), 0, KEY_READ, key.put()) !=
      ERROR_SUCCESS) {
    return false;
  }
  std::wstring installPath;
  if (QuerySharedComponentsText(key.get(), L"InstallPath", installPath) != ERROR_SUCCESS) return false;
  if (!PathExists(installPath)) return false;
  std::wstring version;
  if (QuerySharedComponentsText(key.get(), L"Version", version) != ERROR_SUCCESS || version.empty()) return false;
  return PathExists(JoinPath(installPath, version));
}
