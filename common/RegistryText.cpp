#include "common/RegistryText.h"

#include <vector>

namespace ambrel {

LSTATUS QueryRegistryText(HKEY key, const wchar_t* name, DWORD byteSize, std::wstring& text) {
  // One spare unit beyond the budget, so the data is terminated even when the
  // stored value carries no NUL of its own.
  std::vector<wchar_t> buffer(byteSize / sizeof(wchar_t) + 2, L'\0');
  DWORD size = byteSize;
  const LSTATUS status = ::RegQueryValueExW(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(buffer.data()), &size);
  if (status == ERROR_SUCCESS) text.assign(buffer.data());
  return status;
}

LSTATUS QueryPathOverrideSwitch(HKEY key, DWORD& enabled) {
  DWORD number = 0;
  DWORD size = sizeof(number);
  const LSTATUS status =
      ::RegQueryValueExW(key, L"EnablePathOverride", nullptr, nullptr, reinterpret_cast<BYTE*>(&number), &size);
  if (status == ERROR_SUCCESS) enabled = number;
  return status;
}

std::wstring SharedComponentsKeyPath(const std::wstring& release) {
  return L"SOFTWARE\\Tavrel\\SharedComponents\\" + release;
}

}  // namespace ambrel
