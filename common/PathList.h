// Whole-entry search in a ';'-separated list such as PATH.
#pragma once

#include <string_view>

namespace ambrel {

// True when one of the ';'-separated entries of `list` (empty entries
// included, nothing trimmed or expanded) equals `entry` unit by unit after both
// are lowered with towlower.
bool PathListContains(std::wstring_view list, std::wstring_view entry);

}  // namespace ambrel
