// Copying a wide text into a caller's buffer with StringCchCopyW's rules, which
// are kept exactly (mingw-w64's strsafe.h differs for oversized buffers).
#pragma once

#include <cstddef>

namespace ambrel {

// The largest buffer size StringCchCopyW accepts (STRSAFE_MAX_CCH).
inline constexpr size_t kMaxCopyCharacters = 0x7FFFFFFF;

// Size 0: nothing written. Size above kMaxCopyCharacters: only destination[0]
// is set to NUL. Otherwise characters are copied until the source's NUL, until
// size slots are used or until kMaxCopyCharacters - 1 have been copied; a copy
// that used every slot has its last slot overwritten with NUL, else a NUL
// follows the copied characters. The truncation is not reported.
void CopyTruncating(wchar_t* destination, size_t size, const wchar_t* source) noexcept;

}  // namespace ambrel
