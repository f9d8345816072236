#include "haldo_sdk/SignatureCheck.h"

#include <softpub.h>

#include "haldo_sdk/SdkModule.h"
#include "tests/haldo_sdk/WrapperTest.h"
#include "tests/support/HandleCount.h"

namespace ambrel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

// Under Wine a signature that chains to a root nobody trusts still verifies
// (Wine does not insist on a trusted root), so the "untrusted root" case of
// the trust stage cannot be shown here: every signed copy below chains to the
// build's throw-away test root, which Windows itself would refuse.

struct SignatureRow {
  const char* name;
  StandInKind kind;
  int expectedCode;
  // Lines between "Load: HALDO SDK path" and "Initialize: Failed to load SDK! "
  // ({} when the SDK loads). "<path>" stands for the DLL's path.
  std::vector<std::string> checkLines;
};

std::ostream& operator<<(std::ostream& out, const SignatureRow& row) { return out << row.name; }

const SignatureRow kRows[] = {
    {"Signed", StandInKind::Signed, 0, {}},
    {"Unsigned", StandInKind::Unsigned, 9,
     {"[ERROR] WinVerifyTrust returned status: -2146762496", "[ERROR] VerifyCertificate failed!",
      "[ERROR] IsSignatureValid: Signature invalid at path = <path>"}},
    {"Tampered", StandInKind::Tampered, 9,
     {"[ERROR] WinVerifyTrust returned status: -2146869232", "[ERROR] VerifyCertificate failed!",
      "[ERROR] IsSignatureValid: Signature invalid at path = <path>"}},
    {"OtherPublisher", StandInKind::OtherPublisher, 9,
     {"[ERROR] CertFindCertificateInStore returned ERROR: 2148081668",
      "[ERROR] IsSignatureValid: Signature invalid at path = <path>"}},
    {"OtherLetterCase", StandInKind::OtherCase, 0, {}},
    {"InsideALongerOrganisationName", StandInKind::LongerOrganisation, 0, {}},
    {"InTheCommonName", StandInKind::CommonName, 0, {}},
};

class SignatureRowTest : public WrapperTest, public ::testing::WithParamInterface<SignatureRow> {};

TEST_P(SignatureRowTest, InitializeGivesTheRowsResultAndLines) {
  const SignatureRow& row = GetParam();
  const std::string path = SdkPath(row.kind);
  SetSdkLocation(row.kind);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), row.expectedCode);

  std::vector<std::string> expected;
  if (row.expectedCode == 0) {
    expected = SuccessfulInitializeLines(path);
  } else {
    expected = {kLogSeparator,
                "[INFO] HALDOAPIWrapperImpl::Initialize: plc = \"QEL\", release = \"2026\", language = \"neutral\"",
                "[INFO] Load: HALDO SDK path = " + path};
    for (std::string line : row.checkLines) {
      if (const size_t at = line.find("<path>"); at != std::string::npos) line.replace(at, 6, path);
      expected.push_back(line);
    }
    expected.push_back("[ERROR] HALDOAPIWrapperImpl::Initialize: Failed to load SDK! ");
  }
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(expected));
  // A refused file is never loaded.
  EXPECT_EQ(sandbox_.sdk().Calls(true).empty(), row.expectedCode != 0);
}

