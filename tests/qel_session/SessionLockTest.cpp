// QelSession::LockInstallLocation: the normal road, failed locks and the environment override.
#include "qel_session/QelSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "tests/qel_session/SessionTestSupport.h"

namespace ambrel::test {
namespace {

using ::testing::_;
using ::testing::InSequence;
using ::testing::Return;

// ---- the normal road ----

TEST_F(SessionTest, LocksTheVersionFolderWithATrailingBackslashAndUnlocksIt) {
  const std::wstring expected = WriteCompleteInstall();
  Initialized(0);
  const std::string lockPath = Narrow(expected) + "\\";
  {
    InSequence order;
    EXPECT_CALL(*wrapper_, LockDirectory(lockPath)).WillOnce(Return(0));
    EXPECT_CALL(*wrapper_, IsInitialized()).WillOnce(Return(true));
    EXPECT_CALL(*wrapper_, UnLockDirectory(lockPath)).WillOnce(Return(0));
    EXPECT_CALL(*wrapper_, Uninitialize()).WillOnce(Return(0));
  }
  std::wstring location = L"replaced";
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, expected);
  // The in-sequence unlock of the same folder shows what the session kept.
  EXPECT_EQ(session().Uninitialize(), Success);
  EXPECT_TRUE(messages().empty());
}

TEST_F(SessionTest, MissingOverrideSwitchIsMessage10ThenTheRegistryDecides) {
  const std::wstring expected = WriteCompleteInstall(std::nullopt);
  Initialized(0);
  LockExpecting(expected);
  EXPECT_EQ(messages(), (Messages{{L"FATAL", kNoCustomPath}}));
}

TEST_F(SessionTest, InstallPathEndingInABackslashGetsASecondOne) {
  const std::wstring installPath = dir_.MakeDir(L"Shared") + L"\\";
  dir_.MakeDir(L"Shared\\1.0");
  WriteRegistry(installPath, L"1.0");
  Initialized(0);
  const std::wstring expected = installPath + L"\\1.0";
  LockExpecting(expected);
}

// ---- LockDirectory failures ----

TEST_F(SessionTest, FailedLockIsMessage13AndStillHandsOutTheLocation) {
  const std::wstring expected = WriteCompleteInstall();
  Initialized(0);
  LockExpecting(expected, 5);
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"Failed to lock" + expected + L"\\, HALDO SDK wrapper status code : 5"}}));
  // The lock's result replaced the start's: the next attempt shows it.
  EXPECT_EQ(SdkStatusShownByTheNextLock(), L"5");
}

TEST_F(SessionTest, Message13RenderingForAnOverrideLocation) {
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 1);
  env_.Set(L"QEL_PATH_2026", L"D:\\Shared\\2026.1");
  Initialized(0);
  LockExpecting(L"D:\\Shared\\2026.1", 3);  // an override is never tested for existence
  EXPECT_EQ(messages(),
            (Messages{{L"INFO", L"EnablePathOverride is set to 1"},
                      {L"WARN", L"Failed to lockD:\\Shared\\2026.1\\, HALDO SDK wrapper status code : 3"}}));
}

TEST_F(SessionTest, LocationEndingInABackslashIsLockedWithASecondOne) {
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 1);
  env_.Set(L"QEL_PATH_2026", L"D:\\Shared\\");
  Initialized(0);
  LockExpecting(L"D:\\Shared\\");
}

TEST_F(SessionTest, FailedLockStatusStopsASecondLock) {
  const std::wstring expected = WriteCompleteInstall();
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory(_)).WillOnce(Return(-5));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  sink_.clear();
  // sdkStatus now holds the lock result, which is not a usable session.
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, expected);
  EXPECT_EQ(messages(), (Messages{{L"WARN", kSdkInitFailed + L"-5"}}));
}

// ---- override ----

TEST_F(SessionTest, ShortOverrideIsMessages12And3AndAnEmptyLocation) {
  WriteCompleteInstall(1);
  env_.Set(L"QEL_PATH_2026", L"D:\\x");
  Initialized(0);
  std::wstring location = L"replaced";
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, L"");
  // Message 3 although the SDK session is fine: the location was unusable.
  EXPECT_EQ(messages(), (Messages{{L"INFO", L"EnablePathOverride is set to 1"},
                                  {L"ERROR", kPathIncorrect + L"D:\\x"},
                                  {L"WARN", kSdkInitFailed + L"0"}}));
  // The session keeps the short folder (it is what Uninitialize unlocks), and
  // takes the override as having named it: switched off, the override leaves
  // the registry step at InstallPath alone.
  EXPECT_EQ(HeldFolder(), L"D:\\x");
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 0);
  const std::wstring installPath = dir_ / L"Shared";
  LockExpecting(installPath);
}

