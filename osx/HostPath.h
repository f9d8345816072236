// The host executable as the App Paths and PATH utilities see it, and the two
// PATH edits they make.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ambrel {

// Long path of the process's executable, computed once per process (the short
// form when the long one cannot be had, "" when neither can).
const std::wstring& HostExecutablePath();

// File name and extension of HostExecutablePath() (such as Kalvex.exe),
// computed once per process.
const std::wstring& HostExecutableName();

// File name and extension of a path, as _wsplitpath_s splits it; "" when a
// part does not fit 256 characters.
std::wstring ExecutableNameOf(const std::wstring& path);

// The PATH value with the first exact (case-sensitive) occurrence of `text`
// removed together with everything up to and including the next ';' (to the
// end when there is none); nothing when `text` does not occur. An empty text
// occurs at the start.
std::optional<std::wstring> CutFirstOccurrence(std::wstring_view pathValue, std::wstring_view text);

// CutFirstOccurrence applied to the process PATH; true when PATH was set and
// rewritten. PATH is left alone when it is not set or `text` does not occur.
bool RemoveFromPathVariable(std::wstring_view text);

}  // namespace ambrel
