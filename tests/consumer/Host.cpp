// A tiny host built against the installed package: it links Ambrel.dll through
// the package's import library and calls a few exports. Exit code 0 when each
// answer is the expected one.
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "Ambrel.h"

namespace {

int failures = 0;

void Check(bool condition, const char* what) {
  std::printf("%s: %s\n", condition ? "ok  " : "FAIL", what);
  if (!condition) ++failures;
}

// Frame lines of the captured text that belong to the module `name`.
std::vector<std::wstring> FramesOf(const std::wstring& stack, const std::wstring& name) {
  std::vector<std::wstring> frames;
  size_t start = 0;
  for (size_t end; (end = stack.find(L'\n', start)) != std::wstring::npos; start = end + 1) {
    const std::wstring line = stack.substr(start, end - start);
    if (_wcsnicmp(line.c_str(), (name + L"! ").c_str(), name.size() + 2) == 0) frames.push_back(line);
  }
  return frames;
}

}  // namespace

// "--without-ambrel-pdb": the host runs from a folder that holds Ambrel.dll
// but not Ambrel.pdb, and Ambrel's frames must then stay unnamed.
int main(int argc, char** argv) {
  const bool ambrelPdbExpected = !(argc > 1 && std::strcmp(argv[1], "--without-ambrel-pdb") == 0);
  std::printf("consumer host, Ambrel package %s\n", AMBREL_EXPECTED_VERSION);

  wchar_t file[MAX_PATH] = {};
  ::GetModuleFileNameW(::GetModuleHandleW(L"Ambrel.dll"), file, MAX_PATH);
  std::printf("Ambrel.dll loaded from %ls\n", file);
  Check(file[0] != L'\0', "Ambrel.dll is loaded through the import library");

  // The package lies in the build tree, not on drive R:.
  Check(!QelLoadHelper::IsDevelopment(), "QelLoadHelper::IsDevelopment() is false");

  std::wstring stack = L"replaced";
  const bool captured = OSxMisc::GetCallStack(stack);
  Check(captured, "OSxMisc::GetCallStack returns true");
  std::printf("%ls", stack.c_str());
  const auto ambrelFrames = FramesOf(stack, L"Ambrel");
  const auto hostFrames = FramesOf(stack, L"consumer_host");
  // Ambrel's frames come first.
  Check(!ambrelFrames.empty() && stack.starts_with(ambrelFrames.front()), "the first frame is in Ambrel");
  if (ambrelPdbExpected) {
    // Named with file and line from the Ambrel.pdb shipped beside the DLL.
    Check(stack.find(L"OSxMisc::GetCallStack [") != std::wstring::npos, "Ambrel's frames are named");
    bool allWithSource = !ambrelFrames.empty();
    for (const auto& frame : ambrelFrames) allWithSource &= frame.find(L"CallStack.cpp @ ") != std::wstring::npos;
    Check(allWithSource, "each Ambrel frame carries CallStack.cpp and a line");
  } else {
    bool noneNamed = !ambrelFrames.empty();
    for (const auto& frame : ambrelFrames) noneNamed &= frame.ends_with(L"! _NA_\t[NULL]\t");
    Check(noneNamed, "without Ambrel.pdb, Ambrel's frames are _NA_ and [NULL]");
  }
  // The host's own frames are named from consumer_host's own debug information.
  bool mainNamed = false;
  for (const auto& frame : hostFrames)
    mainNamed |= frame.starts_with(L"consumer_host! main [") && frame.find(L"Host.cpp @ ") != std::wstring::npos;
  Check(mainNamed, "the host's main is named with file and line");

  std::printf("%s\n", failures == 0 ? "consumer host passed" : "consumer host FAILED");
  return failures == 0 ? 0 : 1;
}
