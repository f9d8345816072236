// Copies of Ambrel.dll in chosen folders.
#include "tests/sandbox/Sandbox.h"

#include <filesystem>

namespace ambrel::test {

LibraryCopy::LibraryCopy(const std::wstring& parent, const std::vector<std::wstring>& companions) : dir_(parent) {
  const std::filesystem::path bin = TestBinDirectory();
  file_ = dir_.path() + L"\\Ambrel.dll";
  std::filesystem::copy_file(bin / L"Ambrel.dll", file_);
  for (const auto& companion : companions)
    std::filesystem::copy_file(bin / companion, std::filesystem::path(dir_.path()) / companion);
  module_ = ::LoadLibraryW(file_.c_str());
  if (!module_)
    throw std::runtime_error("LoadLibraryW of the Ambrel.dll copy failed: " + std::to_string(::GetLastError()));
}

LibraryCopy::~LibraryCopy() {
  if (module_) ::FreeLibrary(module_);
}

}  // namespace ambrel::test
