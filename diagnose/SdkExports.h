// The names a DLL exports, read from its file's export table: the SDK's code
// is never mapped for execution, so nothing of it runs.
#pragma once

#include <optional>
#include <set>
#include <string>

namespace ambrel::diagnose {

// The exported names, or nullopt when the file is not a readable PE image.
std::optional<std::set<std::string>> ReadExportNames(const std::wstring& file);

}  // namespace ambrel::diagnose
