// Shared pieces of the session tests: a sink that records every message, a
// test double of the SDK wrapper, a look at the session's fields, and the
// registry layout the installer writes.
#pragma once

#include <gmock/gmock.h>

#include <windows.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Ambrel.h"
#include "haldo_sdk/QelHaldoSdkWrapperInterface.h"
#include "common/TextConvert.h"
#include "qel_session/QelSession.h"
#include "tests/support/SdkSandbox.h"
#include "tests/support/TestSupport.h"

// Points a session's registry step at another key, a setting nothing in the
// library makes; befriended by QelSession. Tests learn everything else from
// what the session does.
struct QelSessionInspector {
  static void SetCustomRegistryKey(QelSession& s, std::wstring key) { s.customRegistryKey = std::move(key); }
};

namespace ambrel::test {

using Message = std::pair<std::wstring, std::wstring>;  // level, text
using Messages = std::vector<Message>;

// Installs a sink that records (level, message) pairs in order; restores the
// previous sink at the end of the scope.
class SinkCapture {
 public:
  using Action = std::function<void(const std::wstring& level, const std::wstring& message)>;

  SinkCapture() : SinkCapture(nullptr) {}
  ~SinkCapture() {
    SetQelSessionLogSink(previous_);
    Act() = std::move(previousAct_);
  }
  SinkCapture(const SinkCapture&) = delete;
  SinkCapture& operator=(const SinkCapture&) = delete;

  const Messages& messages() const { return Recorded(); }
  void clear() { Recorded().clear(); }

 protected:
  // Records each message, then runs `act` with it.
  explicit SinkCapture(Action act) : previousAct_(std::exchange(Act(), std::move(act))) {
    Recorded().clear();
    previous_ = SetQelSessionLogSink(&Deliver);
  }

 private:
  static Messages& Recorded() {
    static Messages messages;
    return messages;
  }
  static Action& Act() {
    static Action act;
    return act;
  }
  static void Deliver(std::wstring level, std::wstring message) {
    Recorded().emplace_back(level, message);
    if (Act()) Act()(level, message);
  }
  QelSessionLogSink previous_ = nullptr;
  Action previousAct_;
};

// A host's sink that acts on what it is told (changes the machine, throws) at
// the moment it is told, and records every message as SinkCapture does.
class ActingSink : public SinkCapture {
 public:
  explicit ActingSink(Action act) : SinkCapture(std::move(act)) {}
};

// What ThrowingSink throws: an exception no library code raises itself.
struct SinkFault : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Installs a sink that throws SinkFault, carrying the message's text, for
// every message that starts with `prefix`, and counts how often it threw;
// restores the previous sink at the end of the scope. The session lets a
// sink's exception through, so this puts an exception in the middle of one.
class ThrowingSink {
 public:
  explicit ThrowingSink(std::wstring prefix) {
    Prefix() = std::move(prefix);
    Throws() = 0;
    previous_ = SetQelSessionLogSink(&Deliver);
  }
  ~ThrowingSink() { SetQelSessionLogSink(previous_); }
  ThrowingSink(const ThrowingSink&) = delete;
  ThrowingSink& operator=(const ThrowingSink&) = delete;

  // How many times it has thrown.
  int throws() const { return Throws(); }

 private:
  static std::wstring& Prefix() {
    static std::wstring prefix;
    return prefix;
  }
  static int& Throws() {
    static int count = 0;
    return count;
  }
  static void Deliver(std::wstring /*level*/, std::wstring message) {
    if (message.rfind(Prefix(), 0) == 0) {
      ++Throws();
      throw SinkFault(WideToUtf8(message));
    }
  }
  QelSessionLogSink previous_ = nullptr;
};

// Test double of the wrapper, for results the stand-in SDK cannot give.
class MockWrapper : public QelHaldoSdkWrapperInterface {
 public:
  explicit MockWrapper(bool* destroyed = nullptr) : destroyed_(destroyed) {}
  ~MockWrapper() override {
    if (destroyed_) *destroyed_ = true;
  }
  MOCK_METHOD(int, Initialize, (const std::string& plc, const std::string& release, const std::string& language),
              (override));
  MOCK_METHOD(bool, IsInitialized, (), (override));
  MOCK_METHOD(int, LockDirectory, (const std::string& directoryToLock), (override));
  MOCK_METHOD(int, UnLockDirectory, (const std::string& directoryToLock), (override));
  MOCK_METHOD(int, Uninitialize, (), (override));
  MOCK_METHOD(QelHaldoSdkWrapperInterface*, CreateInstance, (), (override));

 private:
  bool* destroyed_;
};

// The system's own text for a Windows error, fetched here independently of
// the library, as UTF-16.
inline std::wstring SystemErrorText(DWORD code) {
  wchar_t buffer[512] = {};
  ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, buffer, 512, nullptr);
  std::wstring text = buffer;
  while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' ')) text.pop_back();
  return text;
}

// The folder an initialised session holds, as its Uninitialize hands it to
// the installer to unlock (without the backslash it appends). Uninitialize
// changes nothing of the session, so this may be asked more than once.
inline std::wstring HeldFolder(QelSession& session, MockWrapper& wrapper) {
  std::string unlocked;
  EXPECT_CALL(wrapper, IsInitialized()).WillOnce(::testing::Return(true));
  EXPECT_CALL(wrapper, UnLockDirectory(::testing::_))
      .WillOnce(::testing::DoAll(::testing::SaveArg<0>(&unlocked), ::testing::Return(0)));
  EXPECT_CALL(wrapper, Uninitialize()).WillOnce(::testing::Return(0));
  EXPECT_EQ(session.Uninitialize(), Success);
  if (!unlocked.empty()) unlocked.pop_back();
  return Utf8ToWide(unlocked);
}

