// Scratch folders, removed with their contents.
#include "tests/sandbox/Sandbox.h"

#include <atomic>
#include <filesystem>
#include <fstream>

namespace ambrel::test {

namespace {

std::atomic<unsigned> g_counter{0};

}  // namespace

ScratchDir::ScratchDir(const std::wstring& parent) {
  std::wstring base = parent;
  if (base.empty()) {
    wchar_t temp[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, temp);
    base = temp;
  }
  if (!base.empty() && base.back() != L'\\' && base.back() != L'/') base += L'\\';
  path_ = base + L"ambrel-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(++g_counter) + L"-" +
          std::to_wstring(::GetTickCount64());
  std::filesystem::create_directories(path_);
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::wstring ScratchDir::WriteFile(const std::wstring& name, const std::string& bytes) const {
  const std::filesystem::path file = std::filesystem::path(path_) / name;
  std::filesystem::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return file.wstring();
}

std::wstring ScratchDir::MakeDir(const std::wstring& name) const {
  const std::filesystem::path dir = std::filesystem::path(path_) / name;
  std::filesystem::create_directories(dir);
  return dir.wstring();
}

}  // namespace ambrel::test
