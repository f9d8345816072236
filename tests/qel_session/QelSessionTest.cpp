// QelSession driven through a test double of the wrapper, against a sandboxed
// registry and scratch folders.
#include "qel_session/QelSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <type_traits>

#include "haldo_sdk/QelHaldoSdkWrapperImpl.h"
#include "tests/qel_session/SessionTestSupport.h"

namespace ambrel::test {
namespace {

using ::testing::_;
using ::testing::InSequence;
using ::testing::Return;
using ::testing::StrictMock;

class SessionTest : public ::testing::Test {
 protected:
  SessionTest() {
    env_.Unset(L"QEL_INITIALIZE_BYPASSED");
    env_.Unset(L"QEL_PATH_2026");
    auto mock = std::make_unique<StrictMock<MockWrapper>>(&wrapperDestroyed_);
    wrapper_ = mock.get();
    session_ = std::make_unique<QelSession>(std::move(mock));
  }

  // InstallPath, Version and (unless nullopt) EnablePathOverride of release 2026.
  static void WriteRegistry(const std::wstring& installPath, const std::wstring& version,
                            std::optional<DWORD> enableOverride = 0) {
    RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"InstallPath", installPath);
    RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"Version", version);
    if (enableOverride)
      RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", *enableOverride);
  }

  // An existing install folder with an existing version folder "1.0".
  std::wstring WriteCompleteInstall(std::optional<DWORD> enableOverride = 0) {
    const std::wstring installPath = dir_.MakeDir(L"Shared");
    dir_.MakeDir(L"Shared\\1.0");
    WriteRegistry(installPath, L"1.0", enableOverride);
    return installPath + L"\\1.0";
  }

  // Initialize with the wrapper answering `sdkStatus`.
  void Initialized(int sdkStatus = 0) {
    EXPECT_CALL(*wrapper_, Initialize("QEL", "2026", "neutral")).WillOnce(Return(sdkStatus));
    ASSERT_EQ(session_->Initialize(L"2026"), Success);
  }

  QelSession& session() { return *session_; }
  const Messages& messages() const { return sink_.messages(); }

  RegistrySandbox sandbox_;
  EnvGuard env_;
  ScratchDir dir_;
  SinkCapture sink_;
  bool wrapperDestroyed_ = false;
  StrictMock<MockWrapper>* wrapper_ = nullptr;
  std::unique_ptr<QelSession> session_;
};

const std::wstring kSdkInitFailed = L"Failed to intialize HALDO SDK wrapper status code:";
const std::wstring kNoCustomPath = L"There is no custom path set";
const std::wstring kPathIncorrect = L"The Install Location Path is Incorrect";

std::wstring ErrorTextOk() { return SystemErrorText(ERROR_SUCCESS); }

// ---- construction ----

TEST(SessionFields, InitialValuesOfTheDefaultConstructor) {
  QelSession session;
  EXPECT_TRUE(QelSessionInspector::CustomRegistryKey(session).empty());
  EXPECT_EQ(QelSessionInspector::RegistryRoot(session), HKEY_LOCAL_MACHINE);
  EXPECT_TRUE(QelSessionInspector::InstallLocation(session).empty());
  EXPECT_TRUE(QelSessionInspector::Release(session).empty());
  EXPECT_FALSE(QelSessionInspector::PathOverridden(session));
  EXPECT_TRUE(QelSessionInspector::ProductLineCode(session).empty());
  EXPECT_NE(dynamic_cast<QelHaldoSdkWrapperImpl*>(QelSessionInspector::Wrapper(session)), nullptr);
  EXPECT_EQ(QelSessionInspector::SdkStatus(session), 7);
}

TEST(SessionFields, AreLaidOutInDeclarationOrder) {
  QelSession session;
  const std::vector<const void*> addresses = QelSessionInspector::FieldAddresses(session);
  for (size_t i = 1; i < addresses.size(); ++i)
    EXPECT_TRUE(std::less<const void*>()(addresses[i - 1], addresses[i])) << "field " << i;
}

TEST(SessionFields, NotCopyableAndNoVirtualOperations) {
  EXPECT_FALSE(std::is_copy_constructible_v<QelSession>);
  EXPECT_FALSE(std::is_copy_assignable_v<QelSession>);
  EXPECT_FALSE(std::is_polymorphic_v<QelSession>);
}

