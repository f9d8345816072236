// The private copy of the process environment block taken at start-up.
#pragma once

#include <cstddef>
#include <memory>

namespace ambrel {

// Characters of an environment block (name=value strings, each with its NUL,
// then the final NUL). The first string always counts, so "\0\0" gives 2.
size_t EnvironmentBlockLength(const wchar_t* block) noexcept;

struct EnvironmentCopy {
  std::unique_ptr<wchar_t[]> characters;  // NOLINT(*-avoid-c-arrays): the owner of a dynamic array
  size_t length = 0;
};

// A heap copy of the block. A null block gives a zero-filled copy of the
// shortest block (2 characters), sets errno to EINVAL and raises the C
// runtime's invalid-parameter handler, as the runtime's checked copy does.
EnvironmentCopy CopyEnvironmentBlock(const wchar_t* block);

}  // namespace ambrel
