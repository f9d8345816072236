// Reads and writes of the process environment through the C runtime's wide
// functions, in one place. Writes go through _wputenv_s, which also updates the
// Win32 block that child processes inherit.
#pragma once

#include <optional>
#include <string>

namespace ambrel {

// The variable's value, or nothing when it is not set (the behaviour of
// _wdupenv_s, which mingw-w64's import library lacks).
std::optional<std::wstring> ReadEnvironmentVariable(const wchar_t* name);

// _wputenv_s; true when it returned 0.
bool WriteEnvironmentVariable(const wchar_t* name, const wchar_t* value);

}  // namespace ambrel