TEST_F(SessionTest, DestructorDeletesTheWrapperAndCallsNoSdkOperation) {
  // The strict double fails the test on any call.
  session_.reset();
  EXPECT_TRUE(wrapperDestroyed_);
  EXPECT_TRUE(messages().empty());
}

TEST_F(SessionTest, FreshSessionAnswersNotInitialized) {
  std::wstring location = L"untouched";
  EXPECT_EQ(session().LockInstallLocation(location), NotInitialized);
  EXPECT_EQ(location, L"untouched");
  EXPECT_EQ(session().Uninitialize(), NotInitialized);
  EXPECT_TRUE(messages().empty());
}

// ---- Initialize ----

class BypassTest : public SessionTest, public ::testing::WithParamInterface<const wchar_t*> {};

TEST_P(BypassTest, AnyValueBypassesWithoutTouchingTheWrapper) {
  WriteCompleteInstall();
  env_.Set(L"QEL_INITIALIZE_BYPASSED", GetParam());
  EXPECT_EQ(session().Initialize(L"2026"), InitializeBypassed);
  EXPECT_EQ(messages(), (Messages{{L"INFO", L"Intialize is bypassed"}}));
  EXPECT_TRUE(QelSessionInspector::Release(session()).empty());
  EXPECT_TRUE(QelSessionInspector::ProductLineCode(session()).empty());
  EXPECT_EQ(QelSessionInspector::SdkStatus(session()), 7);

  std::wstring location = L"untouched";
  EXPECT_EQ(session().LockInstallLocation(location), NotInitialized);
  EXPECT_EQ(location, L"untouched");
  EXPECT_EQ(session().Uninitialize(), NotInitialized);
  EXPECT_EQ(messages().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Values, BypassTest, ::testing::Values(L"1", L"0", L"no", L" "));

TEST_F(SessionTest, InitializeStartsTheSdkForQelNeutralAndTheRelease) {
  EXPECT_CALL(*wrapper_, Initialize("QEL", "2026", "neutral")).WillOnce(Return(0));
  EXPECT_EQ(session().Initialize(L"2026"), Success);
  EXPECT_EQ(QelSessionInspector::Release(session()), L"2026");
  EXPECT_EQ(QelSessionInspector::ProductLineCode(session()), "QEL");
  EXPECT_EQ(QelSessionInspector::SdkStatus(session()), 0);
  EXPECT_TRUE(messages().empty());
}

TEST_F(SessionTest, InitializeHandsTheReleaseOverAsUtf8) {
  EXPECT_CALL(*wrapper_, Initialize("QEL", "2026-\xC3\xA9\xE8\xB7\xAF", "neutral")).WillOnce(Return(0));
  EXPECT_EQ(session().Initialize(L"2026-\u00E9\u8DEF"), Success);
}

TEST_F(SessionTest, SessionAlreadyHeldCountsAsStarted) {
  Initialized(2);
  EXPECT_EQ(QelSessionInspector::SdkStatus(session()), 2);
  EXPECT_TRUE(messages().empty());
}

TEST_F(SessionTest, FailedSdkStartStillSucceedsWithMessage2) {
  Initialized(3);
  EXPECT_EQ(QelSessionInspector::SdkStatus(session()), 3);
  // The rendering for code 3: the colon directly followed by the digit.
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"Failed to intialize HALDO SDK wrapper status code:3"}}));
}

TEST_F(SessionTest, NegativeSdkStartCodeIsPrintedWithItsSign) {
  Initialized(-2147483647 - 1);
  EXPECT_EQ(messages(), (Messages{{L"WARN", kSdkInitFailed + L"-2147483648"}}));
}

// ---- edge case: the SDK start fails while the registry is complete ----