TEST_F(SessionTest, Message12RenderingForADriveRoot) {
  WriteCompleteInstall(1);
  env_.Set(L"QEL_PATH_2026", L"D:\\");
  Initialized(2);
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, L"");
  ASSERT_EQ(messages().size(), 3u);
  EXPECT_EQ(messages()[1], (Message{L"ERROR",
                                    L"The Install Location Path is Incorrect"
                                    L"D:\\"}));
  EXPECT_EQ(messages()[2], (Message{L"WARN", kSdkInitFailed + L"2"}));
}

TEST_F(SessionTest, FiveCharacterOverrideIsUsable) {
  WriteCompleteInstall(1);
  env_.Set(L"QEL_PATH_2026", L"D:\\ab");
  Initialized(0);
  LockExpecting(L"D:\\ab");
  EXPECT_EQ(messages(), (Messages{{L"INFO", L"EnablePathOverride is set to 1"}}));
}

TEST_F(SessionTest, OverrideTakenAsItStandsWithoutExistenceCheck) {
  WriteCompleteInstall(1);
  const std::wstring value = L"  Z:\\nowhere\\at all  ";
  env_.Set(L"QEL_PATH_2026", value);
  Initialized(0);
  LockExpecting(value);
}

TEST_F(SessionTest, EnabledOverrideWithoutVariableFallsBackToTheRegistry) {
  const std::wstring expected = WriteCompleteInstall(1);
  Initialized(0);
  LockExpecting(expected);
  EXPECT_EQ(messages(), (Messages{{L"INFO", L"EnablePathOverride is set to 1"}}));
  // Not taken as overridden: switched off, the override leaves the registry
  // step reading Version as before.
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 0);
  LockExpecting(expected);
}

TEST_F(SessionTest, EnabledOverrideWithoutVariableTakesTheRegistryResultWhateverItIs) {
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 1);
  Initialized(0);
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), RegistryReadFailed);
  EXPECT_EQ(messages(), (Messages{{L"INFO", L"EnablePathOverride is set to 1"},
                                  {L"FATAL", L"Failed to read InstallPath registry entry"},
                                  {L"WARN", kSdkInitFailed + L"0"}}));
}

class OverrideSwitchTest : public SessionTest, public ::testing::WithParamInterface<DWORD> {};

TEST_P(OverrideSwitchTest, OnlyExactlyOneEnablesTheOverride) {
  const std::wstring expected = WriteCompleteInstall(GetParam());
  env_.Set(L"QEL_PATH_2026", L"D:\\Override\\Folder");
  Initialized(0);
  LockExpecting(expected);
  EXPECT_TRUE(messages().empty());
}

INSTANTIATE_TEST_SUITE_P(Values, OverrideSwitchTest, ::testing::Values(0u, 2u, 0x101u, 0xFFFFFFFFu));

TEST_F(SessionTest, OverrideSwitchOfAnotherTypeIsReadByItsBytes) {
  const std::wstring expected = WriteCompleteInstall(std::nullopt);
  // Four bytes of REG_BINARY holding 1: accepted, the type is not asked.
  const DWORD one = 1;
  RegistrySandbox::SetRaw(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", REG_BINARY, &one, 4);
  EXPECT_EQ(session().GetPathOverride(L"2026"), PathNotFound);
  EXPECT_EQ(messages(), (Messages{{L"INFO", L"EnablePathOverride is set to 1"}}));

  // Data longer than four bytes cannot be read: message 10.
  sink_.clear();
  const unsigned long long big = 1;
  RegistrySandbox::SetRaw(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", REG_QWORD, &big, 8);
  EXPECT_EQ(session().GetPathOverride(L"2026"), NoPathOverride);
  EXPECT_EQ(messages(), (Messages{{L"FATAL", kNoCustomPath}}));
  (void)expected;
}

}  // namespace
}  // namespace ambrel::test
