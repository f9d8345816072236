// Measures how often Wine fails to start a program: starts it COUNT times,
// each time from the same file ("same") or from a copy made a moment before
// in a fresh folder under WORK ("copy": CopyFileW; "fscopy":
// std::filesystem::copy_file, then an open without any sharing, which fails
// while anything still holds the copy), waits for it, and prints each failed
// start and the totals. Not part of the suite: docs/testing.md, Process starts.
//   ambrel_start_loop PROGRAM WORK COUNT same|copy|fscopy
#include <windows.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>

namespace {

// The copy's path, or "" when the copy failed.
std::wstring CopyToFreshFolder(const std::wstring& program, const std::wstring& work, int index,
                               const std::wstring& mode, int& held) {
  const std::wstring folder = work + L"\\" + std::to_wstring(::GetCurrentProcessId()) + L"_" + std::to_wstring(index);
  ::CreateDirectoryW(folder.c_str(), nullptr);
  const std::wstring copy = folder + L"\\child.exe";
  if (mode == L"copy") return ::CopyFileW(program.c_str(), copy.c_str(), FALSE) ? copy : L"";
  std::error_code error;
  if (!std::filesystem::copy_file(program, copy, error)) return L"";
  HANDLE probe =
      ::CreateFileW(copy.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  if (probe == INVALID_HANDLE_VALUE) {
    ++held;
    std::printf("copy %d still held: error %lu\n", index, ::GetLastError());
  } else {
    ::CloseHandle(probe);
  }
  return copy;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc < 5) {
    std::fprintf(stderr, "usage: ambrel_start_loop PROGRAM WORK COUNT same|copy|fscopy\n");
    return 2;
  }
  const std::wstring program = argv[1];
  const std::wstring work = argv[2];
  const int count = _wtoi(argv[3]);
  const std::wstring mode = argv[4];
  ::CreateDirectoryW(work.c_str(), nullptr);
  std::map<DWORD, int> errors;
  int failed = 0;
  int held = 0;
  for (int i = 0; i < count; ++i) {
    const std::wstring file = mode == L"same" ? program : CopyToFreshFolder(program, work, i, mode, held);
    if (file.empty()) {
      std::printf("copy %d failed: error %lu\n", i, ::GetLastError());
      return 3;
    }
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    std::wstring commandLine = L"\"" + file + L"\"";
    if (!::CreateProcessW(file.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                          &process)) {
      const DWORD error = ::GetLastError();
      ++errors[error];
      ++failed;
      std::printf("start %d failed: error %lu\n", i, error);
      std::fflush(stdout);
      continue;
    }
    ::WaitForSingleObject(process.hProcess, INFINITE);
    ::CloseHandle(process.hThread);
    ::CloseHandle(process.hProcess);
  }
  std::printf("%ls: %d starts, %d failed", mode.c_str(), count, failed);
  for (const auto& [error, times] : errors) std::printf(" [error %lu: %d]", error, times);
  std::printf(", %d copies still held after the copy returned\n", held);
  return 0;
}