TEST_F(SessionTest, SdkStartFailsRegistryComplete) {
  const std::wstring expected = WriteCompleteInstall();
  Initialized(3);
  sink_.clear();

  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);  // no LockDirectory: the strict double would fail
  EXPECT_EQ(location, expected);
  // Message 3 with a usable location: the SDK session is what is missing.
  EXPECT_EQ(messages(), (Messages{{L"WARN", kSdkInitFailed + L"3"}}));

  sink_.clear();
  EXPECT_CALL(*wrapper_, IsInitialized()).WillOnce(Return(false));
  EXPECT_EQ(session().Uninitialize(), Success);
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"HALDO SDK wrapper is not initialized"}}));
}

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
  EXPECT_EQ(QelSessionInspector::InstallLocation(session()), expected);
  EXPECT_EQ(QelSessionInspector::SdkStatus(session()), 0);
  EXPECT_FALSE(QelSessionInspector::PathOverridden(session()));
  EXPECT_EQ(session().Uninitialize(), Success);
  EXPECT_TRUE(messages().empty());
}

TEST_F(SessionTest, MissingOverrideSwitchIsMessage10ThenTheRegistryDecides) {
  const std::wstring expected = WriteCompleteInstall(std::nullopt);
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory(Narrow(expected) + "\\")).WillOnce(Return(0));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, expected);
  EXPECT_EQ(messages(), (Messages{{L"FATAL", kNoCustomPath}}));
}

TEST_F(SessionTest, InstallPathEndingInABackslashGetsASecondOne) {
  const std::wstring installPath = dir_.MakeDir(L"Shared") + L"\\";
  dir_.MakeDir(L"Shared\\1.0");
  WriteRegistry(installPath, L"1.0");
  Initialized(0);
  const std::wstring expected = installPath + L"\\1.0";
  EXPECT_CALL(*wrapper_, LockDirectory(Narrow(expected) + "\\")).WillOnce(Return(0));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, expected);
}

// ---- LockDirectory failures ----

TEST_F(SessionTest, FailedLockIsMessage13AndStillHandsOutTheLocation) {
  const std::wstring expected = WriteCompleteInstall();
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory(Narrow(expected) + "\\")).WillOnce(Return(5));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, expected);
  EXPECT_EQ(QelSessionInspector::SdkStatus(session()), 5);
  EXPECT_EQ(messages(),
            (Messages{{L"WARN", L"Failed to lock" + expected + L"\\, HALDO SDK wrapper status code : 5"}}));
}

TEST_F(SessionTest, Message13RenderingForAnOverrideLocation) {
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 1);
  env_.Set(L"QEL_PATH_2026", L"D:\\Shared\\2026.1");
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory("D:\\Shared\\2026.1\\")).WillOnce(Return(3));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, L"D:\\Shared\\2026.1");  // an override is never tested for existence
  EXPECT_EQ(messages(), (Messages{{L"INFO", L"EnablePathOverride is set to 1"},
                                  {L"WARN", L"Failed to lockD:\\Shared\\2026.1\\, HALDO SDK wrapper status code : 3"}}));
}

TEST_F(SessionTest, LocationEndingInABackslashIsLockedWithASecondOne) {
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 1);
  env_.Set(L"QEL_PATH_2026", L"D:\\Shared\\");
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory("D:\\Shared\\\\")).WillOnce(Return(0));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, L"D:\\Shared\\");
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
  EXPECT_EQ(QelSessionInspector::InstallLocation(session()), L"D:\\x");
  EXPECT_TRUE(QelSessionInspector::PathOverridden(session()));
  // Message 3 although the SDK session is fine: the location was unusable.
  EXPECT_EQ(messages(), (Messages{{L"INFO", L"EnablePathOverride is set to 1"},
                                  {L"ERROR", kPathIncorrect + L"D:\\x"},
                                  {L"WARN", kSdkInitFailed + L"0"}}));
}

TEST_F(SessionTest, Message12RenderingForADriveRoot) {
  WriteCompleteInstall(1);
  env_.Set(L"QEL_PATH_2026", L"D:\\");
  Initialized(2);
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, L"");
  ASSERT_EQ(messages().size(), 3u);
  EXPECT_EQ(messages()[1], (Message{L"ERROR", L"The Install Location Path is Incorrect" L"D:\\"}));
  EXPECT_EQ(messages()[2], (Message{L"WARN", kSdkInitFailed + L"2"}));
}

