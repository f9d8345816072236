#include "qel_loader/Bootstrap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cwctype>
#include <filesystem>
#include <map>
#include <ostream>

#include "Ambrel.h"
#include "qel_loader/InstallQueries.h"
#include "common/TextConvert.h"
#include "tests/qel_loader/FreshProcessTest.h"
#include "tests/qel_loader/HostLayout.h"
#include "tests/qel_session/SessionTestSupport.h"

namespace ambrel {
namespace {

using test::BinFile;
using test::CopyFileTo;
using test::Env;
using test::KalvexIniBesideTheProgram;
using test::kMarker;
using test::kOldPath;
using test::LibraryCopy;
using test::ScratchDir;

using Calls = std::vector<std::string>;
using test::kWholeSession;

// Each case starts in the Fresh state: nothing recorded, no marker, and the
// wrapper's state reset.
class InitializeQelTest : public test::FreshProcessTest {
 protected:
  // The directory field of the stand-in's LockDirectory record, or "".
  std::string LockedDirectory() {
    for (const std::string& line : sandbox.sdk().Calls()) {
      if (line.rfind("LockDirectory\t", 0) == 0) {
        const size_t id = line.find('\t') + 1;
        const size_t dir = line.find('\t', id) + 1;
        return line.substr(dir, line.find('\t', dir) - dir);
      }
    }
    return "";
  }
};

TEST_F(InitializeQelTest, FreshRunPrependsRecordsAndMarks) {
  EXPECT_TRUE(InitializeQel());
  EXPECT_EQ(Env(L"PATH"), sandbox.sharedDir() + L";" + kOldPath);
  EXPECT_EQ(SharedDllPath(), sandbox.sharedDir());
  EXPECT_EQ(Env(kMarker), L"1");
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
  EXPECT_EQ(LockedDirectory(), WideToUtf8(sandbox.sharedDir()) + "\\");
}

TEST_F(InitializeQelTest, DirectoryIsRecordedExactlyAsTheSessionReturnedIt) {
  // The override hands the text on untouched: a trailing separator stays.
  const std::wstring location = sandbox.sharedDir() + L"\\";
  sandbox.OverrideLocation(location);
  EXPECT_TRUE(InitializeQel());
  EXPECT_EQ(SharedDllPath(), location);
  EXPECT_EQ(Env(L"PATH"), location + L";" + kOldPath);
}

TEST_F(InitializeQelTest, SecondCallAfterSuccessReturnsAtOnce) {
  ASSERT_TRUE(InitializeQel());
  sandbox.env().Set(L"PATH", L"C:\\changed");
  sandbox.env().Unset(kMarker);
  sandbox.sdk().ClearCalls();
  EXPECT_TRUE(InitializeQel());
  EXPECT_EQ(Env(L"PATH"), L"C:\\changed") << "PATH is not looked at again";
  EXPECT_EQ(Env(kMarker), std::nullopt);
  EXPECT_TRUE(sandbox.SdkCalls(true).empty()) << "no session";
  EXPECT_EQ(SharedDllPath(), sandbox.sharedDir());
}

TEST_F(InitializeQelTest, MarkerAlreadyPresentWithAnyValueIsBypassed) {
  for (const wchar_t* value : {L"1", L"0", L"anything"}) {
    sandbox.env().Set(kMarker, value);
    EXPECT_TRUE(InitializeQel()) << test::Narrow(value);
    EXPECT_EQ(Env(L"PATH"), kOldPath);
    EXPECT_TRUE(SharedDllPath().empty());
    EXPECT_EQ(Env(kMarker), value);
    EXPECT_TRUE(sandbox.SdkCalls(true).empty()) << "the SDK is never reached, so nothing is unlocked or ended";
  }
}

TEST_F(InitializeQelTest, PathHoldingTheDirectoryInOtherCaseIsLeftAlone) {
  std::wstring lower = sandbox.sharedDir();
  std::transform(lower.begin(), lower.end(), lower.begin(), [](wchar_t c) { return std::towlower(c); });
  ASSERT_NE(lower, sandbox.sharedDir()) << "the folder name must have capitals for this case";
  const std::wstring path = L"C:\\windows;" + lower + L";C:\\Tools";
  sandbox.env().Set(L"PATH", path);
  EXPECT_TRUE(InitializeQel());
  EXPECT_EQ(Env(L"PATH"), path);
  EXPECT_EQ(SharedDllPath(), sandbox.sharedDir());
  EXPECT_EQ(Env(kMarker), L"1");
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
}

TEST_F(InitializeQelTest, PathHoldingTheDirectoryWithATrailingBackslashGetsItPrependedAgain) {
  const std::wstring path = sandbox.sharedDir() + L"\\;C:\\windows";
  sandbox.env().Set(L"PATH", path);
  EXPECT_TRUE(InitializeQel());
  EXPECT_EQ(Env(L"PATH"), sandbox.sharedDir() + L";" + path);
  EXPECT_EQ(SharedDllPath(), sandbox.sharedDir());
}

TEST_F(InitializeQelTest, PathAbsentFailsAndRecordsNothing) {
  sandbox.env().Unset(L"PATH");
  EXPECT_FALSE(InitializeQel());
  EXPECT_EQ(Env(L"PATH"), std::nullopt);
  EXPECT_TRUE(SharedDllPath().empty());
  EXPECT_EQ(Env(kMarker), std::nullopt);
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession) << "the session is still unlocked and ended";
}

TEST_F(InitializeQelTest, FailedRunLeavesTheProcessFreshAndTheNextCallRetries) {
  sandbox.env().Unset(L"PATH");
  ASSERT_FALSE(InitializeQel());
  sandbox.env().Set(L"PATH", kOldPath);
  sandbox.sdk().ClearCalls();
  EXPECT_TRUE(InitializeQel());
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
  EXPECT_EQ(Env(L"PATH"), sandbox.sharedDir() + L";" + kOldPath);
  EXPECT_EQ(SharedDllPath(), sandbox.sharedDir());
}

// A locked location that is not a folder, made in the sandbox's scratch folder.
struct UnusableLocationCase {
  const char* name;
  std::wstring (*make)(const ScratchDir& scratch);
};

// Named in the test list and failure messages by its case name.
void PrintTo(const UnusableLocationCase& c, std::ostream* os) { *os << c.name; }

class UnusableLockedLocationTest : public InitializeQelTest,
                                   public ::testing::WithParamInterface<UnusableLocationCase> {};

TEST_P(UnusableLockedLocationTest, FailsAndTheSessionIsEnded) {
  sandbox.OverrideLocation(GetParam().make(sandbox.scratch()));
  EXPECT_FALSE(InitializeQel());
  ExpectProcessUntouched();
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
}

INSTANTIATE_TEST_SUITE_P(
    Locations, UnusableLockedLocationTest,
    ::testing::Values(UnusableLocationCase{"ADirectoryThatDoesNotExist",
                                           [](const ScratchDir& scratch) { return scratch / L"not-there"; }},
                      UnusableLocationCase{
                          "ARegularFile",
                          [](const ScratchDir& scratch) { return scratch.WriteFile(L"a-file.txt", "not a folder"); }}),
    [](const ::testing::TestParamInfo<UnusableLocationCase>& info) { return info.param.name; });

TEST_F(InitializeQelTest, NoUsableLocationFailsWithoutALockButTheSessionIsEnded) {
  ASSERT_TRUE(::RemoveDirectoryW(sandbox.sharedDir().c_str()));  // the version folder is gone
  EXPECT_FALSE(InitializeQel());
  EXPECT_EQ(Env(L"PATH"), kOldPath);
  EXPECT_EQ(Env(kMarker), std::nullopt);
  EXPECT_EQ(sandbox.SdkCalls(), (Calls{"Initialize", "UnLockDirectory", "Uninitialize"}));
}

TEST_F(InitializeQelTest, FailedLockStillPreparesTheProcess) {
  sandbox.sdk().SetResult("LockDirectory", 5);
  EXPECT_TRUE(InitializeQel());
  EXPECT_EQ(Env(L"PATH"), sandbox.sharedDir() + L";" + kOldPath);
  EXPECT_EQ(SharedDllPath(), sandbox.sharedDir());
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
}

TEST_F(InitializeQelTest, SdkThatDoesNotStartStillLeavesTheRegistryLocationUsable) {
  // The session reports 0 and hands out the registry's folder without a lock;
  // ending finds no SDK session, so nothing is unlocked or ended.
  sandbox.sdk().SetResult("Initialize", 3);
  EXPECT_TRUE(InitializeQel());
  EXPECT_EQ(SharedDllPath(), sandbox.sharedDir());
  EXPECT_EQ(sandbox.SdkCalls(), (Calls{"Initialize"}));
}

TEST_F(InitializeQelTest, UnexpectedFileSystemErrorPropagatesWithoutEndingTheSession) {
  // A raw disk's attributes: Wine answers ERROR_BAD_DEV_TYPE, Windows
  // ERROR_ACCESS_DENIED; neither means "not found".
  sandbox.OverrideLocation(L"\\\\.\\PhysicalDrive0");
  try {
    (void)InitializeQel();
    ADD_FAILURE() << "no exception";
  } catch (const std::filesystem::filesystem_error& error) {
    EXPECT_NE(std::string(error.what()).find("status"), std::string::npos) << error.what();
    EXPECT_EQ(error.path1().wstring(), L"\\\\.\\PhysicalDrive0");
  }
  ExpectProcessUntouched();
  EXPECT_EQ(sandbox.SdkCalls(), (Calls{"Initialize", "LockDirectory"}));
}

TEST_F(InitializeQelTest, AnotherExceptionInsideTheSessionEndsItBeforeItPropagates) {
  ExpectASinkExceptionAtTheLockToEndTheSession([] { return InitializeQel(); });
}

TEST_F(InitializeQelTest, AnExceptionWhileEndingTheSessionGivesWayToTheFirst) {
  // The sink throws on the lock warning, then again on the unlock warning
  // while the session is being ended: the first exception is the one the
  // caller sees, and the SDK session is still ended behind the second one.
  sandbox.sdk().SetResult("LockDirectory", 5);
  sandbox.sdk().SetResult("UnLockDirectory", 5);
  test::ThrowingSink sink(L"Failed to");
  try {
    (void)InitializeQel();
    ADD_FAILURE() << "no exception";
  } catch (const test::SinkFault& fault) {
    EXPECT_EQ(std::string(fault.what()).rfind("Failed to lock", 0), 0u) << fault.what();
  }
  EXPECT_EQ(sink.throws(), 2);
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
  EXPECT_TRUE(SharedDllPath().empty());
}

TEST_F(InitializeQelTest, DevelopmentBuildOnlySetsTheMarker) {
  LibraryCopy development(L"R:\\");
  auto initialize = development.As<bool (*)()>("InitializeQel");
  ASSERT_NE(initialize, nullptr);
  EXPECT_TRUE(initialize());
  EXPECT_EQ(Env(kMarker), L"1");
  EXPECT_EQ(Env(L"PATH"), kOldPath);
  EXPECT_TRUE(sandbox.SdkCalls(true).empty()) << "no session";
  EXPECT_TRUE(sandbox.log().Lines().empty()) << "no session: " << testing::PrintToString(sandbox.log().Lines());
  // The copy's recorded folder has no export of its own to read it by; its
  // only writer is the step that a development build never reaches.
}

TEST_F(InitializeQelTest, EditionAwareEntryDoesNothingOnALiteInstallation) {
  KalvexIniBesideTheProgram ini;
  ASSERT_TRUE(ini.WasAbsent()) << "a Kalvex.ini is already there";
  ASSERT_TRUE(ini.SetEdition(L"KLXLITE"));
  EXPECT_TRUE(InitializeQelForEdition());
  ExpectProcessUntouched();
  EXPECT_TRUE(sandbox.SdkCalls(true).empty());

  // Another edition runs the bootstrap.
  ASSERT_TRUE(ini.SetEdition(L"KLXPRO"));
  EXPECT_TRUE(InitializeQelForEdition());
  EXPECT_EQ(SharedDllPath(), sandbox.sharedDir());
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
}

// ---- child processes ----

class InitializeQelChildTest : public InitializeQelTest {
 protected:
  std::map<std::string, std::string> RunInit() {
    auto lines = host.Run(sandbox, L"init");
    EXPECT_EQ(lines["exit code"], "0") << lines["start"];
    return lines;
  }
  test::HostLayout host;
};

TEST_F(InitializeQelChildTest, ChildStartedAfterASuccessInheritsTheMarkerAndIsBypassed) {
  ASSERT_TRUE(InitializeQel());
  const std::wstring parentPath = *Env(L"PATH");
  sandbox.sdk().ClearCalls();
  auto child = RunInit();
  EXPECT_EQ(child["marker before"], "1");
  EXPECT_EQ(child["init"], "true");
  EXPECT_EQ(child["path before"], test::Narrow(parentPath));
  EXPECT_EQ(child["path after"], test::Narrow(parentPath)) << "the child does not prepend again";
  EXPECT_EQ(child["lookup"], "") << "the child's own lookup is bypassed too";
  EXPECT_TRUE(sandbox.SdkCalls(true).empty()) << "the child never reaches the SDK";
}

TEST_F(InitializeQelChildTest, EmptyPathGetsTheDirectoryAndALoneSemicolon) {
  // The C runtime drops a variable set to "" in-process, so the empty value
  // is handed to a child through the Win32 block, where it survives.
  sandbox.env().Unset(L"PATH");
  ASSERT_TRUE(::SetEnvironmentVariableW(L"PATH", L""));
  auto child = RunInit();
  ASSERT_EQ(child["path before"], "") << "Wine did not pass the empty PATH on";
  EXPECT_EQ(child["init"], "true");
  EXPECT_EQ(child["path after"], test::Narrow(sandbox.sharedDir()) + ";");
  EXPECT_EQ(child["marker after"], "1");
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
}

// ---- the steps over a scripted session ----

// A session whose answers are given and whose calls are recorded, for the
// statuses the real session never produces from Initialize.
struct ScriptedSession {
  QelStatus initializeStatus = QelStatus::Success;
  QelStatus lockStatus = QelStatus::Success;
  std::wstring location;
  bool lockThrows = false;  // LockInstallLocation runs out of memory
  bool endThrows = false;   // so does Uninitialize
  std::vector<std::string> calls;

