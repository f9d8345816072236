// The wrapper's two files gone wrong: the log folder missing, the log file
// read-only, held open or replaced by a folder; the self-update lock file
// unreadable, a folder, huge, or holding a 20-digit number. Operations keep
// their results and lines; nothing crashes.
#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "haldo_sdk/QelHaldoSdkWrapperImpl.h"
#include "common/WinResource.h"
#include "tests/haldo_sdk/WrapperTest.h"

namespace ambrel::test {
namespace {

using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

const std::string kDirectory = "C:\\Shared\\1.0\\";

// The four calls of one whole conversation and their results.
std::vector<int> Conversation(QelHaldoSdkWrapperImpl& wrapper) {
  return {wrapper.Initialize("QEL", "2026", "neutral"), wrapper.LockDirectory(kDirectory),
          wrapper.UnLockDirectory(kDirectory), wrapper.Uninitialize()};
}

const std::vector<int> kAllSucceed = {0, 0, 0, 0};

// ---- the log

using LogFaultTest = WrapperTest;

TEST_F(LogFaultTest, MissingFolderWritesNothingAndChangesNoResult) {
  SetSdkLocation(StandInKind::Signed);
  WrapperLogFolder noFolder(false);
  EXPECT_EQ(Conversation(wrapper_), kAllSucceed);
  EXPECT_FALSE(noFolder.LogExists());
  EXPECT_EQ(::GetFileAttributesW((noFolder.localAppData() + L"\\Tavrel").c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_THAT(sandbox_.sdk().Calls(), ::testing::SizeIs(5));  // the SDK was really driven
}

TEST_F(LogFaultTest, FileHeldOpenWithoutSharingWritesNothingAndChangesNoResult) {
  SetSdkLocation(StandInKind::Signed);
  {
    std::ofstream seed(std::filesystem::path(sandbox_.log().LogFile()), std::ios::binary);
    seed << "before\r\n";
  }
  UniqueFileHandle held(::CreateFileW(sandbox_.log().LogFile().c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
  ASSERT_TRUE(held);
  EXPECT_EQ(Conversation(wrapper_), kAllSucceed);
  held.reset();
  EXPECT_EQ(ReadFileBytes(sandbox_.log().LogFile()), "before\r\n");
}

// A read-only file cannot be opened for appending, so nothing is written.
// Wine keeps the attribute in the Unix permissions, which do not stop a
// process running as root (as the test machines do): there the file takes the
// lines like any other. The results are checked either way; "nothing written"
// only where the system refuses the write, as asked of it here first. The
// held-open case above shows the refused open under Wine.
TEST_F(LogFaultTest, ReadOnlyFileChangesNoResult) {
  SetSdkLocation(StandInKind::Signed);
  {
    std::ofstream seed(std::filesystem::path(sandbox_.log().LogFile()), std::ios::binary);
    seed << "before\r\n";
  }
  ASSERT_TRUE(::SetFileAttributesW(sandbox_.log().LogFile().c_str(), FILE_ATTRIBUTE_READONLY));
  const bool refused =
      !UniqueFileHandle(::CreateFileW(sandbox_.log().LogFile().c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  RecordProperty("read_only_file_refused_by_the_system", refused ? "yes" : "no");
  EXPECT_EQ(Conversation(wrapper_), kAllSucceed);
  const std::string after = ReadFileBytes(sandbox_.log().LogFile());
  ::SetFileAttributesW(sandbox_.log().LogFile().c_str(), FILE_ATTRIBUTE_NORMAL);
  if (refused) {
    EXPECT_EQ(after, "before\r\n");
  } else {
    EXPECT_EQ(after.rfind("before\r\n" + kLogSeparator + "\r\n", 0), 0u);
  }
}

TEST_F(LogFaultTest, FolderInPlaceOfTheFileWritesNothingAndChangesNoResult) {
  SetSdkLocation(StandInKind::Signed);
  ASSERT_TRUE(::CreateDirectoryW(sandbox_.log().LogFile().c_str(), nullptr));
  EXPECT_EQ(Conversation(wrapper_), kAllSucceed);
  EXPECT_EQ(::GetFileAttributesW(sandbox_.log().LogFile().c_str()) & FILE_ATTRIBUTE_DIRECTORY,
            FILE_ATTRIBUTE_DIRECTORY);
  EXPECT_EQ(WrapperState().logPath, sandbox_.log().LogFile());
  ::RemoveDirectoryW(sandbox_.log().LogFile().c_str());
}

// A LOCALAPPDATA whose expansion does not fit the 260-character buffer names
// no log: the system leaves a cut-off text there (Wine: the first 259
// characters), which must not be taken for the folder. Here the cut-off text
// is a real folder with Tavrel\HALDO in it, and nothing may land there.
TEST_F(LogFaultTest, LocalAppDataLongerThanTheExpansionBufferNamesNoLog) {
  SetSdkLocation(StandInKind::Signed);
  ScratchDir dir;
  const std::wstring cutOff = dir.path() + L"\\" + std::wstring(MAX_PATH - 1 - dir.path().size() - 1, L'c');
  ASSERT_EQ(cutOff.size(), static_cast<size_t>(MAX_PATH - 1));
  const std::wstring decoyFolder = cutOff + L"\\Tavrel\\HALDO";
  ASSERT_TRUE(::CreateDirectoryW((L"\\\\?\\" + cutOff).c_str(), nullptr));
  ASSERT_TRUE(::CreateDirectoryW((L"\\\\?\\" + cutOff + L"\\Tavrel").c_str(), nullptr));
  ASSERT_TRUE(::CreateDirectoryW((L"\\\\?\\" + decoyFolder).c_str(), nullptr));
  EnvGuard env;
  env.Set(L"LOCALAPPDATA", cutOff + L"more\\Local");

  EXPECT_EQ(Conversation(wrapper_), kAllSucceed);
  EXPECT_EQ(WrapperState().logPath, L"");
  const std::wstring decoyLog = L"\\\\?\\" + decoyFolder + L"\\HALDO_APIWrapper.log";
  EXPECT_EQ(::GetFileAttributesW(decoyLog.c_str()), INVALID_FILE_ATTRIBUTES);
  ::DeleteFileW(decoyLog.c_str());
  ::RemoveDirectoryW((L"\\\\?\\" + decoyFolder).c_str());
  ::RemoveDirectoryW((L"\\\\?\\" + cutOff + L"\\Tavrel").c_str());
  ::RemoveDirectoryW((L"\\\\?\\" + cutOff).c_str());
}

// ---- the self-update lock file

using LockFaultTest = WrapperTest;

std::string OwnProcessId() { return std::to_string(::GetCurrentProcessId()); }

// A lock file that cannot be opened reads as empty content, which names no
// process: the SDK loads.
TEST_F(LockFaultTest, LockHeldOpenWithoutSharingDoesNotBlock) {
  SetSdkLocation(StandInKind::Signed);
  sandbox_.programData().WriteLock(OwnProcessId());
  UniqueFileHandle held(::CreateFileW(sandbox_.programData().LockFile().c_str(), GENERIC_READ, 0, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  ASSERT_TRUE(held);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(SdkPath(StandInKind::Signed))));
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
  // Released, the same file blocks: it was the open that failed, not the id.
  held.reset();
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 8);
}

TEST_F(LockFaultTest, FolderInPlaceOfTheLockDoesNotBlock) {
  SetSdkLocation(StandInKind::Signed);
  sandbox_.programData().WriteLock("");
  sandbox_.programData().RemoveLock();
  ASSERT_TRUE(::CreateDirectoryW(sandbox_.programData().LockFile().c_str(), nullptr));
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(SdkPath(StandInKind::Signed))));
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
  ::RemoveDirectoryW(sandbox_.programData().LockFile().c_str());
}

// 8 MiB: read whole, compared whole, matching nothing.
TEST_F(LockFaultTest, HugeLockFileDoesNotBlock) {
  SetSdkLocation(StandInKind::Signed);
  sandbox_.programData().WriteLock(OwnProcessId() + std::string(8 * 1024 * 1024, '0'));
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(SdkPath(StandInKind::Signed))));
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
}

struct LockRow {
  const char* name;
  std::string (*content)();
  int result;
};

// Twenty digits never name a process: the comparison is of text, so neither
// leading zeros nor a value that wraps to this process's id in 32 bits match.
const LockRow kLockRows[] = {
    {"OwnIdBare", [] { return OwnProcessId(); }, 8},  // the control: this blocks
    {"OwnIdPaddedTo20Digits", [] { return std::string(20 - OwnProcessId().size(), '0') + OwnProcessId(); }, 0},
    {"OwnIdPlusMultipleOf2To32",
     [] {
       const std::uint64_t value = (std::uint64_t{2328306437} << 32) + ::GetCurrentProcessId();
       return std::to_string(value);
     },
     0},
    {"LargestUnsigned64", [] { return std::string("18446744073709551615"); }, 0},
    {"PastUnsigned64", [] { return std::string("99999999999999999999"); }, 0},
};

class LockContentTest : public WrapperTest, public ::testing::WithParamInterface<LockRow> {};

TEST_P(LockContentTest, Initialize) {
  SetSdkLocation(StandInKind::Signed);
  const std::string content = GetParam().content();
  if (GetParam().result == 0) ASSERT_EQ(content.size(), 20u);
  sandbox_.programData().WriteLock(content);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), GetParam().result);
  if (GetParam().result == 8) {
    EXPECT_THAT(sandbox_.log().Messages(),
                ElementsAreArray({kLogSeparator,
                                  std::string("[INFO] HALDOAPIWrapperImpl::Initialize: plc = \"QEL\", release = "
                                              "\"2026\", language = \"neutral\""),
                                  std::string("[INFO] Load: Self-update is running"),
                                  std::string("[ERROR] HALDOAPIWrapperImpl::Initialize: Failed to load SDK! ")}));
    EXPECT_THAT(sandbox_.sdk().Calls(true), IsEmpty());
  } else {
    EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(SdkPath(StandInKind::Signed))));
    EXPECT_EQ(wrapper_.Uninitialize(), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Contents, LockContentTest, ::testing::ValuesIn(kLockRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace ambrel::test