TEST_F(SessionTest, FiveCharacterOverrideIsUsable) {
  WriteCompleteInstall(1);
  env_.Set(L"QEL_PATH_2026", L"D:\\ab");
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory("D:\\ab\\")).WillOnce(Return(0));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, L"D:\\ab");
  EXPECT_EQ(messages(), (Messages{{L"INFO", L"EnablePathOverride is set to 1"}}));
}

TEST_F(SessionTest, OverrideTakenAsItStandsWithoutExistenceCheck) {
  WriteCompleteInstall(1);
  const std::wstring value = L"  Z:\\nowhere\\at all  ";
  env_.Set(L"QEL_PATH_2026", value);
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory(Narrow(value) + "\\")).WillOnce(Return(0));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, value);
}

TEST_F(SessionTest, EnabledOverrideWithoutVariableFallsBackToTheRegistry) {
  const std::wstring expected = WriteCompleteInstall(1);
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory(Narrow(expected) + "\\")).WillOnce(Return(0));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, expected);
  EXPECT_FALSE(QelSessionInspector::PathOverridden(session()));
  EXPECT_EQ(messages(), (Messages{{L"INFO", L"EnablePathOverride is set to 1"}}));
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
  EXPECT_CALL(*wrapper_, LockDirectory(Narrow(expected) + "\\")).WillOnce(Return(0));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, expected);
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

// ---- registry failures ----

TEST_F(SessionTest, MissingKeyIsMessages10And4AndResult6) {
  Initialized(0);
  std::wstring location = L"replaced";
  EXPECT_EQ(session().LockInstallLocation(location), RegistryReadFailed);
  EXPECT_EQ(location, L"");
  // Message 3 while the SDK session is fine: no usable location.
  EXPECT_EQ(messages(), (Messages{{L"FATAL", kNoCustomPath},
                                  {L"FATAL", L"Failed to open registry key"},
                                  {L"WARN", kSdkInitFailed + L"0"}}));
}

TEST_F(SessionTest, InstallPathOf130CharactersCannotBeRead) {
  const std::wstring installPath = L"C:\\" + std::wstring(127, L'a');
  ASSERT_EQ(installPath.size(), 130u);
  WriteRegistry(installPath, L"1.0");
  EXPECT_EQ(session().ReadInstallLocation(L"2026"), RegistryReadFailed);
  EXPECT_EQ(messages(), (Messages{{L"FATAL", L"Failed to read InstallPath registry entry"}}));
}

TEST_F(SessionTest, InstallPathOf129CharactersIsRead) {
  const std::wstring installPath = L"C:\\" + std::wstring(126, L'a');
  ASSERT_EQ(installPath.size(), 129u);
  WriteRegistry(installPath, L"1.0");
  EXPECT_EQ(session().ReadInstallLocation(L"2026"), PathNotFound);
  EXPECT_EQ(messages(), (Messages{{L"ERROR", kPathIncorrect + installPath + L" Error Code : " + ErrorTextOk()}}));
}

TEST_F(SessionTest, MissingInstallFolderIsMessage6WithTheErrorText) {
  const std::wstring installPath = dir_ / L"absent";
  WriteRegistry(installPath, L"1.0");
  Initialized(0);
  std::wstring location = L"replaced";
  EXPECT_EQ(session().LockInstallLocation(location), PathNotFound);
  EXPECT_EQ(location, L"");  // installLocation was never set
  // A missing path's status was read: the code is 0 and its text the system's own.
  ASSERT_FALSE(ErrorTextOk().empty());
  EXPECT_EQ(messages(), (Messages{{L"ERROR", kPathIncorrect + installPath + L" Error Code : " + ErrorTextOk()},
                                  {L"WARN", kSdkInitFailed + L"0"}}));
}

// A raw disk device's attributes cannot be read (Wine: error 66, Windows
// without elevation: 5): the error of the query is what message 6 quotes.
TEST_F(SessionTest, Message6QuotesTheErrorOfAFailedStatusQuery) {
  const std::wstring installPath = L"\\\\.\\PhysicalDrive0";
  if (::GetFileAttributesW(installPath.c_str()) != INVALID_FILE_ATTRIBUTES)
    GTEST_SKIP() << "this system lets the test read the raw disk's attributes";
  const DWORD error = ::GetLastError();
  WriteRegistry(installPath, L"1.0");
  EXPECT_EQ(session().ReadInstallLocation(L"2026"), PathNotFound);
  EXPECT_EQ(messages(),
            (Messages{{L"ERROR", kPathIncorrect + installPath + L" Error Code : " + SystemErrorText(error)}}));
}

