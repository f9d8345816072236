// The child the runner's tests start: it ends with a chosen code, floods its
// output, hangs, or leaves a process of its own holding its output.
//   ambrel_runner_child exit N | flood BYTES | hang | orphan
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>

int wmain(int argc, wchar_t** argv) {
  const std::wstring mode = argc > 1 ? argv[1] : L"";
  if (mode == L"exit" && argc > 2) {
    const int code = _wtoi(argv[2]);
    std::printf("child: exit %d\n", code);
    return code;
  }
  if (mode == L"flood" && argc > 2) {
    const std::string chunk(1024, 'x');
    for (long left = _wtol(argv[2]); left > 0; left -= 1024)
      std::fwrite(chunk.data(), 1, left < 1024 ? static_cast<size_t>(left) : chunk.size(), stdout);
    return 0;
  }
  if (mode == L"hang") {
    std::printf("child: hanging\n");
    std::fflush(stdout);
    ::Sleep(INFINITE);
  }
  if (mode == L"orphan") {
    // A process of its own that inherits this one's output and hangs.
    wchar_t self[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring commandLine = L"\"" + std::wstring(self) + L"\" hang";
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    if (!::CreateProcessW(self, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process))
      return 1;
    std::printf("grandchild: %lu\n", process.dwProcessId);
    ::CloseHandle(process.hThread);
    ::CloseHandle(process.hProcess);
    return 5;
  }
  return 2;
}
