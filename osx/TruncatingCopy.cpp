#include "osx/TruncatingCopy.h"

namespace ambrel {

void CopyTruncating(wchar_t* destination, size_t size, const wchar_t* source) noexcept {
  if (size == 0) return;
  if (size > kMaxCopyCharacters) {
    destination[0] = L'\0';
    return;
  }
  size_t left = size;
  size_t budget = kMaxCopyCharacters - 1;
  while (left != 0 && budget != 0 && *source != L'\0') {
    *destination++ = *source++;
    --left;
    --budget;
  }
  // Every slot used: the terminator takes the last one.
  if (left == 0) --destination;
  *destination = L'\0';
}

}  // namespace ambrel