TEST_F(SessionTest, UnreadableVersionIsMessage7) {
  const std::wstring installPath = dir_.MakeDir(L"Shared");
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"InstallPath", installPath);
  EXPECT_EQ(session().ReadInstallLocation(L"2026"), RegistryReadFailed);
  EXPECT_EQ(messages(), (Messages{{L"FATAL", L"Failed to read Version from registry entry"}}));

  sink_.clear();
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"Version", std::wstring(130, L'v'));
  EXPECT_EQ(session().ReadInstallLocation(L"2026"), RegistryReadFailed);
  EXPECT_EQ(messages(), (Messages{{L"FATAL", L"Failed to read Version from registry entry"}}));
}

TEST_F(SessionTest, EmptyVersionIsMessage8AndResult13) {
  WriteRegistry(dir_.MakeDir(L"Shared"), L"");
  Initialized(0);
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), VersionEmpty);
  EXPECT_EQ(messages(), (Messages{{L"FATAL", L"Entry for Version in Registry is Empty."},
                                  {L"WARN", kSdkInitFailed + L"0"}}));
}

TEST_F(SessionTest, MissingVersionFolderIsMessage9WithTheVersionTextOnly) {
  const std::wstring installPath = dir_.MakeDir(L"Shared");
  WriteRegistry(installPath, L"9.9");
  Initialized(0);
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), PathNotFound);
  // The missing folder is still handed back and kept.
  EXPECT_EQ(location, installPath + L"\\9.9");
  EXPECT_EQ(QelSessionInspector::InstallLocation(session()), installPath + L"\\9.9");
  EXPECT_EQ(messages(),
            (Messages{{L"ERROR", L"The Version for the Install Path Does Not Exist.9.9 Error Code : " + ErrorTextOk()},
                      {L"WARN", kSdkInitFailed + L"0"}}));
}

TEST_F(SessionTest, CustomKeyIsUsedByTheRegistryLookupOnly) {
  const std::wstring customKey = L"SOFTWARE\\Elsewhere\\Shared";
  const std::wstring installPath = dir_.MakeDir(L"Custom");
  dir_.MakeDir(L"Custom\\2.0");
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, customKey, L"InstallPath", installPath);
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, customKey, L"Version", L"2.0");
  // Only the custom key switches the override on; the override lookup ignores it.
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, customKey, L"EnablePathOverride", 1);
  env_.Set(L"QEL_PATH_2026", L"D:\\Override\\Folder");
  QelSessionInspector::SetCustomRegistryKey(session(), customKey);
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory(Narrow(installPath) + "\\2.0\\")).WillOnce(Return(0));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, installPath + L"\\2.0");
  EXPECT_EQ(messages(), (Messages{{L"FATAL", kNoCustomPath}}));
}

// ---- non-ASCII paths ----

TEST_F(SessionTest, NonAsciiInstallPathSurvivesTheUtf8RoundTrip) {
  const std::wstring name = L"\u00DCn\u00EFc\u00F8d\u00E9 \u8DEF\u5F84 \U0001F600";
  const std::wstring installPath = dir_.MakeDir(name);
  dir_.MakeDir(name + L"\\v\u00E9");
  WriteRegistry(installPath, L"v\u00E9");
  Initialized(0);
  const std::wstring expected = installPath + L"\\v\u00E9";
  EXPECT_CALL(*wrapper_, LockDirectory(Narrow(expected) + "\\")).WillOnce(Return(7));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, expected);
  // The path went into the narrow stream as UTF-8 and came back unchanged.
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"Failed to lock" + expected + L"\\, HALDO SDK wrapper status code : 7"}}));
}

