// A tiny host built against the installed package: it links Ambrel.dll through
// the package's import library and calls a few exports. Exit code 0 when each
// answer is the expected one.
#include <windows.h>

#include <cstdio>
#include <string>

#include "Ambrel.h"

namespace {

int failures = 0;

void Check(bool condition, const char* what) {
  std::printf("%s: %s\n", condition ? "ok  " : "FAIL", what);
  if (!condition) ++failures;
}

}  // namespace

int main() {
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
  // Ambrel's frames come first and are named from the shipped debug information.
  Check(stack.rfind(L"ambrel! ", 0) == 0 || stack.rfind(L"Ambrel! ", 0) == 0, "the first frame is in Ambrel");
  Check(stack.find(L"OSxMisc::GetCallStack") != std::wstring::npos, "Ambrel's frames are named");
  Check(stack.find(L"consumer_host! main") != std::wstring::npos, "the host's main is named");

  std::printf("%s\n", failures == 0 ? "consumer host passed" : "consumer host FAILED");
  return failures == 0 ? 0 : 1;
}
