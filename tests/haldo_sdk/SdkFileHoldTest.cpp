// The SDK file is held open, shared with readers only, from the start of its
// signature check until the loader has loaded it: nobody can swap the checked
// file for another in between. The stand-in WinVerifyTrust has another thread
// try to change the file while the check runs.
#include <windows.h>
#include <wintrust.h>

#include <thread>

#include "haldo_sdk/QelHaldoSdkWrapperState.h"
#include "haldo_sdk/SdkModule.h"
#include "tests/haldo_sdk/TrustStandInTest.h"

namespace ambrel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAreArray;

const std::string kRefused = std::to_string(ERROR_SHARING_VIOLATION);

class SdkFileHoldTest : public TrustStandInTest {
 protected:
  std::wstring CopyOf(StandInKind kind) {
    const std::wstring dll = dir_.path() + L"\\StandInSdk.dll";
    if (!::CopyFileW(StandInSdkPath(kind).c_str(), dll.c_str(), FALSE)) throw std::runtime_error("copy failed");
    return dll;
  }
  // What the other thread got while the check ran: "change" and the three errors.
  std::string ChangeDuringCheck() const {
    for (const Call& call : Calls())
      if (call.first.rfind("change\t", 0) == 0) return call.first;
    return "no attempt";
  }

  ScratchDir dir_;
};

TEST_F(SdkFileHoldTest, OverwriteRenameAndDeleteFailWhileTheCheckRuns) {
  const std::wstring dll = CopyOf(StandInKind::Signed);
  SetSdkLocation(dll);
  SetChange(L"all");
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_EQ(ChangeDuringCheck(), "change\t" + kRefused + "\t" + kRefused + "\t" + kRefused);
  // The loader opened the held file: the checked copy is what got loaded.
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(Path(dll))));
  ASSERT_NE(WrapperState().module.get(), nullptr);
  wchar_t loaded[MAX_PATH] = {};
  ::GetModuleFileNameW(WrapperState().module.get(), loaded, MAX_PATH);
  EXPECT_EQ(::lstrcmpiW(loaded, dll.c_str()), 0) << Narrow(loaded);
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
}

TEST_F(SdkFileHoldTest, TheHoldLastsWhileTheLoaderLoadsTheFile) {
  const std::wstring dll = CopyOf(StandInKind::Signed);
  SetSdkLocation(dll);
  sandbox_.sdk().ProbeHoldAtLoad();
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  // The DLL's entry point runs inside LoadLibraryW: the hold is still there.
  EXPECT_EQ(sandbox_.sdk().HoldAtLoad(), kRefused);
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
  // Control: with nobody holding it, the same open succeeds at load.
  const HMODULE module = ::LoadLibraryW(dll.c_str());
  ASSERT_NE(module, nullptr);
  EXPECT_EQ(sandbox_.sdk().HoldAtLoad(), "opened");
  ::FreeLibrary(module);
}

TEST_F(SdkFileHoldTest, TheHoldIsGoneAfterARejectedCheck) {
  const std::wstring dll = CopyOf(StandInKind::Unsigned);
  SetSdkLocation(dll);
  SetChange(L"writer");
  SetTrustStatus(TRUST_E_NOSIGNATURE);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 9);
  EXPECT_EQ(ChangeDuringCheck(), "change\t" + kRefused + "\t0\t0");
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
  SetChange(L"writer");
  SetTrustStatus(TRUST_E_NOSIGNATURE);
  // The check still runs and decides, with the lines it always writes.
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 9);
  const std::string path = Path(dll);
  const auto messages = sandbox_.log().Messages();
  ASSERT_EQ(messages.size(), 7u);
  EXPECT_EQ(messages[2], "[INFO] Load: HALDO SDK path = " + path);
  EXPECT_EQ(messages[3], "[ERROR] WinVerifyTrust returned status: -2146762496");
  EXPECT_EQ(messages[4], "[ERROR] VerifyCertificate failed!");
  EXPECT_EQ(messages[5], "[ERROR] IsSignatureValid: Signature invalid at path = " + path);
  // Without the hold another writer is not refused either.
  EXPECT_EQ(ChangeDuringCheck(), "change\t0\t0\t0");
}

TEST_F(SdkFileHoldTest, AFolderCannotBeHeld) { EXPECT_FALSE(HoldAgainstChanges(dir_.path()).valid()); }

TEST_F(SdkFileHoldTest, HeldFileRefusesWritersAndKeepsReaders) {
  const std::wstring dll = CopyOf(StandInKind::Signed);
  UniqueFileHandle hold = HoldAgainstChanges(dll);
  ASSERT_TRUE(hold.valid());
  const UniqueFileHandle reader(::CreateFileW(dll.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                              FILE_ATTRIBUTE_NORMAL, nullptr));
  EXPECT_TRUE(reader.valid());
  const UniqueFileHandle writer(::CreateFileW(dll.c_str(), GENERIC_WRITE,
                                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  EXPECT_FALSE(writer.valid());
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
}

}  // namespace
}  // namespace ambrel::test
