// ambrel-diagnose judges the machine with its own copy of the library's code,
// so its verdicts are those of its own version of the library: the report
// names that version and the judged Ambrel.dll's, and says when they differ.
#pragma once

#include <optional>
#include <string>

#include "diagnose/Checks.h"

namespace ambrel::diagnose {

// The file version of a file's version resource ("1.0.0.0"), or nullopt when
// it has none or cannot be read.
std::optional<std::string> FileVersionOf(const std::wstring& file);

// This program's own file version.
std::optional<std::string> ToolVersion();

// The check "library.version": the tool's version against the library's.
Check CheckLibraryVersion(const std::wstring& library, const std::optional<std::string>& toolVersion);

}  // namespace ambrel::diagnose