TEST_F(SessionTest, NonAsciiMissingPathsInMessages6And9) {
  const std::wstring missing = dir_ / L"\u00E4\u00F6\u00FC \u6F22\u5B57";
  WriteRegistry(missing, L"1.0");
  EXPECT_EQ(session().ReadInstallLocation(L"2026"), PathNotFound);
  WriteRegistry(dir_.path(), L"\u00E9t\u00E9 \u6F22");
  EXPECT_EQ(session().ReadInstallLocation(L"2026"), PathNotFound);
  EXPECT_EQ(messages(),
            (Messages{{L"ERROR", kPathIncorrect + missing + L" Error Code : " + ErrorTextOk()},
                      {L"ERROR", L"The Version for the Install Path Does Not Exist.\u00E9t\u00E9 \u6F22 Error Code : " +
                                     ErrorTextOk()}}));
}

// ---- two operations on one object ----

TEST_F(SessionTest, PathOverriddenIsCarriedToTheNextLocateStep) {
  const std::wstring versionFolder = WriteCompleteInstall(1);
  const std::wstring installPath = dir_ / L"Shared";
  const std::wstring overridePath = L"D:\\Override\\Folder";
  env_.Set(L"QEL_PATH_2026", overridePath);
  Initialized(0);

  EXPECT_CALL(*wrapper_, LockDirectory("D:\\Override\\Folder\\")).WillOnce(Return(0));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, overridePath);
  EXPECT_TRUE(QelSessionInspector::PathOverridden(session()));

  // The switch is off now: GetPathOverride answers 100 and leaves the flag, so
  // the registry lookup stops at InstallPath without a version folder.
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 0);
  sink_.clear();
  EXPECT_CALL(*wrapper_, LockDirectory(Narrow(installPath) + "\\")).WillOnce(Return(0));
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, installPath);
  EXPECT_EQ(QelSessionInspector::InstallLocation(session()), installPath);
  EXPECT_TRUE(QelSessionInspector::PathOverridden(session()));
  EXPECT_TRUE(messages().empty());

  // Switched on again without the variable: the flag is cleared and the
  // version folder is found again.
  env_.Unset(L"QEL_PATH_2026");
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 1);
  EXPECT_CALL(*wrapper_, LockDirectory(Narrow(versionFolder) + "\\")).WillOnce(Return(0));
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, versionFolder);
  EXPECT_FALSE(QelSessionInspector::PathOverridden(session()));
}

TEST_F(SessionTest, LocateStepsCalledDirectly) {
  const std::wstring versionFolder = WriteCompleteInstall(1);
  const std::wstring installPath = dir_ / L"Shared";
  env_.Set(L"QEL_PATH_2026", L"D:\\Override\\Folder");
  Initialized(0);

  EXPECT_EQ(session().GetPathOverride(L"2026"), Success);
  EXPECT_EQ(QelSessionInspector::InstallLocation(session()), L"D:\\Override\\Folder");
  EXPECT_TRUE(QelSessionInspector::PathOverridden(session()));
  // While the flag is set, the registry step answers InstallPath alone.
  EXPECT_EQ(session().ReadInstallLocation(L"2026"), Success);
  EXPECT_EQ(QelSessionInspector::InstallLocation(session()), installPath);

  // A key that cannot be opened: 100 and message 10, the flag kept.
  sink_.clear();
  EXPECT_EQ(session().GetPathOverride(L"1999"), NoPathOverride);
  EXPECT_TRUE(QelSessionInspector::PathOverridden(session()));
  EXPECT_EQ(messages(), (Messages{{L"FATAL", kNoCustomPath}}));

  env_.Unset(L"QEL_PATH_2026");
  EXPECT_EQ(session().GetPathOverride(L"2026"), PathNotFound);
  EXPECT_FALSE(QelSessionInspector::PathOverridden(session()));
  EXPECT_EQ(QelSessionInspector::InstallLocation(session()), installPath);  // untouched by a refusal
  EXPECT_EQ(session().ReadInstallLocation(L"2026"), Success);
  EXPECT_EQ(QelSessionInspector::InstallLocation(session()), versionFolder);
}

