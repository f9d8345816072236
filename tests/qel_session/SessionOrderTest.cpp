// The session's messages are delivered at the step they report, before the
// lookup reads on, and the registry key is closed before the installer is
// asked to lock: a host's sink that acts on a message sees the lookup go on
// from there, and the lock sees no key of the session's still open.
#include "qel_session/QelSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "tests/qel_session/SessionTestSupport.h"
#include "tests/support/HandleCount.h"

namespace ambrel::test {
namespace {

using ::testing::_;
using ::testing::Invoke;
using ::testing::Return;

const std::wstring kOverrideOn = L"EnablePathOverride is set to 1";

long Handles() { return static_cast<long>(CountProcessHandles()); }

class SessionOrderTest : public SessionTest {
 protected:
  void SetUp() override { ASSERT_GT(Handles(), 0) << "the handle table cannot be read here"; }

  // The handles this process holds when the wrapper is asked to lock `folder`.
  void CountHandlesAtTheLock(const std::wstring& folder) {
    EXPECT_CALL(*wrapper_, LockDirectory(Narrow(folder) + "\\")).WillOnce(Invoke([this](const std::string&) {
      atLock_ = Handles();
      return 0;
    }));
  }

  long atLock_ = -1;
};

// ---- each message comes before the step that follows it ----

TEST_F(SessionOrderTest, AVariableSetWhenTheSwitchIsReportedIsTheOverride) {
  WriteCompleteInstall(1);  // the registry's folder would do, but the override comes first
  const std::wstring override = dir_.MakeDir(L"Override");
  ActingSink sink([&](const std::wstring&, const std::wstring& message) {
    if (message == kOverrideOn) env_.Set(L"QEL_PATH_2026", override);
  });
  Initialized(0);
  LockExpecting(override);
  EXPECT_EQ(sink.messages(), (Messages{{L"INFO", kOverrideOn}}));
}

TEST_F(SessionOrderTest, AVersionFolderMadeWhenNoCustomPathIsReportedIsFound) {
  const std::wstring installPath = dir_.MakeDir(L"Shared");
  WriteRegistry(installPath, L"1.0", std::nullopt);  // no switch: message 10, then the registry
  const std::wstring versionFolder = installPath + L"\\1.0";
  ActingSink sink([&](const std::wstring&, const std::wstring& message) {
    if (message == kNoCustomPath) dir_.MakeDir(L"Shared\\1.0");
  });
  Initialized(0);
  LockExpecting(versionFolder);
  EXPECT_EQ(sink.messages(), (Messages{{L"FATAL", kNoCustomPath}}));
}

TEST_F(SessionOrderTest, AValueRemovedWhenNoCustomPathIsReportedIsMissed) {
  WriteCompleteInstall(std::nullopt);
  ActingSink sink([&](const std::wstring&, const std::wstring& message) {
    if (message != kNoCustomPath) return;
    HKEY key = nullptr;
    ASSERT_EQ(::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSharedComponentsKey.c_str(), 0, KEY_SET_VALUE, &key), ERROR_SUCCESS);
    EXPECT_EQ(::RegDeleteValueW(key, L"InstallPath"), ERROR_SUCCESS);
    ::RegCloseKey(key);
  });
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory(_)).Times(0);
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), RegistryReadFailed);
  EXPECT_EQ(sink.messages(), (Messages{{L"FATAL", kNoCustomPath},
                                       {L"FATAL", L"Failed to read InstallPath registry entry"},
                                       {L"WARN", kSdkInitFailed + L"0"}}));
}

