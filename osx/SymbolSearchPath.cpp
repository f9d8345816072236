#include "osx/SymbolSearchPath.h"

#include <stdlib.h>

#include <array>

#include "common/Environment.h"
#include "common/ModuleHelpers.h"

namespace ambrel {
namespace {

// The parts of the library's path that go into the symbol search path.
constexpr size_t kDriveChars = 3;
constexpr size_t kDirectoryChars = 256;

}  // namespace

std::wstring SymbolSearchModuleDirectory(HMODULE module) {
  const std::wstring file = GetModuleFilePath(module);
  if (file.empty()) return {};
  std::array<wchar_t, kDriveChars> drive{};
  std::array<wchar_t, kDirectoryChars> directory{};
  if (_wsplitpath_s(file.c_str(), drive.data(), drive.size(), directory.data(), directory.size(), nullptr, 0, nullptr,
                    0) != 0) {
    return {};
  }
  std::array<wchar_t, MAX_PATH> joined{};
  if (_wmakepath_s(joined.data(), joined.size(), drive.data(), directory.data(), nullptr, nullptr) != 0) return {};
  return joined.data();
}

std::wstring BuildSymbolSearchPath(HMODULE module) {
  std::wstring path = L".;";
  path += SymbolSearchModuleDirectory(module);
  path += L';';
  for (const wchar_t* name : {L"_NT_SYMBOL_PATH", L"_NT_ALTERNATE_SYMBOL_PATH", L"SYSTEMROOT"}) {
    const auto value = ReadEnvironmentVariable(name);
    if (value && !value->empty()) {
      path += *value;
      path += L';';
    }
  }
  return path;
}

}  // namespace ambrel