INSTANTIATE_TEST_SUITE_P(Rows, SignatureRowTest, ::testing::ValuesIn(kRows),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- The two stages on their own

// Records what every WinVerifyTrust call made through it was handed (before
// the call: Wine writes into the file information), and forwards it.
struct TrustCall {
  GUID action;
  WINTRUST_DATA data;
  WINTRUST_FILE_INFO file;
  std::wstring path;
  bool nullWindow;
  LONG status;
  const void* dataAddress;
};
std::vector<TrustCall> g_trustCalls;

LONG WINAPI RecordingVerifyTrust(HWND window, GUID* action, LPVOID data) {
  const auto* trust = static_cast<WINTRUST_DATA*>(data);
  TrustCall call{*action, *trust, {}, {}, window == nullptr, 0, data};
  if (trust->dwUnionChoice == WTD_CHOICE_FILE && trust->pFile) {
    call.file = *trust->pFile;
    call.path = trust->pFile->pcwszFilePath ? trust->pFile->pcwszFilePath : L"";
  }
  call.status = ::WinVerifyTrust(window, action, data);
  g_trustCalls.push_back(call);
  return call.status;
}

class TrustStageTest : public WrapperTest {
 protected:
  void SetUp() override {
    WrapperTest::SetUp();
    g_trustCalls.clear();
  }
};

// The close call gets the very structures of the check (which the check may
// have written into), with the state action switched to "close".
void ExpectCloseOf(const TrustCall& close, const TrustCall& check) {
  const GUID generic = WINTRUST_ACTION_GENERIC_VERIFY_V2;
  EXPECT_TRUE(IsEqualGUID(close.action, generic));
  EXPECT_TRUE(close.nullWindow);
  EXPECT_EQ(close.dataAddress, check.dataAddress);
  EXPECT_EQ(close.data.dwStateAction, static_cast<DWORD>(WTD_STATEACTION_CLOSE));
  EXPECT_EQ(close.path, check.path);
}

void ExpectDocumentedSettings(const TrustCall& call, const std::wstring& path, DWORD stateAction) {
  const GUID generic = WINTRUST_ACTION_GENERIC_VERIFY_V2;
  EXPECT_TRUE(IsEqualGUID(call.action, generic));
  EXPECT_TRUE(call.nullWindow);
  EXPECT_EQ(call.data.cbStruct, sizeof(WINTRUST_DATA));
  EXPECT_EQ(call.data.pPolicyCallbackData, nullptr);
  EXPECT_EQ(call.data.pSIPClientData, nullptr);
  EXPECT_EQ(call.data.dwUIChoice, static_cast<DWORD>(WTD_UI_NONE));
  EXPECT_EQ(call.data.fdwRevocationChecks, static_cast<DWORD>(WTD_REVOKE_NONE));
  EXPECT_EQ(call.data.dwUnionChoice, static_cast<DWORD>(WTD_CHOICE_FILE));
  EXPECT_EQ(call.data.dwStateAction, stateAction);
  EXPECT_EQ(call.data.pwszURLReference, nullptr);
  EXPECT_EQ(call.data.dwProvFlags, 0u);
  EXPECT_EQ(call.data.dwUIContext, 0u);
  EXPECT_EQ(call.file.cbStruct, sizeof(WINTRUST_FILE_INFO));
  EXPECT_EQ(call.file.hFile, nullptr);
  EXPECT_EQ(call.file.pgKnownSubject, nullptr);
  EXPECT_EQ(call.path, path);
}

TEST_F(TrustStageTest, SignedFileIsVerifiedThenTheStateClosed) {
  const std::wstring path = StandInSdkPath(StandInKind::Signed);
  EXPECT_TRUE(VerifyTrust(path, &RecordingVerifyTrust));
  ASSERT_EQ(g_trustCalls.size(), 2u);
  ExpectDocumentedSettings(g_trustCalls[0], path, WTD_STATEACTION_VERIFY);
  EXPECT_EQ(g_trustCalls[0].data.hWVTStateData, nullptr);  // as handed in
  EXPECT_EQ(g_trustCalls[0].status, 0);
  ExpectCloseOf(g_trustCalls[1], g_trustCalls[0]);
  EXPECT_FALSE(sandbox_.log().LogExists());
}

TEST_F(TrustStageTest, TheStateIsClosedAlsoAfterAFailedVerification) {
  const std::wstring path = StandInSdkPath(StandInKind::Unsigned);
  EXPECT_FALSE(VerifyTrust(path, &RecordingVerifyTrust));
  ASSERT_EQ(g_trustCalls.size(), 2u);
  ExpectDocumentedSettings(g_trustCalls[0], path, WTD_STATEACTION_VERIFY);
  EXPECT_EQ(g_trustCalls[0].status, static_cast<LONG>(TRUST_E_NOSIGNATURE));
  ExpectCloseOf(g_trustCalls[1], g_trustCalls[0]);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAre(kLogSeparator, "[ERROR] WinVerifyTrust returned status: -2146762496"));
}

