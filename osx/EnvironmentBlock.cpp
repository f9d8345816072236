#include "osx/EnvironmentBlock.h"

#include <windows.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "Ambrel.h"
#include "common/PlainExport.h"
#include "common/WinResource.h"

namespace ambrel {
namespace {

// Freed with the library.
EnvironmentCopy& InitialEnvironment() {
  static EnvironmentCopy copy;
  return copy;
}

}  // namespace

size_t EnvironmentBlockLength(const wchar_t* block) noexcept {
  // The first string counts even when it is empty.
  size_t length = std::wcslen(block) + 1;
  while (block[length] != L'\0') length += std::wcslen(block + length) + 1;
  return length + 1;
}

EnvironmentCopy CopyEnvironmentBlock(const wchar_t* block) {
  EnvironmentCopy copy;
  copy.length = block != nullptr ? EnvironmentBlockLength(block) : 2;
  copy.characters = std::make_unique<wchar_t[]>(copy.length);  // NOLINT(*-avoid-c-arrays): owned, zero-filled
  if (block != nullptr) {
    std::memcpy(copy.characters.get(), block, copy.length * sizeof(wchar_t));
    return copy;
  }
  // What the runtime's checked copy (memcpy_s) does with a null source: the
  // copy stays zero-filled, errno is EINVAL and the invalid-parameter handler runs.
  errno = EINVAL;
#if defined(_MSC_VER)
  // Compiler-specific (MSVC runtime): the installed handler, or the default one.
  _invalid_parameter_noinfo();
#else
  // Compiler-specific (mingw-w64): its runtime keeps the handler itself and
  // its memcpy_s does not call it.
  if (auto* const handler = _get_invalid_parameter_handler()) handler(nullptr, nullptr, nullptr, 0, 0);
#endif
  return copy;
}

}  // namespace ambrel

AMBREL_PLAIN_EXPORT(BackupInitialEnvironmentBlock, "?BackupInitialEnvironmentBlock@@YAXXZ",
                    "_Z29BackupInitialEnvironmentBlockv");

void BackupInitialEnvironmentBlock() {
  ambrel::EnvironmentCopy& initial = ambrel::InitialEnvironment();
  if (initial.length != 0) return;
  const ambrel::UniqueEnvironmentStrings block(::GetEnvironmentStringsW());
  initial.characters.reset();
  initial.length = 0;
  initial = ambrel::CopyEnvironmentBlock(block.get());
}

const wchar_t* GetInitialEnvironmentBlock() noexcept { return ambrel::InitialEnvironment().characters.get(); }