// InstallPath and Version under a registry key of the test's own.
inline void WriteInstallEntryUnder(const std::wstring& key, const std::wstring& installPath,
                                   const std::wstring& version) {
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, key, L"InstallPath", installPath);
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, key, L"Version", version);
}

// Whether the session takes the override as having named its folder: its
// registry step then stops at InstallPath. Asked of a complete install under
// a key of its own in `dir`, so the shared-components key is not touched;
// replaces the folder the session holds.
inline bool TakesTheOverrideAsNamingTheFolder(QelSession& session, MockWrapper& wrapper, const ScratchDir& dir) {
  const std::wstring probeKey = L"SOFTWARE\\Tavrel\\OverrideProbe";
  const std::wstring installPath = dir.MakeDir(L"Probe");
  dir.MakeDir(L"Probe\\1.0");
  WriteInstallEntryUnder(probeKey, installPath, L"1.0");
  QelSessionInspector::SetCustomRegistryKey(session, probeKey);
  EXPECT_EQ(session.ReadInstallLocation(L"2026"), Success);
  QelSessionInspector::SetCustomRegistryKey(session, L"");
  return HeldFolder(session, wrapper) == installPath;
}

// Session tests that run the real wrapper over the stand-in SDK: the empty
// SDK sandbox and a message capture.
class SessionWithStandInSdk : public ::testing::Test {
 protected:
  SdkSandbox sandbox_;
  SinkCapture sink_;
};

// Session tests over a strict mock wrapper in the registry sandbox: the
// session under test, the mock it owns, a scratch folder and a message capture.
class SessionTest : public ::testing::Test {
 protected:
  SessionTest() {
    env_.Unset(L"QEL_INITIALIZE_BYPASSED");
    env_.Unset(L"QEL_PATH_2026");
    auto mock = std::make_unique<::testing::StrictMock<MockWrapper>>(&wrapperDestroyed_);
    wrapper_ = mock.get();
    session_ = std::make_unique<QelSession>(std::move(mock));
  }

  // InstallPath, Version and (unless nullopt) EnablePathOverride of release 2026.
  static void WriteRegistry(const std::wstring& installPath, const std::wstring& version,
                            std::optional<DWORD> enableOverride = 0) {
    WriteInstallEntry(installPath, version, enableOverride);
  }

  // An existing install folder with an existing version folder "1.0".
  std::wstring WriteCompleteInstall(std::optional<DWORD> enableOverride = 0) {
    return test::WriteCompleteInstall(dir_, L"Shared", L"1.0", enableOverride);
  }

  // Initialize with the wrapper answering `sdkStatus`.
  void Initialized(int sdkStatus = 0) {
    EXPECT_CALL(*wrapper_, Initialize("QEL", "2026", "neutral")).WillOnce(::testing::Return(sdkStatus));
    ASSERT_EQ(session_->Initialize(L"2026"), Success);
  }

  // Locks with the wrapper answering `lockResult` to a lock of `folder` (a
  // backslash appended), and expects success with `folder` handed out.
  void LockExpecting(const std::wstring& folder, int lockResult = 0) {
    EXPECT_CALL(*wrapper_, LockDirectory(Narrow(folder) + "\\")).WillOnce(::testing::Return(lockResult));
    std::wstring location;
    EXPECT_EQ(session_->LockInstallLocation(location), Success);
    EXPECT_EQ(location, folder);
  }

  std::wstring HeldFolder() {
    const Messages before = sink_.messages();
    std::wstring folder = test::HeldFolder(*session_, *wrapper_);
    EXPECT_EQ(sink_.messages(), before);
    return folder;
  }

  // The SDK status the session holds, as its next lock attempt shows it when
  // it cannot lock: the override points at a folder too short to be one, and
  // the no-lock message carries the status. Leaves the override switched on.
  std::wstring SdkStatusShownByTheNextLock() {
    RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 1);
    env_.Set(L"QEL_PATH_2026", L"D:\\x");
    std::wstring location;
    sink_.clear();
    EXPECT_EQ(session_->LockInstallLocation(location), Success);
    const Messages shown = sink_.messages();
    const std::wstring prefix = L"Failed to intialize HALDO SDK wrapper status code:";
    if (shown.empty() || shown.back().second.rfind(prefix, 0) != 0) return L"<no lock message>";
    return shown.back().second.substr(prefix.size());
  }

  QelSession& session() { return *session_; }
  const Messages& messages() const { return sink_.messages(); }

  RegistrySandbox sandbox_;
  EnvGuard env_;
  ScratchDir dir_;
  SinkCapture sink_;
  bool wrapperDestroyed_ = false;
  ::testing::StrictMock<MockWrapper>* wrapper_ = nullptr;
  std::unique_ptr<QelSession> session_;
};

inline const std::wstring kSdkInitFailed = L"Failed to intialize HALDO SDK wrapper status code:";
inline const std::wstring kNoCustomPath = L"There is no custom path set";
inline const std::wstring kPathIncorrect = L"The Install Location Path is Incorrect";

inline std::wstring ErrorTextOk() { return SystemErrorText(ERROR_SUCCESS); }

}  // namespace ambrel::test
