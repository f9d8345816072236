// A host's process start with the package loaded (bench_startup_host_with,
// which imports Ambrel.dll) against the same host without it
// (bench_startup_host_without): each operation starts the program from bin/,
// where the package's DLLs lie as shipped, and waits for it to end. The ratio
// is what the library adds to every start of the host.
#include <windows.h>

#include <string>

#include "bench/BenchHarness.h"
#include "tests/support/TestSupport.h"

namespace {

// Starts the program and waits for it; false unless it ends with 0.
bool StartAndWait(const std::wstring& program) {
  std::wstring commandLine = L"\"" + program + L"\"";
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  if (!::CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &process)) {
    return false;
  }
  ::WaitForSingleObject(process.hProcess, INFINITE);
  DWORD exitCode = 1;
  ::GetExitCodeProcess(process.hProcess, &exitCode);
  ::CloseHandle(process.hThread);
  ::CloseHandle(process.hProcess);
  return exitCode == 0;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace ambrel::bench;
  const int rounds = RoundsArgument(argc, argv, 40);
  const std::wstring with = ambrel::test::TestBinDirectory() + L"\\bench_startup_host_with.exe";
  const std::wstring without = ambrel::test::TestBinDirectory() + L"\\bench_startup_host_without.exe";
  Require(StartAndWait(with), "the host with the package did not start and end with 0");
  Require(StartAndWait(without), "the host without the package did not start and end with 0");

  bool failed = false;
  const Comparison start = Compare(
      rounds, 1, [&] { failed |= !StartAndWait(with); }, [&] { failed |= !StartAndWait(without); });
  Print("host start with / without package", start, 1.50);
  return failed ? 2 : 0;
}