TEST_F(SessionOrderTest, ASinkThatThrowsAtNoCustomPathStopsBeforeTheRegistryIsOpened) {
  // The override's key is missing, so message 10 comes from a failed open with
  // no key held; the registry step reads another key, which would be held
  // open by then had it already run.
  const std::wstring customKey = L"SOFTWARE\\Tavrel\\Elsewhere";
  const std::wstring installPath = dir_.MakeDir(L"Shared");
  dir_.MakeDir(L"Shared\\1.0");
  WriteInstallEntryUnder(customKey, installPath, L"1.0");
  QelSessionInspector::SetCustomRegistryKey(session(), customKey);
  Initialized(0);
  const long before = Handles();
  long atMessage = -1;
  ActingSink sink([&](const std::wstring&, const std::wstring& message) {
    if (message != kNoCustomPath) return;
    atMessage = Handles();
    throw SinkFault("message 10");
  });
  std::wstring location = L"untouched";
  EXPECT_THROW(session().LockInstallLocation(location), SinkFault);
  EXPECT_EQ(atMessage, before);
  EXPECT_EQ(location, L"untouched");
  EXPECT_EQ(sink.messages(), (Messages{{L"FATAL", kNoCustomPath}}));
}

TEST_F(SessionOrderTest, MessagesThatCloseTheKeyComeWhileItIsOpen) {
  // InstallPath unreadable (message 5) and Version unreadable (message 7):
  // the message first, then the key is closed.
  const std::wstring installPath = dir_.MakeDir(L"Shared");
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"InstallPath", installPath);
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 0);
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory(_)).Times(0);
  std::wstring location;
  (void)session().LockInstallLocation(location);  // the system opens what it opens once
  const long before = Handles();
  long atMessage = -1;
  ActingSink sink([&](const std::wstring&, const std::wstring& message) {
    if (message == L"Failed to read Version from registry entry") atMessage = Handles();
  });
  EXPECT_EQ(session().LockInstallLocation(location), RegistryReadFailed);
  EXPECT_EQ(atMessage, before + 1);
  EXPECT_EQ(Handles(), before);
}

TEST_F(SessionOrderTest, NoCustomPathForAnUnreadableSwitchComesWhileItsKeyIsOpen) {
  WriteCompleteInstall(std::nullopt);
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory(_)).WillRepeatedly(Return(0));
  std::wstring location;
  (void)session().LockInstallLocation(location);  // the system opens what it opens once
  const long before = Handles();
  long atMessage = -1;
  ActingSink sink([&](const std::wstring&, const std::wstring& message) {
    if (message == kNoCustomPath) atMessage = Handles();
  });
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(atMessage, before + 1);
  EXPECT_EQ(Handles(), before);
}

// ---- the key is closed before the lock ----

TEST_F(SessionOrderTest, TheRegistryKeyIsClosedBeforeTheVersionFolderIsLocked) {
  const std::wstring versionFolder = WriteCompleteInstall();
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory(_)).WillOnce(Return(0));
  std::wstring location;
  (void)session().LockInstallLocation(location);  // the system opens what it opens once
  const long before = Handles();
  CountHandlesAtTheLock(versionFolder);
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(atLock_, before);
}

TEST_F(SessionOrderTest, TheRegistryKeyIsClosedBeforeAnInstallPathAloneIsLocked) {
  // The override named a folder once; switched off afterwards, it leaves the
  // session's choice as it was, so the next registry step takes InstallPath alone.
  const std::wstring versionFolder = WriteCompleteInstall(1);
  const std::wstring installPath = versionFolder.substr(0, versionFolder.rfind(L'\\'));
  env_.Set(L"QEL_PATH_2026", dir_.MakeDir(L"Override"));
  Initialized(0);
  EXPECT_CALL(*wrapper_, LockDirectory(_)).WillRepeatedly(Return(0));
  std::wstring location;
  ASSERT_EQ(session().LockInstallLocation(location), Success);
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 0);
  const long before = Handles();
  ::testing::Mock::VerifyAndClearExpectations(wrapper_);
  CountHandlesAtTheLock(installPath);
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, installPath);
  EXPECT_EQ(atLock_, before);
}

}  // namespace
}  // namespace ambrel::test
