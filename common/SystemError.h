// Windows error codes as std::error_code values whose message() is the
// system's own text for the code (FormatMessage), on every toolchain.
#pragma once

#include <windows.h>

#include <string>
#include <system_error>

namespace ambrel {

// The category that holds Windows error codes ("system").
const std::error_category& WindowsErrorCategory() noexcept;

inline std::error_code MakeWindowsError(DWORD code) noexcept {
  return {static_cast<int>(code), WindowsErrorCategory()};
}

// The system's text for a Windows error code as UTF-8, with the trailing
// line break that FormatMessage appends removed; "" when it has none.
std::string WindowsErrorText(DWORD code);

}  // namespace ambrel
