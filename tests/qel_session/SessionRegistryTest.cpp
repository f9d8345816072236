// The registry step of the session: failures, limits, non-ASCII paths, and two operations on one object.
#include "qel_session/QelSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/qel_session/SessionTestSupport.h"

namespace ambrel::test {
namespace {

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
  EXPECT_EQ(messages(),
            (Messages{{L"FATAL", L"Entry for Version in Registry is Empty."}, {L"WARN", kSdkInitFailed + L"0"}}));
}

TEST_F(SessionTest, MissingVersionFolderIsMessage9WithTheVersionTextOnly) {
  const std::wstring installPath = dir_.MakeDir(L"Shared");
  WriteRegistry(installPath, L"9.9");
  Initialized(0);
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), PathNotFound);
  // The missing folder is still handed back and kept.
  EXPECT_EQ(location, installPath + L"\\9.9");
  EXPECT_EQ(messages(),
            (Messages{{L"ERROR", L"The Version for the Install Path Does Not Exist.9.9 Error Code : " + ErrorTextOk()},
                      {L"WARN", kSdkInitFailed + L"0"}}));
  EXPECT_EQ(HeldFolder(), installPath + L"\\9.9");
}

TEST_F(SessionTest, CustomKeyIsUsedByTheRegistryLookupOnly) {
  const std::wstring customKey = L"SOFTWARE\\Elsewhere\\Shared";
  const std::wstring installPath = dir_.MakeDir(L"Custom");
  dir_.MakeDir(L"Custom\\2.0");
  WriteInstallEntryUnder(customKey, installPath, L"2.0");
  // Only the custom key switches the override on; the override lookup ignores it.
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, customKey, L"EnablePathOverride", 1);
  env_.Set(L"QEL_PATH_2026", L"D:\\Override\\Folder");
  QelSessionInspector::SetCustomRegistryKey(session(), customKey);
  Initialized(0);
  LockExpecting(installPath + L"\\2.0");
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
  LockExpecting(expected, 7);
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

  LockExpecting(overridePath);

  // The switch is off now: GetPathOverride answers 100 and leaves the flag, so
  // the registry lookup stops at InstallPath without a version folder.
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 0);
  sink_.clear();
  LockExpecting(installPath);
  EXPECT_EQ(HeldFolder(), installPath);
  EXPECT_TRUE(messages().empty());
  // Still taken as overridden: the same step again stops at InstallPath.
  LockExpecting(installPath);

  // Switched on again without the variable: the flag is cleared and the
  // version folder is found again.
  env_.Unset(L"QEL_PATH_2026");
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 1);
  LockExpecting(versionFolder);
  // No longer taken as overridden: switched off again, the registry step
  // reads Version.
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 0);
  LockExpecting(versionFolder);
}

TEST_F(SessionTest, LocateStepsCalledDirectly) {
  const std::wstring versionFolder = WriteCompleteInstall(1);
  const std::wstring installPath = dir_ / L"Shared";
  env_.Set(L"QEL_PATH_2026", L"D:\\Override\\Folder");
  Initialized(0);

  EXPECT_EQ(session().GetPathOverride(L"2026"), Success);
  EXPECT_EQ(HeldFolder(), L"D:\\Override\\Folder");
  // While the flag is set, the registry step answers InstallPath alone.
  EXPECT_EQ(session().ReadInstallLocation(L"2026"), Success);
  EXPECT_EQ(HeldFolder(), installPath);

  // A key that cannot be opened: 100 and message 10, the flag kept (the
  // registry step still answers InstallPath alone).
  sink_.clear();
  EXPECT_EQ(session().GetPathOverride(L"1999"), NoPathOverride);
  EXPECT_EQ(messages(), (Messages{{L"FATAL", kNoCustomPath}}));
  EXPECT_EQ(session().ReadInstallLocation(L"2026"), Success);
  EXPECT_EQ(HeldFolder(), installPath);

  env_.Unset(L"QEL_PATH_2026");
  EXPECT_EQ(session().GetPathOverride(L"2026"), PathNotFound);
  EXPECT_EQ(HeldFolder(), installPath);  // untouched by a refusal
  // The flag is cleared: the registry step reads Version again.
  EXPECT_EQ(session().ReadInstallLocation(L"2026"), Success);
  EXPECT_EQ(HeldFolder(), versionFolder);
}

TEST_F(SessionTest, LocateStepsOpenTheKeyOfTheirArgumentAndTheOverrideVariableOfTheSession) {
  const std::wstring otherKey = L"SOFTWARE\\Tavrel\\SharedComponents\\1999";
  const std::wstring installPath = dir_.MakeDir(L"Old");
  dir_.MakeDir(L"Old\\0.9");
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, otherKey, L"EnablePathOverride", 1);
  WriteInstallEntryUnder(otherKey, installPath, L"0.9");
  env_.Set(L"QEL_PATH_1999", L"D:\\Not\\This\\One");
  env_.Set(L"QEL_PATH_2026", L"D:\\Override\\Folder");
  Initialized(0);

  EXPECT_EQ(session().GetPathOverride(L"1999"), Success);
  EXPECT_EQ(HeldFolder(), L"D:\\Override\\Folder");
  env_.Unset(L"QEL_PATH_2026");
  EXPECT_EQ(session().GetPathOverride(L"1999"), PathNotFound);
  EXPECT_EQ(session().ReadInstallLocation(L"1999"), Success);
  EXPECT_EQ(HeldFolder(), installPath + L"\\0.9");
}

}  // namespace
}  // namespace ambrel::test
