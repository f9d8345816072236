// QelSession::Uninitialize, the registry keys each path gives back, and the codes without a sink.
#include "qel_session/QelSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/qel_session/SessionTestSupport.h"
#include "tests/support/HandleCount.h"

namespace ambrel::test {
namespace {

using ::testing::InSequence;
using ::testing::Return;

// ---- Uninitialize ----

TEST_F(SessionTest, FailedUnlockAndUninitializeAreMessages15And16) {
  const std::wstring expected = WriteCompleteInstall();
  Initialized(0);
  LockExpecting(expected);
  {
    InSequence order;
    EXPECT_CALL(*wrapper_, IsInitialized()).WillOnce(Return(true));
    EXPECT_CALL(*wrapper_, UnLockDirectory(Narrow(expected) + "\\")).WillOnce(Return(4));
    EXPECT_CALL(*wrapper_, Uninitialize()).WillOnce(Return(-1));
  }
  EXPECT_EQ(session().Uninitialize(), Success);
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"Failed to Unlock HALDO SDK wrapper status code:4"},
                                  {L"WARN", L"Failed to Uninitialize HALDO SDK wrapper status code:-1"}}));
  // Neither result replaced the SDK status the session holds.
  EXPECT_EQ(SdkStatusShownByTheNextLock(), L"0");
}

TEST_F(SessionTest, UnlockWithoutALocationIsALoneBackslash) {
  Initialized(0);
  {
    InSequence order;
    EXPECT_CALL(*wrapper_, IsInitialized()).WillOnce(Return(true));
    EXPECT_CALL(*wrapper_, UnLockDirectory("\\")).WillOnce(Return(0));
    EXPECT_CALL(*wrapper_, Uninitialize()).WillOnce(Return(0));
  }
  EXPECT_EQ(session().Uninitialize(), Success);
  EXPECT_TRUE(messages().empty());
}

TEST_F(SessionTest, UnlockFollowsAFailedLock) {
  const std::wstring expected = WriteCompleteInstall();
  Initialized(0);
  LockExpecting(expected, 5);
  EXPECT_CALL(*wrapper_, IsInitialized()).WillOnce(Return(true));
  EXPECT_CALL(*wrapper_, UnLockDirectory(Narrow(expected) + "\\")).WillOnce(Return(0));
  EXPECT_CALL(*wrapper_, Uninitialize()).WillOnce(Return(0));
  EXPECT_EQ(session().Uninitialize(), Success);
  EXPECT_EQ(SdkStatusShownByTheNextLock(), L"5");
}

// ---- registry key handles ----

long CountOwnHandles() { return static_cast<long>(CountProcessHandles()); }

// Handles the second of two identical ReadInstallLocation calls leaves behind
// (the first warms up whatever the system opens once).
long HandlesLeftByReadInstallLocation(QelSession& session) {
  (void)session.ReadInstallLocation(L"2026");
  const long before = CountOwnHandles();
  (void)session.ReadInstallLocation(L"2026");
  const long after = CountOwnHandles();
  if (before < 0 || after < 0) return -1000;
  return after - before;
}

TEST_F(SessionTest, KeyStaysOpenOnTheThreeDeliberatePaths) {
  ASSERT_GT(CountOwnHandles(), 0) << "the handle table cannot be read here";
  const std::wstring installPath = dir_.MakeDir(L"Shared");

  WriteRegistry(dir_ / L"absent", L"1.0");  // missing install folder
  EXPECT_EQ(HandlesLeftByReadInstallLocation(session()), 1);
  WriteRegistry(installPath, L"");  // empty Version
  EXPECT_EQ(HandlesLeftByReadInstallLocation(session()), 1);
  WriteRegistry(installPath, L"9.9");  // missing version folder
  EXPECT_EQ(HandlesLeftByReadInstallLocation(session()), 1);
}

TEST_F(SessionTest, KeyIsClosedOnEveryOtherPath) {
  ASSERT_GT(CountOwnHandles(), 0) << "the handle table cannot be read here";
  const std::wstring installPath = dir_.MakeDir(L"Shared");
  dir_.MakeDir(L"Shared\\1.0");

  WriteRegistry(installPath, L"1.0");  // found
  EXPECT_EQ(HandlesLeftByReadInstallLocation(session()), 0);
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"Version", std::wstring(130, L'v'));
  EXPECT_EQ(HandlesLeftByReadInstallLocation(session()), 0);  // Version unreadable
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"InstallPath", std::wstring(130, L'i'));
  EXPECT_EQ(HandlesLeftByReadInstallLocation(session()), 0);  // InstallPath unreadable

  // The override path of the registry step and both outcomes of the override step.
  WriteRegistry(installPath, L"1.0", 1);
  env_.Set(L"QEL_PATH_2026", L"D:\\Override\\Folder");
  Initialized(0);
  ASSERT_EQ(session().GetPathOverride(L"2026"), Success);
  EXPECT_EQ(HandlesLeftByReadInstallLocation(session()), 0);
  long before = CountOwnHandles();
  EXPECT_EQ(session().GetPathOverride(L"2026"), Success);
  env_.Unset(L"QEL_PATH_2026");
  EXPECT_EQ(session().GetPathOverride(L"2026"), PathNotFound);
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 2);
  EXPECT_EQ(session().GetPathOverride(L"2026"), NoPathOverride);
  EXPECT_EQ(CountOwnHandles(), before);
}

// ---- no sink ----

TEST_F(SessionTest, WithoutASinkTheCodesAreTheSame) {
  const QelSessionLogSink previous = SetQelSessionLogSink(nullptr);
  WriteRegistry(dir_.MakeDir(L"Shared"), L"");
  Initialized(3);
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), VersionEmpty);
  EXPECT_CALL(*wrapper_, IsInitialized()).WillOnce(Return(false));
  EXPECT_EQ(session().Uninitialize(), Success);
  EXPECT_EQ(SetQelSessionLogSink(previous), nullptr);
  EXPECT_TRUE(messages().empty());
}

}  // namespace
}  // namespace ambrel::test
