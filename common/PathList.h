// Whole-entry search in a ';'-separated list such as PATH.
#pragma once

#include <string>
#include <string_view>

namespace ambrel {

// True when one of the ';'-separated entries of `list` (empty entries
// included, nothing trimmed or expanded) equals `entry` unit by unit after both
// are lowered with towlower.
bool PathListContains(std::wstring_view list, std::wstring_view entry);

// The new PATH value with `directory` in front of `oldPath`: the directory,
// one ';', then the old value unchanged (an empty old value leaves a lone ';').
std::wstring PrependToPathList(const std::wstring& directory, const std::wstring& oldPath);

// The one PATH prepend: writes PATH as `directory` in front of `path` (the
// value the caller has just read) unless PathListContains finds the directory
// there already (then true, PATH untouched). False when the write fails.
bool PutInFrontOfPath(const std::wstring& directory, const std::wstring& path);

// Reads the process PATH and puts `directory` in front of it (PutInFrontOfPath).
// False when the directory is empty, PATH is not set (it is not created) or
// the write fails.
bool PrependToPathVariable(const std::wstring& directory);

}  // namespace ambrel
