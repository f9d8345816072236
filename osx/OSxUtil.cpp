#include <windows.h>

#include <string>
#include <vector>

#include "Ambrel.h"
#include "common/PathList.h"
#include "osx/HostPath.h"
#include "common/ModuleHelpers.h"
#include "common/WinResource.h"

namespace {

constexpr const wchar_t* kAppPathsKey = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\App Paths\\";

// Reads the text of "Path" as the host's App Paths entry stores it: REG_SZ or
// REG_EXPAND_SZ (unexpanded), empty or NUL-terminated with an even byte length.
bool ReadAppPathText(HKEY key, std::wstring& text) {
  DWORD size = 0;
  LSTATUS status = ERROR_MORE_DATA;
  while (status == ERROR_MORE_DATA) status = ::RegQueryValueExW(key, L"Path", nullptr, nullptr, nullptr, &size);
  if (status != ERROR_SUCCESS || size == 0) return false;

  const size_t characters = size / 2 + 1;
  std::vector<wchar_t> data(characters + 1);
  DWORD type = 0;
  DWORD bytes = static_cast<DWORD>(characters * sizeof(wchar_t));
  if (::RegQueryValueExW(key, L"Path", nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &bytes) != ERROR_SUCCESS)
    return false;
  if (type != REG_SZ && type != REG_EXPAND_SZ) return false;
  if (bytes == 0) {
    text.clear();
    return true;
  }
  if (bytes % 2 != 0 || data[bytes / 2 - 1] != L'\0') return false;
  text = data.data();
  return true;
}

}  // namespace

bool OSxUtil::PrependKalvexPath() {
  return ambrel::PrependToPathVariable(ambrel::ParentPathOf(ambrel::HostExecutablePath()));
}

bool OSxUtil::RemoveAppPathSetting() {
  const std::wstring subkey = kAppPathsKey + ambrel::HostExecutableName();
  ambrel::UniqueRegKey key;
  if (::RegOpenKeyExW(HKEY_CURRENT_USER, subkey.c_str(), 0, KEY_READ | KEY_WRITE, key.put()) != ERROR_SUCCESS)
    return false;
  std::wstring text;
  if (!ReadAppPathText(key.get(), text)) return false;
  // The registration goes whether or not PATH held its text.
  ambrel::RemoveFromPathVariable(text);
  return ::RegDeleteValueW(key.get(), L"Path") == ERROR_SUCCESS;
}
