// RunProcess, the runner every test that starts a program uses: exit codes
// passed through, output drained, a hung child stopped at the time limit
// while its output is read, and failed starts reported, never hidden.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace ambrel::test {
namespace {

using ::testing::HasSubstr;

std::wstring Child() { return TestBinDirectory() + L"\\ambrel_runner_child.exe"; }

ULONGLONG Elapsed(ULONGLONG since) { return ::GetTickCount64() - since; }

// The start log of one test, in a scratch folder.
class StartLog {
 public:
  StartLog() : env_({L"AMBREL_PROCESS_START_LOG"}), file_(dir_ / L"starts.log") {
    env_.Set(L"AMBREL_PROCESS_START_LOG", file_);
  }
  std::vector<std::string> Lines() const { return SplitLines(ReadFileBytes(file_)); }

 private:
  ScratchDir dir_;
  EnvGuard env_;
  std::wstring file_;
};

TEST(RunProcess, PassesTheExitCodeAndOutputThrough) {
  const StartLog log;
  const ProcessResult result = RunProcess(Child(), L"exit 3");
  EXPECT_EQ(result.exitCode, std::optional<DWORD>(3));
  EXPECT_THAT(SplitLines(result.output), ::testing::ElementsAre("child: exit 3"));
  EXPECT_EQ(result.failedStarts, 0u);
  EXPECT_FALSE(result.timedOut);
  EXPECT_THAT(log.Lines(), ::testing::ElementsAre(::testing::StartsWith("started 1 ")));
}

TEST(RunProcess, DrainsMoreOutputThanThePipeHolds) {
  const ProcessResult result = RunProcess(Child(), L"flood 1048576");
  EXPECT_EQ(result.exitCode, std::optional<DWORD>(0));
  EXPECT_EQ(result.output, std::string(1048576, 'x'));
}

TEST(RunProcess, StopsAHungChildAtTheTimeLimitWhileReadingItsOutput) {
  const StartLog log;
  const ULONGLONG start = ::GetTickCount64();
  const ProcessResult result = RunProcess(Child(), L"hang", 2000);
  EXPECT_GE(Elapsed(start), 1900u);
  EXPECT_LT(Elapsed(start), 20000u);
  EXPECT_EQ(result.exitCode, std::nullopt);
  EXPECT_TRUE(result.timedOut);
  EXPECT_THAT(
      SplitLines(result.output),
      ::testing::ElementsAre("child: hanging", ::testing::StartsWith("run: timed-out after 2000 ms, terminated ")));
  EXPECT_THAT(log.Lines(), ::testing::Contains(::testing::StartsWith("timed-out after 2000 ms")));
}

TEST(RunProcess, SaysWhenTheOutputIsStillHeldAfterTheChildEnded) {
  const StartLog log;  // the time limit is reached on purpose: not one for the run's tally
  const ProcessResult result = RunProcess(Child(), L"orphan", 2000);
  EXPECT_EQ(result.exitCode, std::optional<DWORD>(5));
  EXPECT_TRUE(result.timedOut);
  EXPECT_THAT(result.output, HasSubstr("still held open after the program ended"));
  const size_t at = result.output.find("grandchild: ");
  ASSERT_NE(at, std::string::npos) << result.output;
  const DWORD pid = std::stoul(result.output.substr(at + 12));
  HANDLE grandchild = ::OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid);
  ASSERT_NE(grandchild, nullptr);
  ::TerminateProcess(grandchild, 0);
  ::WaitForSingleObject(grandchild, 5000);
  ::CloseHandle(grandchild);
}

TEST(RunProcess, AMissingProgramHasNoExitCodeAndItsFailureIsReported) {
  const StartLog log;
  const ScratchDir dir;
  const ProcessResult result = RunProcess(dir / L"absent.exe", L"");
  EXPECT_EQ(result.exitCode, std::nullopt);
  EXPECT_EQ(result.failedStarts, 1u);  // "not found" is not tried again
  EXPECT_THAT(result.output, HasSubstr("run: start-failed 2 attempt 1 of 3 "));
  EXPECT_THAT(log.Lines(), ::testing::ElementsAre(::testing::StartsWith("start-failed 2 attempt 1 of 3 ")));
}

TEST(RunProcess, ExitCodeTextSaysNoneWhenThereIsNone) {
  EXPECT_EQ(ExitCodeText(std::nullopt), "none");
  EXPECT_EQ(ExitCodeText(DWORD{0}), "0");
  EXPECT_EQ(ExitCodeText(DWORD{0xC0000135}), "3221225781");
}

}  // namespace
}  // namespace ambrel::test
