// The SDK file is held open, shared with readers only, from the start of its
// signature check until the loader has loaded it: nobody can swap the checked
// file for another in between.
#include <windows.h>
#include <wintrust.h>

#include <regex>
#include <thread>

#include "haldo_sdk/SdkModule.h"
#include "haldo_sdk/SignatureCheck.h"
#include "tests/haldo_sdk/WrapperTest.h"

namespace ambrel::test {
namespace {

using ::testing::ElementsAreArray;

// What another thread got when it tried to change the file: 0 for success,
// else the error code.
struct ChangeAttempts {
  bool made = false;
  DWORD overwrite = 0;
  DWORD rename = 0;
  DWORD remove = 0;
};

DWORD LastErrorUnless(bool succeeded) { return succeeded ? 0 : ::GetLastError(); }

ChangeAttempts TryToChangeFromAnotherThread(const std::wstring& path) {
  ChangeAttempts attempts;
  std::thread([&] {
    attempts.made = true;
    const UniqueFileHandle writer(::CreateFileW(path.c_str(), GENERIC_WRITE,
                                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    attempts.overwrite = LastErrorUnless(writer.valid());
    attempts.rename = LastErrorUnless(::MoveFileExW(path.c_str(), (path + L".swapped").c_str(), 0));
    attempts.remove = LastErrorUnless(::DeleteFileW(path.c_str()));
  }).join();
  return attempts;
}

// The file under check, and what the other thread saw while the check ran.
std::wstring g_checkedFile;
ChangeAttempts g_duringCheck;

LONG WINAPI VerifyWhileAnotherThreadTriesToChange(HWND window, GUID* action, LPVOID data) {
  if (static_cast<WINTRUST_DATA*>(data)->dwStateAction == WTD_STATEACTION_VERIFY) {
    g_duringCheck = TryToChangeFromAnotherThread(g_checkedFile);
  }
  return ::WinVerifyTrust(window, action, data);
}

// Only opens a writer, so that a file nobody holds stays as it is.
LONG WINAPI VerifyWhileAnotherThreadOpensAWriter(HWND window, GUID* action, LPVOID data) {
  if (static_cast<WINTRUST_DATA*>(data)->dwStateAction == WTD_STATEACTION_VERIFY) {
    std::thread([] {
      g_duringCheck.made = true;
      const UniqueFileHandle writer(::CreateFileW(g_checkedFile.c_str(), GENERIC_WRITE,
                                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
      g_duringCheck.overwrite = LastErrorUnless(writer.valid());
    }).join();
  }
  return ::WinVerifyTrust(window, action, data);
}

class SdkFileHoldTest : public WrapperTest {
 protected:
  std::wstring CopyOf(StandInKind kind) {
    const std::wstring dll = dir_ / L"StandInSdk.dll";
    if (!::CopyFileW(StandInSdkPath(kind).c_str(), dll.c_str(), FALSE)) throw std::runtime_error("copy failed");
    g_checkedFile = dll;
    g_duringCheck = {};
    return dll;
  }

  ScratchDir dir_;
  ValueSwap<WinVerifyTrustFunction> verifier_{TrustVerifier(), &VerifyWhileAnotherThreadTriesToChange};
};

TEST_F(SdkFileHoldTest, OverwriteRenameAndDeleteFailWhileTheCheckRuns) {
  const std::wstring dll = CopyOf(StandInKind::Signed);
  SetSdkLocation(dll);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  ASSERT_TRUE(g_duringCheck.made);
  EXPECT_EQ(g_duringCheck.overwrite, static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(g_duringCheck.rename, static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(g_duringCheck.remove, static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  // The loader opened the held file: the checked copy is what got loaded.
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(Path(dll))));
  ASSERT_NE(WrapperState().module.get(), nullptr);
  wchar_t loaded[MAX_PATH] = {};
  ::GetModuleFileNameW(WrapperState().module.get(), loaded, MAX_PATH);
  EXPECT_EQ(::lstrcmpiW(loaded, dll.c_str()), 0) << Narrow(loaded);
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
}

TEST_F(SdkFileHoldTest, TheHoldIsGoneAfterARejectedCheck) {
  const std::wstring dll = CopyOf(StandInKind::Unsigned);
  SetSdkLocation(dll);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 9);
  EXPECT_EQ(g_duringCheck.overwrite, static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  // No sharing at all: succeeds only when no handle to the file is left open.
  const UniqueFileHandle alone(
      ::CreateFileW(dll.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  EXPECT_TRUE(alone.valid()) << ::GetLastError();
}

TEST_F(SdkFileHoldTest, TheHoldEndsOnceTheModuleIsLoaded) {
  const std::wstring dll = CopyOf(StandInKind::Signed);
  SetSdkLocation(dll);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  // Only the loaded image remains, no open handle: a reader that shares the
  // file with nobody gets it, which the hold's own reader would prevent.
  const UniqueFileHandle reader(
      ::CreateFileW(dll.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  EXPECT_TRUE(reader.valid()) << ::GetLastError();
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
}

TEST_F(SdkFileHoldTest, AFileAlreadyOpenForWritingIsCheckedWithoutTheHold) {
  const std::wstring dll = CopyOf(StandInKind::Unsigned);
  SetSdkLocation(dll);
  const UniqueFileHandle writer(::CreateFileW(dll.c_str(), GENERIC_WRITE,
                                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  ASSERT_TRUE(writer.valid());
  EXPECT_FALSE(HoldAgainstChanges(dll).valid());
  ValueSwap<WinVerifyTrustFunction> verifier(TrustVerifier(), &VerifyWhileAnotherThreadOpensAWriter);
  // The check still runs and decides, with the lines it always writes. Its
  // status is whatever the system answers for a file with a writer (Wine: 32,
  // its own open is refused), a failure either way.
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 9);
  const std::string path = Path(dll);
  const auto messages = sandbox_.log().Messages();
  ASSERT_EQ(messages.size(), 7u);
  EXPECT_EQ(messages[2], "[INFO] Load: HALDO SDK path = " + path);
  EXPECT_TRUE(std::regex_match(messages[3], std::regex(R"(\[ERROR\] WinVerifyTrust returned status: -?[1-9][0-9]*)")))
      << messages[3];
  EXPECT_EQ(messages[4], "[ERROR] VerifyCertificate failed!");
  EXPECT_EQ(messages[5], "[ERROR] IsSignatureValid: Signature invalid at path = " + path);
  // Without the hold another writer is not refused either.
  ASSERT_TRUE(g_duringCheck.made);
  EXPECT_EQ(g_duringCheck.overwrite, 0u);
}

TEST_F(SdkFileHoldTest, AFolderCannotBeHeld) { EXPECT_FALSE(HoldAgainstChanges(dir_.path()).valid()); }

TEST_F(SdkFileHoldTest, HeldFileRefusesWritersAndKeepsReaders) {
  const std::wstring dll = CopyOf(StandInKind::Signed);
  UniqueFileHandle hold = HoldAgainstChanges(dll);
  ASSERT_TRUE(hold.valid());
  const UniqueFileHandle reader(
      ::CreateFileW(dll.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  EXPECT_TRUE(reader.valid());
  EXPECT_EQ(TryToChangeFromAnotherThread(dll).overwrite, static_cast<DWORD>(ERROR_SHARING_VIOLATION));
}

}  // namespace
}  // namespace ambrel::test
