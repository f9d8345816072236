// Reads and writes of the process environment through the C runtime's wide
// functions, in one place. Writes go through _wputenv_s, which also updates the
// Win32 block that child processes inherit.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

namespace ambrel {

// The variable's value, or nothing when it is not set (the behaviour of
// _wdupenv_s, which mingw-w64's import library lacks).
std::optional<std::wstring> ReadEnvironmentVariable(const wchar_t* name);

// _wputenv_s; true when it returned 0.
bool WriteEnvironmentVariable(const wchar_t* name, const wchar_t* value);

// ExpandEnvironmentStringsW into a zero-filled buffer of MAX_PATH characters
// (limit MAX_PATH), the budget the library gives every expanded path.
struct PathExpansion {
  // The function's answer: 0 when it failed, more than MAX_PATH when the
  // expansion does not fit (the buffer then holds a cut-off text that names
  // some other path, so it is not handed out).
  DWORD needed = 0;
  std::wstring text;  // the expansion; empty unless it fits
  bool fits() const noexcept { return needed != 0 && needed <= MAX_PATH; }
};
PathExpansion ExpandEnvironmentPath(const wchar_t* text);

}  // namespace ambrel
