// What the sandbox's parts share: the test program's folder, the runtime DLLs
// beside it, text conversion and file contents.
#include "tests/sandbox/Sandbox.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace ambrel::test {

std::wstring TestBinDirectory() {
  wchar_t buffer[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, buffer, MAX_PATH);
  return std::filesystem::path(buffer).parent_path().wstring();
}

void CopyRuntimeDllsTo(const std::wstring& folder) {
  // AMBREL_RUNTIME_DLL_NAMES: the names, separated by '|'.
  const std::wstring names = AMBREL_RUNTIME_DLL_NAMES;
  size_t start = 0;
  while (start < names.size()) {
    size_t end = names.find(L'|', start);
    if (end == std::wstring::npos) end = names.size();
    const std::wstring name = names.substr(start, end - start);
    std::filesystem::create_directories(folder);
    std::filesystem::copy_file(TestBinDirectory() + L"\\" + name, std::filesystem::path(folder) / name,
                               std::filesystem::copy_options::overwrite_existing);
    start = end + 1;
  }
}

std::string Narrow(const std::wstring& text) {
  if (text.empty()) return {};
  const int size =
      ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<size_t>(size), '\0');
  ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size, nullptr, nullptr);
  return out;
}

std::wstring Widen(const std::string& text) {
  if (text.empty()) return {};
  const int size = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring out(static_cast<size_t>(size), L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size);
  return out;
}

std::string ReadFileBytes(const std::wstring& path) {
  std::ifstream in(std::filesystem::path(path), std::ios::binary);
  if (!in) return {};
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

}  // namespace ambrel::test
