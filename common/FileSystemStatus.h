// "Does this path exist / is it a directory", with the library's one rule for
// Windows errors: 2, 3, 53 and 123 mean "no"; any other error is reported.
#pragma once

#include <windows.h>

#include <string>
#include <system_error>

namespace ambrel {

struct PathStatus {
  bool exists = false;
  bool isDirectory = false;
};

// True for the errors that mean the path is simply not there: file not found,
// path not found, bad network path, invalid name.
bool IsNotFoundError(DWORD error) noexcept;

// Status of the path, following symbolic links and junctions. On a not-found
// error the result is "does not exist" and ec is cleared (value 0 of the
// Windows category, so its message() is the system's text for no error); on
// any other error ec holds the Windows error and the result is "does not exist".
PathStatus QueryPathStatus(const std::wstring& path, std::error_code& ec) noexcept;

// As std::filesystem::exists(path, ec): ec cleared unless an unexpected error.
bool PathExists(const std::wstring& path, std::error_code& ec) noexcept;

// Throwing forms: an unexpected error raises std::filesystem::filesystem_error
// named after the operation ("exists" or "status"), with the path and the
// Windows error.
bool PathExists(const std::wstring& path);
bool IsExistingDirectory(const std::wstring& path);

}  // namespace ambrel
