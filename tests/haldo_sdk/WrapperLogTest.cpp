#include "haldo_sdk/WrapperLog.h"

#include <ctime>

#include "tests/haldo_sdk/WrapperTest.h"

namespace ambrel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

std::string LocalNow() {
  const __time64_t now = _time64(nullptr);
  std::tm local{};
  _localtime64_s(&local, &now);
  char text[32] = {};
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
  return text;
}

using WrapperLogTest = WrapperTest;

TEST_F(WrapperLogTest, LinesEndWithCarriageReturnLineFeedOneBytePerCharacter) {
  EXPECT_EQ(wrapper_.Uninitialize(), 7);
  const std::string bytes = ReadFileBytes(sandbox_.log().LogFile());
  const auto lines = sandbox_.log().Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(bytes, lines[0] + "\r\n" + lines[1] + "\r\n");
  EXPECT_EQ(lines[0], std::string(71, '='));
  EXPECT_TRUE(HasTimestampShape(lines[1])) << lines[1];
}

TEST_F(WrapperLogTest, TimestampIsTheLocalTimeOfTheLine) {
  const std::string before = LocalNow();
  LogWrapperInfo("a message");
  const std::string after = LocalNow();
  const auto lines = sandbox_.log().Lines();
  ASSERT_EQ(lines.size(), 2u);
  ASSERT_TRUE(HasTimestampShape(lines[1]));
  const std::string stamp = lines[1].substr(1, 19);
  EXPECT_LE(before, stamp);
  EXPECT_LE(stamp, after);
  EXPECT_EQ(lines[1].substr(20), "] [INFO] HALDOAPIWrapperImpl::a message");
}

TEST_F(WrapperLogTest, TheThreeEntriesWriteTheirPrefixes) {
  LogWrapperInfo("Info text");
  LogWrapperError("Error text");
  WriteWrapperLogLine(L"[INFO] Load: own prefix");
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAre(kLogSeparator, "[INFO] HALDOAPIWrapperImpl::Info text",
                          "[ERROR] HALDOAPIWrapperImpl::Error text", "[INFO] Load: own prefix"));
}

TEST_F(WrapperLogTest, OpenStepRecomputesThePathAndWritesASeparator) {
  OpenWrapperLog();
  EXPECT_EQ(WrapperState().logPath, sandbox_.log().localAppData() + L"\\Tavrel\\HALDO\\HALDO_APIWrapper.log");
  OpenWrapperLog();
  EXPECT_THAT(sandbox_.log().Lines(), ElementsAre(kLogSeparator, kLogSeparator));
}

TEST_F(WrapperLogTest, ExistingContentIsKept) {
  {
    std::string existing = "earlier line\r\n";
    std::FILE* file = _wfopen(sandbox_.log().LogFile().c_str(), L"wb");
    ASSERT_NE(file, nullptr);
    std::fwrite(existing.data(), 1, existing.size(), file);
    std::fclose(file);
  }
  EXPECT_EQ(wrapper_.Uninitialize(), 7);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAre("<bad timestamp> earlier line", kLogSeparator,
                                                     "[ERROR] HALDOAPIWrapperImpl::Uninitialize: Not initialized!"));
}

TEST_F(WrapperLogTest, LinesAreWrittenWhileAnotherProcessHoldsTheFileOpen) {
  LogWrapperInfo("first");
  // Another writer and reader, sharing as the log itself does.
  const HANDLE other = ::CreateFileW(sandbox_.log().LogFile().c_str(), GENERIC_READ | GENERIC_WRITE,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(other, INVALID_HANDLE_VALUE);
  LogWrapperInfo("second");
  ::CloseHandle(other);
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAre(kLogSeparator, "[INFO] HALDOAPIWrapperImpl::first", "[INFO] HALDOAPIWrapperImpl::second"));
}

TEST_F(WrapperLogTest, NoFileIsKeptOpenBetweenLines) {
  LogWrapperInfo("line");
  // An exclusive open succeeds only when nobody else holds the file.
  const HANDLE exclusive = ::CreateFileW(sandbox_.log().LogFile().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                         OPEN_EXISTING, 0, nullptr);
  EXPECT_NE(exclusive, INVALID_HANDLE_VALUE);
  if (exclusive != INVALID_HANDLE_VALUE) ::CloseHandle(exclusive);
}

