// QelSession with its real wrapper over the stand-in installer SDK built by
// the project, in a sandboxed registry with scratch log and program-data folders.
#include "qel_session/QelSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "haldo_sdk/QelHaldoSdkWrapperImpl.h"
#include "tests/qel_session/SessionTestSupport.h"

namespace ambrel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SessionWithSdkTest : public SessionWithStandInSdk {
 protected:
  // A complete registry entry of release 2026 with existing folders; the
  // version folder is returned.
  std::wstring WriteCompleteInstall(const std::wstring& name = L"Shared") {
    return test::WriteCompleteInstall(sandbox_.scratch(), name, L"1.0");
  }

  // Initialize, LockInstallLocation and Uninitialize on a new default
  // session, each expected to answer 0; the location handed out.
  static std::wstring RunWholeConversation() {
    QelSession session;
    EXPECT_EQ(session.Initialize(L"2026"), Success);
    std::wstring location;
    EXPECT_EQ(session.LockInstallLocation(location), Success);
    EXPECT_EQ(session.Uninitialize(), Success);
    return location;
  }

  const Messages& messages() const { return sink_.messages(); }
};

// What the stand-in records for a start, a lock of `lockPath` answered with
// `lockResult`, the unlock and the end.
std::vector<std::string> WholeConversationCalls(const std::string& lockPath, int lockResult = 0) {
  return {"Initialize\tQEL\t2026\tneutral\tnull\t0", "ReleaseMemory\tstandin-session\thanded-out",
          "LockDirectory\tstandin-session\t" + lockPath + "\t" + std::to_string(lockResult),
          "UnLockDirectory\tstandin-session\t" + lockPath + "\t0", "Uninitialize\tstandin-session\t0"};
}

TEST_F(SessionWithSdkTest, WholeConversationLocksAndUnlocksTheVersionFolder) {
  SetSdkLocation(StandInKind::Signed);
  const std::wstring expected = WriteCompleteInstall();
  const std::string lockPath = Narrow(expected) + "\\";

  EXPECT_EQ(RunWholeConversation(), expected);

  EXPECT_THAT(messages(), IsEmpty());
  EXPECT_EQ(sandbox_.sdk().Calls(), WholeConversationCalls(lockPath));
  EXPECT_FALSE(QelHaldoSdkWrapperImpl().IsInitialized());
}

TEST_F(SessionWithSdkTest, NoKeyOfTheSessionIsOpenWhileTheInstallerLocks) {
  SetSdkLocation(StandInKind::Signed);
  const std::wstring expected = WriteCompleteInstall();
  EXPECT_EQ(RunWholeConversation(), expected);  // the system opens what it opens once
  sandbox_.sdk().CountHandles();
  EXPECT_EQ(RunWholeConversation(), expected);
  const auto counts = sandbox_.sdk().HandleCounts();
  ASSERT_EQ(counts.size(), 2u);
  EXPECT_EQ(counts[0].first, "Initialize");
  EXPECT_EQ(counts[1].first, "LockDirectory");
  ASSERT_GT(counts[0].second, 0) << "the handle table cannot be read here";
  // Inside LockDirectory the process holds what it held when the SDK session
  // started: the registry keys the session read are closed by then.
  EXPECT_EQ(counts[1].second, counts[0].second);
}

TEST_F(SessionWithSdkTest, SecondUninitializeOnOneObjectFindsNoSession) {
  SetSdkLocation(StandInKind::Signed);
  const std::wstring expected = WriteCompleteInstall();
  QelSession session;
  EXPECT_EQ(session.Initialize(L"2026"), Success);
  std::wstring location;
  EXPECT_EQ(session.LockInstallLocation(location), Success);
  EXPECT_EQ(session.Uninitialize(), Success);
  EXPECT_THAT(messages(), IsEmpty());
  sandbox_.sdk().ClearCalls();
  EXPECT_EQ(session.Uninitialize(), Success);
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"HALDO SDK wrapper is not initialized"}}));
  EXPECT_THAT(sandbox_.sdk().Calls(true), IsEmpty());
}

// No SDK location in the registry: the wrapper cannot load the SDK (3).
TEST_F(SessionWithSdkTest, SdkStartFailsRegistryComplete) {
  const std::wstring expected = WriteCompleteInstall();
  QelSession session;
  EXPECT_EQ(session.Initialize(L"2026"), Success);
  EXPECT_EQ(messages(), (Messages{{L"WARN", kSdkInitFailed + L"3"}}));

  sink_.clear();
  std::wstring location;
  EXPECT_EQ(session.LockInstallLocation(location), Success);
  EXPECT_EQ(location, expected);
  EXPECT_EQ(messages(), (Messages{{L"WARN", kSdkInitFailed + L"3"}}));

  sink_.clear();
  EXPECT_EQ(session.Uninitialize(), Success);
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"HALDO SDK wrapper is not initialized"}}));
  EXPECT_THAT(sandbox_.sdk().Calls(true), IsEmpty());  // never loaded, so never asked to lock
}

