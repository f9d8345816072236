// OSxMisc::GetCallStack against the bare Debug Help sequence it is built on
// (tests/support/BareDbghelp.h), alternating in one process: the library's
// objects linked into this program, then the export of Ambrel.dll beside it,
// whose frames Debug Help names from Ambrel.pdb. For the latter the floor also
// names the export's address, so that it loads the same PDB as the library.
#include <windows.h>

#include <cstdio>
#include <string>

#include "Ambrel.h"
#include "bench/BenchHarness.h"
#include "tests/support/BareDbghelp.h"
#include "tests/support/ProcessMemory.h"
#include "tests/support/TestSupport.h"

namespace {

size_t LineCount(const std::wstring& text) {
  size_t lines = 0;
  for (wchar_t c : text) lines += c == L'\n';
  return lines;
}

}  // namespace

// Private bytes and failures of `count` calls of each side, after one call
// of each to warm up, alternating as in the timing.
void PrintGrowth(int count) {
  using ambrel::test::HeapBytesInUse;
  using ambrel::test::PrivateBytes;
  std::wstring text;
  OSxMisc::GetCallStack(text);
  ambrel::test::BareDbghelpCallStack(text);
  long long libraryHeap = 0, floorHeap = 0;
  long long libraryGrowth = 0, floorGrowth = 0;
  int libraryFailures = 0, floorFailures = 0;
  for (int i = 0; i < count; ++i) {
    long long before = PrivateBytes(), heapBefore = HeapBytesInUse();
    libraryFailures += ![] {
      std::wstring stack;
      return OSxMisc::GetCallStack(stack);
    }();
    libraryGrowth += PrivateBytes() - before;
    libraryHeap += HeapBytesInUse() - heapBefore;
    before = PrivateBytes();
    heapBefore = HeapBytesInUse();
    floorFailures += ![] {
      std::wstring stack;
      return ambrel::test::BareDbghelpCallStack(stack);
    }();
    floorGrowth += PrivateBytes() - before;
    floorHeap += HeapBytesInUse() - heapBefore;
  }
  std::printf(
      "%d calls each: library private bytes %+lld, heap in use %+lld, %d failed; "
      "floor private bytes %+lld, heap in use %+lld, %d failed\n",
      count, libraryGrowth, libraryHeap, libraryFailures, floorGrowth, floorHeap, floorFailures);
}

int main(int argc, char** argv) {
  using namespace ambrel::bench;
  const int rounds = RoundsArgument(argc, argv, 60);
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], "--bare") == 0) {
      // Only the bare sequence, many times in a row: whether Debug Help itself
      // keeps working and what it keeps.
      const int count = std::max(1, std::atoi(argv[i + 1]));
      const long long heapBefore = ambrel::test::HeapBytesInUse();
      int failures = 0, firstFailure = -1;
      for (int call = 0; call < count; ++call) {
        std::wstring stack;
        if (!ambrel::test::BareDbghelpCallStack(stack)) {
          if (failures++ == 0) firstFailure = call;
        }
        if (call % 100 == 99) {
          std::printf("bare sequence: %d calls, %d failed (first at %d), heap in use %+lld\n", call + 1, failures,
                      firstFailure, ambrel::test::HeapBytesInUse() - heapBefore);
          std::fflush(stdout);
        }
      }
      return 0;
    }
    if (std::strcmp(argv[i], "--growth") == 0) {
      PrintGrowth(std::max(1, std::atoi(argv[i + 1])));
      return 0;
    }
  }

  std::wstring libraryText, floorText;
  Require(OSxMisc::GetCallStack(libraryText), "GetCallStack failed");
  Require(ambrel::test::BareDbghelpCallStack(floorText), "the floor's walk failed");
  std::printf("frames: library %zu, floor %zu\n", LineCount(libraryText), LineCount(floorText));

  bool allSucceeded = true;
  const Comparison c = Compare(
      rounds, 1,
      [&] {
        std::wstring text;
        allSucceeded &= OSxMisc::GetCallStack(text);
      },
      [&] {
        std::wstring text;
        allSucceeded &= ambrel::test::BareDbghelpCallStack(text);
      });
  Print("GetCallStack", c, 1.05);
  Require(allSucceeded, "a timed call failed");

  using GetCallStackFn = bool (*)(std::wstring&);
  const HMODULE dll = ::LoadLibraryW((ambrel::test::TestBinDirectory() + L"\\Ambrel.dll").c_str());
  Require(dll != nullptr, "Ambrel.dll beside the benchmark did not load");
  const auto exported = reinterpret_cast<GetCallStackFn>(::GetProcAddress(
      dll, AMBREL_EXPORT_NAME(
               "?GetCallStack@OSxMisc@@SA_NAEAV?$basic_string@_WU?$char_traits@_W@std@@V?$allocator@_W@2@@std@@@Z",
               "_ZN7OSxMisc12GetCallStackERNSt7__cxx1112basic_stringIwSt11char_traitsIwESaIwEEE")));
  Require(exported != nullptr, "Ambrel.dll exports no GetCallStack");
  std::wstring dllText;
  Require(exported(dllText), "GetCallStack of Ambrel.dll failed");
  const void* const inDll = reinterpret_cast<const void*>(exported);
  std::wstring dllFloorText;
  Require(ambrel::test::BareDbghelpCallStack(dllFloorText, inDll), "the floor's walk failed");
  const auto lastLine = [](const std::wstring& text) {
    return ambrel::test::Narrow(text.substr(text.rfind(L'\n', text.size() - 2) + 1));
  };
  std::printf("frames: Ambrel.dll %zu, first: %s", LineCount(dllText),
              ambrel::test::Narrow(dllText.substr(0, dllText.find(L'\n') + 1)).c_str());
  std::printf("floor lines %zu, last: %s", LineCount(dllFloorText), lastLine(dllFloorText).c_str());
  const Comparison d = Compare(
      rounds, 1,
      [&] {
        std::wstring text;
        allSucceeded &= exported(text);
      },
      [&] {
        std::wstring text;
        allSucceeded &= ambrel::test::BareDbghelpCallStack(text, inDll);
      });
  Print("GetCallStack of Ambrel.dll (PDB)", d, 1.05);
  Require(allSucceeded, "a timed call failed");
  ::FreeLibrary(dll);
  return 0;
}