TEST_F(SessionTest, LocateStepsOpenTheKeyOfTheirArgumentAndTheOverrideVariableOfTheSession) {
  const std::wstring otherKey = L"SOFTWARE\\Tavrel\\SharedComponents\\1999";
  const std::wstring installPath = dir_.MakeDir(L"Old");
  dir_.MakeDir(L"Old\\0.9");
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, otherKey, L"EnablePathOverride", 1);
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, otherKey, L"InstallPath", installPath);
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, otherKey, L"Version", L"0.9");
  env_.Set(L"QEL_PATH_1999", L"D:\\Not\\This\\One");
  env_.Set(L"QEL_PATH_2026", L"D:\\Override\\Folder");
  Initialized(0);

  EXPECT_EQ(session().GetPathOverride(L"1999"), Success);
  EXPECT_EQ(QelSessionInspector::InstallLocation(session()), L"D:\\Override\\Folder");
  env_.Unset(L"QEL_PATH_2026");
  EXPECT_EQ(session().GetPathOverride(L"1999"), PathNotFound);
  EXPECT_EQ(session().ReadInstallLocation(L"1999"), Success);
  EXPECT_EQ(QelSessionInspector::InstallLocation(session()), installPath + L"\\0.9");
}

// ---- Uninitialize ----

TEST_F(SessionTest, FailedUnlockAndUninitializeAreMessages15And16) {
  const std::wstring expected = WriteCompleteInstall();
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory(_)).WillOnce(Return(0));
  std::wstring location;
  ASSERT_EQ(session().LockInstallLocation(location), Success);
  {
    InSequence order;
    EXPECT_CALL(*wrapper_, IsInitialized()).WillOnce(Return(true));
    EXPECT_CALL(*wrapper_, UnLockDirectory(Narrow(expected) + "\\")).WillOnce(Return(4));
    EXPECT_CALL(*wrapper_, Uninitialize()).WillOnce(Return(-1));
  }
  EXPECT_EQ(session().Uninitialize(), Success);
  EXPECT_EQ(QelSessionInspector::SdkStatus(session()), 0);  // not changed by Uninitialize
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"Failed to Unlock HALDO SDK wrapper status code:4"},
                                  {L"WARN", L"Failed to Uninitialize HALDO SDK wrapper status code:-1"}}));
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
  EXPECT_CALL(*wrapper_, LockDirectory(_)).WillOnce(Return(5));
  std::wstring location;
  ASSERT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_CALL(*wrapper_, IsInitialized()).WillOnce(Return(true));
  EXPECT_CALL(*wrapper_, UnLockDirectory(Narrow(expected) + "\\")).WillOnce(Return(0));
  EXPECT_CALL(*wrapper_, Uninitialize()).WillOnce(Return(0));
  EXPECT_EQ(session().Uninitialize(), Success);
  EXPECT_EQ(QelSessionInspector::SdkStatus(session()), 5);
}

// ---- registry key handles ----

// Handles this process holds, from the system handle table (class 16):
// GetProcessHandleCount always answers 0 under Wine.
long CountOwnHandles() {
  using QueryFn = LONG(WINAPI*)(ULONG, PVOID, ULONG, PULONG);
  const auto query = reinterpret_cast<QueryFn>(
      reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
  if (!query) return -1;
  struct Entry {
    USHORT processId;  // Wine keeps a 32-bit id here; its low half is the same
    USHORT backTraceIndex;
    UCHAR type;
    UCHAR attributes;
    USHORT handle;
    PVOID object;
    ULONG access;
  };
  struct Table {
    ULONG count;
    Entry entries[1];
  };
  std::vector<unsigned char> buffer(1 << 20);
  for (;;) {
    ULONG needed = 0;
    const LONG status = query(16, buffer.data(), static_cast<ULONG>(buffer.size()), &needed);
    if (status == static_cast<LONG>(0xC0000004)) {  // STATUS_INFO_LENGTH_MISMATCH
      buffer.resize(std::max<size_t>(buffer.size() * 2, needed));
      continue;
    }
    if (status != 0) return -1;
    break;
  }
  const auto* table = reinterpret_cast<const Table*>(buffer.data());
  const auto self = static_cast<USHORT>(::GetCurrentProcessId());
  long own = 0;
  for (ULONG i = 0; i < table->count; ++i)
    if (table->entries[i].processId == self) ++own;
  return own;
}

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
