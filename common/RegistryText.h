// Reading a registry value as UTF-16 text through a fixed byte budget.
#pragma once

#include <windows.h>

#include <string>

namespace ambrel {

// RegQueryValueExW of `name` with no type asked and a data size of `byteSize`
// bytes, whatever type the value has. On success `text` receives the data up
// to its first NUL (the buffer is always terminated); on failure `text` is
// left as it was. Returns the registry status (ERROR_MORE_DATA when the value
// does not fit).
LSTATUS QueryRegistryText(HKEY key, const wchar_t* name, DWORD byteSize, std::wstring& text);

// The shared-components key of a release: "SOFTWARE\Tavrel\SharedComponents\" + release.
std::wstring SharedComponentsKeyPath(const std::wstring& release);

// "InstallPath" and "Version" of that key, read by the installation query and
// by the session alike through 260 bytes: room for 129 characters and the
// terminator, so a longer value fails with ERROR_MORE_DATA and counts as
// unreadable. The limit is deliberate and kept.
inline constexpr DWORD kSharedComponentsValueBytes = 260;
inline LSTATUS QuerySharedComponentsText(HKEY key, const wchar_t* name, std::wstring& text) {
  return QueryRegistryText(key, name, kSharedComponentsValueBytes, text);
}

// "EnablePathOverride" of that key: any value type whose data fits in four
// bytes is taken as the number. `enabled` is left as it was on failure.
LSTATUS QueryPathOverrideSwitch(HKEY key, DWORD& enabled);

}  // namespace ambrel
