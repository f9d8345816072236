// What a process sees of the library's start: loading Ambrel.dll loads its
// imports and nothing else (no rsaenh.dll: nothing at load seeds from crypto),
// and the stack protector's canary is seeded per process and a smashed one
// ends the process with the fast-fail status no handler can take.
#include <windows.h>

#include <gtest/gtest.h>

#include <iostream>
#include <string>

#include "common/ModuleHelpers.h"
#include "tests/support/TestSupport.h"

namespace {

std::wstring Beside(const wchar_t* program) { return ambrel::GetThisModuleDirectory() + L"\\" + program; }

TEST(StartupTest, LoadingTheLibraryLoadsExactlyItsImports) {
  const auto result = ambrel::test::RunProcess(Beside(L"ambrel_load_host.exe"), L"");
  std::cout << result.output;
  EXPECT_EQ(result.exitCode, 0u) << result.output;
  EXPECT_NE(result.output.find("rsaenh.dll not loaded"), std::string::npos) << result.output;
}

TEST(StartupTest, ASmashedCanaryEndsTheProcessWithFastFail) {
  const auto result = ambrel::test::RunProcess(Beside(L"ambrel_stack_smash.exe"), L"64");
  if (result.exitCode) {
    std::cout << "exit status of the smashed process: 0x" << std::hex << *result.exitCode << std::dec << "\n";
  } else {
    std::cout << "exit status of the smashed process: none\n";
  }
  EXPECT_EQ(result.exitCode, static_cast<DWORD>(STATUS_STACK_BUFFER_OVERRUN)) << result.output;
  EXPECT_EQ(result.output, "") << "the process went on after the check failed";
}

// The helper's handler does take an exception, even one of the same code:
// the fast fail above bypassed it.
TEST(StartupTest, TheHelpersHandlerTakesAnException) {
  const auto result = ambrel::test::RunProcess(Beside(L"ambrel_stack_smash.exe"), L"raise");
  EXPECT_EQ(result.exitCode, 3u) << result.output;
  EXPECT_EQ(result.output, "an exception handler took exception 0xc0000409\r\n");
}

TEST(StartupTest, AnIntactCanaryPassesItsCheck) {
  const auto result = ambrel::test::RunProcess(Beside(L"ambrel_stack_smash.exe"), L"16");
  EXPECT_EQ(result.exitCode, 0u) << result.output;
  EXPECT_EQ(result.output, "returned\r\n");
}

TEST(StartupTest, EachProcessGetsItsOwnCanary) {
  const auto first = ambrel::test::RunProcess(Beside(L"ambrel_stack_smash.exe"), L"guard");
  const auto second = ambrel::test::RunProcess(Beside(L"ambrel_stack_smash.exe"), L"guard");
  ASSERT_EQ(first.exitCode, 0u);
  ASSERT_EQ(second.exitCode, 0u);
  std::cout << "canaries: " << first.output << "          " << second.output;
  EXPECT_NE(first.output, second.output);
  // Never the unseeded value the runtime starts with.
  EXPECT_NE(first.output, "2b992ddfa232\n");
  EXPECT_NE(second.output, "2b992ddfa232\n");
}

}  // namespace
