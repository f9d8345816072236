#include "osx/EnvironmentBlock.h"

#include <windows.h>

#include <cstring>
#include <cwchar>

#include "Ambrel.h"
#include "qel_loader/WinResource.h"

namespace ambrel {
namespace {

// Freed with the library.
EnvironmentCopy& InitialEnvironment() {
  static EnvironmentCopy copy;
  return copy;
}

}  // namespace

size_t EnvironmentBlockLength(const wchar_t* block) noexcept {
  size_t length = 0;
  do {
    const size_t entry = std::wcslen(block + length) + 1;
    length += entry;
  } while (block[length] != L'\0');
  return length + 1;
}

EnvironmentCopy CopyEnvironmentBlock(const wchar_t* block) {
  EnvironmentCopy copy;
  copy.length = block != nullptr ? EnvironmentBlockLength(block) : 2;
  copy.characters = std::make_unique<wchar_t[]>(copy.length);
  const size_t bytes = copy.length * sizeof(wchar_t);
  // memcpy_s zero-fills the copy and raises the invalid-parameter handler
  // (errno EINVAL) for a null block.
  ::memcpy_s(copy.characters.get(), bytes, block, bytes);
  return copy;
}

}  // namespace ambrel

void BackupInitialEnvironmentBlock() {
  ambrel::EnvironmentCopy& initial = ambrel::InitialEnvironment();
  if (initial.length != 0) return;
  const ambrel::UniqueEnvironmentStrings block(::GetEnvironmentStringsW());
  initial.characters.reset();
  initial.length = 0;
  initial = ambrel::CopyEnvironmentBlock(block.get());
}

const wchar_t* GetInitialEnvironmentBlock() { return ambrel::InitialEnvironment().characters.get(); }