  QelStatus Initialize(const std::wstring& release) {
    calls.push_back("Initialize " + WideToUtf8(release));
    return initializeStatus;
  }
  QelStatus LockInstallLocation(std::wstring& out) {
    calls.push_back("LockInstallLocation");
    if (lockThrows) throw std::bad_alloc();
    out = location;
    return lockStatus;
  }
  QelStatus Uninitialize() {
    calls.push_back("Uninitialize");
    if (endThrows) throw std::length_error("ending");
    return QelStatus::Success;
  }
};

TEST_F(InitializeQelTest, InitializeStatusOtherThanSuccessAndBypassedFailsWithoutUninitialize) {
  for (QelStatus status : {QelStatus::RegistryReadFailed, QelStatus::NotInitialized, QelStatus::PathNotFound}) {
    ScriptedSession session;
    session.initializeStatus = status;
    session.location = sandbox.sharedDir();
    EXPECT_FALSE(RunBootstrapSession(session)) << status;
    EXPECT_EQ(session.calls, (Calls{"Initialize 2026"}));
    EXPECT_EQ(Env(L"PATH"), kOldPath);
    EXPECT_TRUE(SharedDllPath().empty());
  }
}

TEST_F(InitializeQelTest, BypassedSessionSucceedsWithoutUninitialize) {
  ScriptedSession session;
  session.initializeStatus = QelStatus::InitializeBypassed;
  EXPECT_TRUE(RunBootstrapSession(session));
  EXPECT_EQ(session.calls, (Calls{"Initialize 2026"}));
  EXPECT_EQ(Env(L"PATH"), kOldPath);
}

TEST_F(InitializeQelTest, FailedOrEmptyLocationFailsAndUninitializes) {
  ScriptedSession failed;
  failed.lockStatus = QelStatus::VersionEmpty;
  failed.location = sandbox.sharedDir();
  EXPECT_FALSE(RunBootstrapSession(failed));
  EXPECT_EQ(failed.calls, (Calls{"Initialize 2026", "LockInstallLocation", "Uninitialize"}));

  ScriptedSession empty;
  EXPECT_FALSE(RunBootstrapSession(empty));
  EXPECT_EQ(empty.calls, (Calls{"Initialize 2026", "LockInstallLocation", "Uninitialize"}));
  ExpectProcessUntouched();
}

TEST_F(InitializeQelTest, OutOfMemoryInsideTheSessionEndsItAndPropagates) {
  ScriptedSession session;
  session.location = sandbox.sharedDir();
  session.lockThrows = true;
  EXPECT_THROW((void)RunBootstrapSession(session), std::bad_alloc);
  EXPECT_EQ(session.calls, (Calls{"Initialize 2026", "LockInstallLocation", "Uninitialize"}));
  EXPECT_EQ(Env(L"PATH"), kOldPath);
  EXPECT_TRUE(SharedDllPath().empty());
}

TEST_F(InitializeQelTest, AFailingEndKeepsTheFirstException) {
  ScriptedSession session;
  session.lockThrows = true;
  session.endThrows = true;
  EXPECT_THROW((void)RunBootstrapSession(session), std::bad_alloc);
  EXPECT_EQ(session.calls, (Calls{"Initialize 2026", "LockInstallLocation", "Uninitialize"}));
}

}  // namespace
}  // namespace ambrel