TEST_F(SessionWithSdkTest, UnsignedSdkIsRefusedAndReportedAsMessage2) {
  SetSdkLocation(StandInKind::Unsigned);
  WriteCompleteInstall();
  QelSession session;
  EXPECT_EQ(session.Initialize(L"2026"), Success);
  EXPECT_EQ(messages(), (Messages{{L"WARN", kSdkInitFailed + L"9"}}));
  EXPECT_THAT(sandbox_.sdk().Calls(true), IsEmpty());
}

TEST_F(SessionWithSdkTest, SdkErrorCodesReachTheMessagesWithTheirSign) {
  SetSdkLocation(StandInKind::Signed);
  const std::wstring expected = WriteCompleteInstall();
  sandbox_.sdk().SetResult("LockDirectory", 5);
  sandbox_.sdk().SetResult("UnLockDirectory", -3);
  sandbox_.sdk().SetResult("Uninitialize", -1);

  EXPECT_EQ(RunWholeConversation(), expected);
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"Failed to lock" + expected + L"\\, HALDO SDK wrapper status code : 5"},
                                  {L"WARN", L"Failed to Unlock HALDO SDK wrapper status code:-3"},
                                  {L"WARN", L"Failed to Uninitialize HALDO SDK wrapper status code:-1"}}));
}

TEST_F(SessionWithSdkTest, SdkRefusingToStartIsPassedThrough) {
  SetSdkLocation(StandInKind::Signed);
  WriteCompleteInstall();
  sandbox_.sdk().SetResult("Initialize", -12);
  RunWholeConversation();
  EXPECT_EQ(messages(), (Messages{{L"WARN", kSdkInitFailed + L"-12"},
                                  {L"WARN", kSdkInitFailed + L"-12"},
                                  {L"WARN", L"HALDO SDK wrapper is not initialized"}}));
}

TEST_F(SessionWithSdkTest, MissingLockExportsAreWrapperCode4) {
  SetSdkLocation(StandInKind::NoLockDirectory);
  const std::wstring expected = WriteCompleteInstall();
  EXPECT_EQ(RunWholeConversation(), expected);
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"Failed to lock" + expected + L"\\, HALDO SDK wrapper status code : 4"}}));
}

TEST_F(SessionWithSdkTest, MissingUnlockExportIsMessage15WithCode4) {
  SetSdkLocation(StandInKind::NoUnLockDirectory);
  WriteCompleteInstall();
  RunWholeConversation();
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"Failed to Unlock HALDO SDK wrapper status code:4"}}));
}

TEST_F(SessionWithSdkTest, SecondSessionSharesTheSdkSessionAndSecondUninitializeFindsNone) {
  SetSdkLocation(StandInKind::Signed);
  const std::wstring expected = WriteCompleteInstall();
  QelSession first;
  EXPECT_EQ(first.Initialize(L"2026"), Success);
  {
    QelSession second;
    // The wrapper answers 2 (already held), which counts as usable: no message.
    EXPECT_EQ(second.Initialize(L"2026"), Success);
    std::wstring location;
    EXPECT_EQ(second.LockInstallLocation(location), Success);
    EXPECT_EQ(location, expected);
    EXPECT_EQ(second.Uninitialize(), Success);
    EXPECT_THAT(messages(), IsEmpty());
  }
  EXPECT_EQ(first.Uninitialize(), Success);
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"HALDO SDK wrapper is not initialized"}}));
  const std::string lockPath = Narrow(expected) + "\\";
  EXPECT_EQ(sandbox_.sdk().Calls(), WholeConversationCalls(lockPath));
}

TEST_F(SessionWithSdkTest, BypassedSessionNeverLoadsTheSdk) {
  SetSdkLocation(StandInKind::Signed);
  WriteCompleteInstall();
  sandbox_.env().Set(L"QEL_INITIALIZE_BYPASSED", L"1");
  QelSession session;
  EXPECT_EQ(session.Initialize(L"2026"), InitializeBypassed);
  std::wstring location = L"untouched";
  EXPECT_EQ(session.LockInstallLocation(location), NotInitialized);
  EXPECT_EQ(location, L"untouched");
  EXPECT_EQ(session.Uninitialize(), NotInitialized);
  EXPECT_EQ(messages(), (Messages{{L"INFO", L"Intialize is bypassed"}}));
  EXPECT_THAT(sandbox_.sdk().Calls(true), IsEmpty());
  EXPECT_FALSE(sandbox_.log().LogExists());
}

TEST_F(SessionWithSdkTest, NonAsciiFolderReachesTheSdkAsUtf8) {
  SetSdkLocation(StandInKind::Signed);
  const std::wstring expected = WriteCompleteInstall(L"\u00C5ngstr\u00F6m \u5171\u6709");
  sandbox_.sdk().SetResult("LockDirectory", 6);
  EXPECT_EQ(RunWholeConversation(), expected);
  const std::string lockPath = Narrow(expected) + "\\";
  EXPECT_EQ(sandbox_.sdk().Calls(), WholeConversationCalls(lockPath, 6));
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"Failed to lock" + expected + L"\\, HALDO SDK wrapper status code : 6"}}));
}

}  // namespace
}  // namespace ambrel::test