TEST_F(TrustStageTest, TamperedFileFailsWithBadDigestAndIsClosed) {
  const std::wstring path = StandInSdkPath(StandInKind::Tampered);
  EXPECT_FALSE(VerifyTrust(path, &RecordingVerifyTrust));
  ASSERT_EQ(g_trustCalls.size(), 2u);
  EXPECT_EQ(g_trustCalls[0].status, static_cast<LONG>(TRUST_E_BAD_DIGEST));
  ExpectCloseOf(g_trustCalls[1], g_trustCalls[0]);
}

using PublisherStageTest = WrapperTest;

TEST_F(PublisherStageTest, UnreadableSignatureIsReportedByCryptQueryObject) {
  // The whole check never gets here with an unsigned file (the trust stage
  // refuses it first), so the publisher stage is run on its own.
  EXPECT_FALSE(SignatureNamesPublisher(StandInSdkPath(StandInKind::Unsigned), kSdkPublisher));
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAre(kLogSeparator, "[ERROR] CryptQueryObject returned false!"));
}

TEST_F(PublisherStageTest, MatchIsACaseInsensitiveSubstringOfAnyCertificateSubject) {
  const std::wstring other = StandInSdkPath(StandInKind::OtherPublisher);
  EXPECT_TRUE(SignatureNamesPublisher(other, L"northwind software"));
  // The test root travels in the signature too, and it can satisfy the search.
  EXPECT_TRUE(SignatureNamesPublisher(other, L"Ambrel Test Authority"));
  EXPECT_TRUE(SignatureNamesPublisher(StandInSdkPath(StandInKind::Signed), L"tavrel, inc"));
  EXPECT_FALSE(SignatureNamesPublisher(StandInSdkPath(StandInKind::Signed), L"Tavrel, Inc."));
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAre(kLogSeparator, "[ERROR] CertFindCertificateInStore returned ERROR: 2148081668"));
}

TEST_F(PublisherStageTest, WholeCheckOfAnEmptyPathPassesSilently) {
  EXPECT_TRUE(VerifyCertificate(L""));
  EXPECT_FALSE(sandbox_.log().LogExists());
}

TEST_F(PublisherStageTest, WholeCheckOfAnUnsignedFileSkipsThePublisherStage) {
  EXPECT_FALSE(VerifyCertificate(StandInSdkPath(StandInKind::Unsigned)));
  // No "CryptQueryObject returned false!" line: the publisher stage did not run.
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAre(kLogSeparator, "[ERROR] WinVerifyTrust returned status: -2146762496",
                                           "[ERROR] VerifyCertificate failed!"));
}

TEST_F(PublisherStageTest, WholeCheckOfTheMakersFilePassesSilently) {
  EXPECT_TRUE(VerifyCertificate(StandInSdkPath(StandInKind::Signed)));
  EXPECT_FALSE(sandbox_.log().LogExists());
}

// ---- Handles

using HandleReleaseTest = WrapperTest;

TEST_F(HandleReleaseTest, ChecksGiveBackEveryKernelHandle) {
  const StandInKind kinds[] = {StandInKind::Signed, StandInKind::Unsigned, StandInKind::Tampered,
                               StandInKind::OtherPublisher};
  auto runAll = [&] {
    for (StandInKind kind : kinds) VerifyCertificate(StandInSdkPath(kind));
    SignatureNamesPublisher(StandInSdkPath(StandInKind::Unsigned), kSdkPublisher);
    sandbox_.programData().WriteLock(std::to_string(::GetCurrentProcessId()));
    IsSelfUpdateRunning();  // stops at the first match
    sandbox_.programData().WriteLock("no process has this id");
    IsSelfUpdateRunning();  // walks the whole snapshot
    sandbox_.programData().RemoveLock();
  };
  runAll();  // the first round loads providers and caches that stay
  const std::size_t before = CountProcessHandles();
  ASSERT_GT(before, 0u) << "the handle table could not be read";
  for (int round = 0; round < 3; ++round) runAll();
  EXPECT_EQ(CountProcessHandles(), before);
}

}  // namespace
}  // namespace ambrel::test