TEST_F(WrapperLogTest, MissingLogFolderWritesNothingAndChangesNoResult) {
  WrapperLogFolder bare(false);
  SetSdkLocation(StandInKind::Signed);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_EQ(wrapper_.LockDirectory("C:\\Qel"), 0);
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
  EXPECT_EQ(wrapper_.Uninitialize(), 7);
  EXPECT_FALSE(bare.LogExists());
  EXPECT_EQ(::GetFileAttributesW((bare.localAppData() + L"\\Tavrel").c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_FALSE(sandbox_.log().LogExists());  // nor anywhere else
  EXPECT_THAT(sandbox_.sdk().Calls(),
              ElementsAre("Initialize\tQEL\t2026\tneutral\tnull\t0", "ReleaseMemory\tstandin-session\thanded-out",
                          "LockDirectory\tstandin-session\tC:\\Qel\t0", "Uninitialize\tstandin-session\t0"));
}

TEST_F(WrapperLogTest, UnsetLocalAppDataChangesNoResult) {
  EnvGuard env;
  env.Unset(L"LOCALAPPDATA");
  SetSdkLocation(StandInKind::Signed);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
  // The variable stays unexpanded in the path, which names no existing folder.
  EXPECT_EQ(WrapperState().logPath, L"%LOCALAPPDATA%\\Tavrel\\HALDO\\HALDO_APIWrapper.log");
  EXPECT_FALSE(sandbox_.log().LogExists());
}

TEST_F(WrapperLogTest, ChangedLocalAppDataTakesEffectAtTheNextInitialize) {
  SetSdkLocation(StandInKind::Signed);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  WrapperLogFolder second;
  // Until the next Initialize, lines still go to the first log.
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
  EXPECT_FALSE(second.LogExists());
  EXPECT_EQ(sandbox_.log().Messages().back(),
            "[INFO] HALDOAPIWrapperImpl::Initialize: HALDO SDK unloaded successfully");
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_THAT(second.Messages(), ElementsAreArray(SuccessfulInitializeLines(SdkPath(StandInKind::Signed))));
}

TEST_F(WrapperLogTest, LineWriterOpensTheLogWhenNoPathIsKnown) {
  ASSERT_TRUE(WrapperState().logPath.empty());
  WriteWrapperLogLine(L"[ERROR] VerifyCertificate failed!");
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAre(kLogSeparator, "[ERROR] VerifyCertificate failed!"));
}

TEST_F(WrapperLogTest, TimeThatCannotBeConvertedGivesAnEmptyTimestamp) {
  // _localtime64_s refuses negative times; the record then begins with "[] ".
  EXPECT_EQ(FormatLogTimestamp(-1), L"");
  const std::wstring stamp = FormatLogTimestamp(0);
  EXPECT_TRUE(HasTimestampShape("[" + Narrow(stamp) + "] ")) << Narrow(stamp);
}

TEST_F(WrapperLogTest, CharactersBeyondOneByteBecomeQuestionMarksAndTheLineStaysWhole) {
  // Latin-1 characters keep their byte; anything above, including narrow bytes
  // widened by sign extension (0xE9 -> U+FFE9), is written as '?'.
  WriteWrapperLogLine(L"[INFO] Load: HALDO SDK path = C:\\Jos\u00e9\\\u0416\\sdk.dll");
  LogWrapperInfo("caf\xE9");
  LogWrapperInfo("next");
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAre(kLogSeparator, "[INFO] Load: HALDO SDK path = C:\\Jos\xE9\\?\\sdk.dll",
                          "[INFO] HALDOAPIWrapperImpl::caf?", "[INFO] HALDOAPIWrapperImpl::next"));
}

TEST_F(WrapperLogTest, EveryCharacterUpToU00FFIsItsOwnByteAndU0100IsTheFirstQuestionMark) {
  // The edges of what a line keeps as its byte: U+0080 and U+00FF are written
  // as 0x80 and 0xFF, U+0100 already as '?'.
  WriteWrapperLogLine(L"[INFO] Load: HALDO SDK path = \x7F\x80\xA0\xFF\x100\xFFFF|");
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAre(kLogSeparator,
                                                     "[INFO] Load: HALDO SDK path = \x7F\x80\xA0\xFF?"
                                                     "?|"));
}

}  // namespace
}  // namespace ambrel::test
