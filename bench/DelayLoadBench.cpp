// QelLoadHelper::DelayLoadHook for a DLL that lies beside the library against
// a bare LoadLibraryExW of the same file with the same flags; each repetition
// loads and frees. The library's objects are linked in, so "beside the
// library" is this program's folder (bin/, where Ambrel.dll lies too).
//
// The shared-components folder is looked up by the first hook call (a whole
// installer session over the signed stand-in SDK in the registry sandbox)
// and kept; the timed calls then register it, load from the library's folder
// and remove the registration again, as every later failing delay load does.
#include <windows.h>

#include <cstdio>
#include <string>

#include "Ambrel.h"
#include "bench/BenchHarness.h"
#include "qel_loader/DelayLoadHook.h"
#include "tests/support/SdkSandbox.h"
#include "tests/support/TestSupport.h"

namespace ambrel::test {
namespace {

constexpr char kProbe[] = "ambrel_benchprobe.dll";
constexpr DWORD kHookLoadFlags = 0xD00;  // DLL_LOAD_DIR | USER_DIRS | SYSTEM32, as the hook loads

HMODULE HookLoad() {
  DelayLoadInfo info{};
  info.cb = sizeof info;
  info.szDll = kProbe;
  return reinterpret_cast<HMODULE>(QelLoadHelper::DelayLoadHook(dliFailLoadLib, &info));
}

// One timed repetition of the library's side.
bool HookLoadAndFree() {
  const HMODULE module = HookLoad();
  ::FreeLibrary(module);
  return module != nullptr;
}

int RunBench(int argc, char** argv) {
  const int rounds = bench::RoundsArgument(argc, argv, 300);
  constexpr int kBatch = 10;

  SdkSandbox sandbox{SdkSandbox::Contents::Installed, SdkSandbox::Record::Nothing};
  const std::wstring probeFile = TestBinDirectory() + L"\\" + Widen(kProbe);
  bench::Require(::GetModuleHandleA(kProbe) == nullptr, "the probe DLL is already loaded");

  // The first call looks the shared folder up and keeps it.
  const double start = bench::NowMicroseconds();
  const HMODULE first = HookLoad();
  const double firstCall = bench::NowMicroseconds() - start;
  bench::Require(first != nullptr, "the hook did not load the probe DLL");
  ::FreeLibrary(first);
  bench::Require(DelayLoadSharedDllPath() == sandbox.sharedDir(), "the hook did not keep the shared folder");
  std::printf("first hook call (folder look-up through a whole session): %.1f us\n", firstCall);

  bool allSucceeded = true;
  const auto plainLoad = [&] {
    const HMODULE module = ::LoadLibraryExW(probeFile.c_str(), nullptr, kHookLoadFlags);
    allSucceeded &= module != nullptr;
    ::FreeLibrary(module);
  };
  const bench::Comparison c = bench::Compare(
      rounds, kBatch, [&] { allSucceeded &= HookLoadAndFree(); }, plainLoad);
  bench::Print("DelayLoadHook (folder cached)", c, 1.10);

  // The same hook against a floor that also registers and removes the shared
  // folder around the load, as the hook must: what is left is the hook's own work.
  const std::wstring& shared = DelayLoadSharedDllPath();
  const bench::Comparison registered = bench::Compare(
      rounds, kBatch, [&] { allSucceeded &= HookLoadAndFree(); },
      [&] {
        const DLL_DIRECTORY_COOKIE cookie = ::AddDllDirectory(shared.c_str());
        const HMODULE module = ::LoadLibraryExW(probeFile.c_str(), nullptr, kHookLoadFlags);
        if (cookie) ::RemoveDllDirectory(cookie);
        allSucceeded &= module != nullptr && cookie != nullptr;
        ::FreeLibrary(module);
      });
  bench::Print("DelayLoadHook vs load + registration", registered, 1.10);

  // The first comparison once more: shows whether the times drifted during the run.
  const bench::Comparison again = bench::Compare(
      rounds, kBatch, [&] { allSucceeded &= HookLoadAndFree(); }, plainLoad);
  bench::Print("DelayLoadHook (folder cached, again)", again, 1.10);
  bench::Require(allSucceeded, "a timed load failed");
  bench::Require(::GetModuleHandleA(kProbe) == nullptr, "the probe DLL stayed loaded");
  return 0;
}

}  // namespace
}  // namespace ambrel::test

int main(int argc, char** argv) { return ambrel::test::RunBench(argc, argv); }
