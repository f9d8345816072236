// A host's process start with the package loaded (bench_startup_<kind>_with,
// which imports Ambrel.dll) against the same host without it
// (bench_startup_<kind>_without): each operation starts the program from
// bin/, where the package's DLLs lie as shipped, and waits for it to end. The
// ratio is what the library adds to every start of the host: of a desktop
// host, which loads USER32, SHELL32 and ole32 anyway, and of a bare console
// host, which loads nothing of them without the library.
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

// One comparison: the `kind` host started with and without the package.
bool CompareStarts(const char* name, const wchar_t* kind, int rounds, double target) {
  using namespace ambrel::bench;
  const std::wstring prefix = ambrel::test::TestBinDirectory() + L"\\bench_startup_" + kind;
  const std::wstring with = prefix + L"_with.exe";
  const std::wstring without = prefix + L"_without.exe";
  Require(StartAndWait(with), "the host with the package did not start and end with 0");
  Require(StartAndWait(without), "the host without the package did not start and end with 0");
  bool failed = false;
  const Comparison start = Compare(
      rounds, 1, [&] { failed |= !StartAndWait(with); }, [&] { failed |= !StartAndWait(without); });
  Print(name, start, target);
  return !failed;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = ambrel::bench::RoundsArgument(argc, argv, 40);
  // The desktop host is Kalvex's case and has the target; the bare console
  // host shows the system DLLs the library brings that such a host lacks.
  const bool desktop = CompareStarts("desktop host start, with / without", L"desktop", rounds, 1.25);
  const bool console = CompareStarts("console host start, with / without", L"console", rounds, 0);
  return desktop && console ? 0 : 2;
}
