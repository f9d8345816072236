// Each line of the signature check is written at its step: the SDK path
// before the verification, a failed status before the verification state is
// released, a missing publisher before the certificate store and message are
// closed. Seen by the stand-in system DLLs at each call.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>
#include <wincrypt.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "haldo_sdk/SignatureCheck.h"
#include "tests/haldo_sdk/TrustStandInTest.h"

namespace ambrel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

using ::testing::_;

class SignatureOrderTest : public TrustStandInTest {
 protected:
  // Starts the wrapper over the stand-in of `kind` and expects the SDK
  // refused (9); gives the log line that names the SDK's path.
  std::string RefusedInitialize(StandInKind kind) {
    SetSdkLocation(kind);
    EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 9);
    return "[INFO] Load: HALDO SDK path = " + SdkPath(kind);
  }

  // The log's messages after the separator, the arguments and the path line.
  std::vector<std::string> MessagesAfterThePath() const {
    const std::vector<std::string> messages = sandbox_.log().Messages();
    return {messages.begin() + std::min<size_t>(3, messages.size()), messages.end()};
  }
};

TEST_F(SignatureOrderTest, TheSdkPathIsLoggedBeforeTheSignatureIsVerified) {
  const std::string path = SdkPath(StandInKind::Signed);
  SetSdkLocation(StandInKind::Signed);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  const std::string pathLine = "[INFO] Load: HALDO SDK path = " + path;
  EXPECT_THAT(Calls(), ElementsAre(Call{"WinVerifyTrust\tverify", pathLine}, Call{"WinVerifyTrust\tclose", pathLine},
                                   Call{"CryptQueryObject", pathLine}, Call{"CertFindCertificateInStore", pathLine},
                                   Call{"CertFreeCertificateContext", pathLine}, Call{"CertCloseStore", pathLine},
                                   Call{"CryptMsgClose", pathLine}));
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(path)));
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
}

TEST_F(SignatureOrderTest, AFailedStatusIsLoggedBeforeTheVerificationStateIsReleased) {
  SetTrustStatus(TRUST_E_NOSIGNATURE);
  const std::string pathLine = RefusedInitialize(StandInKind::Unsigned);
  const std::string statusLine = "[ERROR] WinVerifyTrust returned status: -2146762496";
  // The publisher stage does not run after a failed verification.
  EXPECT_THAT(Calls(),
              ElementsAre(Call{"WinVerifyTrust\tverify", pathLine}, Call{"WinVerifyTrust\tclose", statusLine}));
  EXPECT_THAT(
      MessagesAfterThePath(),
      ElementsAre(statusLine, "[ERROR] VerifyCertificate failed!",
                  "[ERROR] IsSignatureValid: Signature invalid at path = " + SdkPath(StandInKind::Unsigned), _));
}

TEST_F(SignatureOrderTest, AMissingPublisherIsLoggedBeforeTheStoreAndMessageAreClosed) {
  SetSignature(L"other");
  const std::string pathLine = RefusedInitialize(StandInKind::OtherPublisher);
  const std::string notFound = "[ERROR] CertFindCertificateInStore returned ERROR: 2148081668";
  EXPECT_THAT(Calls(), ElementsAre(Call{"WinVerifyTrust\tverify", pathLine}, Call{"WinVerifyTrust\tclose", pathLine},
                                   Call{"CryptQueryObject", pathLine}, Call{"CertFindCertificateInStore", pathLine},
                                   Call{"CertCloseStore", notFound}, Call{"CryptMsgClose", notFound}));
  EXPECT_THAT(
      MessagesAfterThePath(),
      ElementsAre(notFound,
                  "[ERROR] IsSignatureValid: Signature invalid at path = " + SdkPath(StandInKind::OtherPublisher), _));
}

TEST_F(SignatureOrderTest, AnUnreadableSignatureHasNothingToClose) {
  SetSignature(L"unreadable");
  const std::string pathLine = RefusedInitialize(StandInKind::Signed);
  EXPECT_THAT(Calls(), ElementsAre(Call{"WinVerifyTrust\tverify", pathLine}, Call{"WinVerifyTrust\tclose", pathLine},
                                   Call{"CryptQueryObject", pathLine}));
  EXPECT_THAT(MessagesAfterThePath(), ElementsAre("[ERROR] CryptQueryObject returned false!", _, _));
}

TEST_F(SignatureOrderTest, VerifyCertificateWritesEachLineAtItsStep) {
  const std::wstring path = StandInSdkPath(StandInKind::Signed);
  SetTrustStatus(TRUST_E_BAD_DIGEST);
  EXPECT_FALSE(VerifyCertificate(path));
  const std::string statusLine = "[ERROR] WinVerifyTrust returned status: -2146869232";
  EXPECT_THAT(Calls(), ElementsAre(Call{"WinVerifyTrust\tverify", ""}, Call{"WinVerifyTrust\tclose", statusLine}));
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAre(kLogSeparator, statusLine, "[ERROR] VerifyCertificate failed!"));
}

TEST_F(SignatureOrderTest, NoCheckRunsForAnEmptyPath) {
  EXPECT_TRUE(VerifyCertificate(L""));
  EXPECT_THAT(Calls(), IsEmpty());
}

// ---- what WinVerifyTrust is handed ----

// Each call's settings as the stand-in wrote them, name to value.
using Settings = std::map<std::string, std::string>;

class TrustSettingsTest : public SignatureOrderTest {
 protected:
  TrustSettingsTest() { env_.Set(L"AMBREL_TRUST_STANDIN_SETTINGS", settingsFile_); }

  std::vector<Settings> CallsMade() const {
    std::ifstream file(std::filesystem::path(settingsFile_), std::ios::binary);
    std::vector<Settings> calls(1);
    for (std::string line; std::getline(file, line);) {
      if (line.empty()) {
        calls.emplace_back();
        continue;
      }
      const std::size_t equals = line.find('=');
      calls.back()[line.substr(0, equals)] = line.substr(equals + 1);
    }
    calls.pop_back();
    return calls;
  }

 private:
  ScratchDir dir_;
  std::wstring settingsFile_ = dir_.path() + L"\\settings.txt";
  EnvGuard env_{L"AMBREL_TRUST_STANDIN_SETTINGS"};
};

// The documented settings: the generic Authenticode action, no window, no UI,
// no revocation check, the file by path alone.
void ExpectDocumentedSettings(const Settings& call, const std::string& path, DWORD stateAction) {
  EXPECT_EQ(call.at("window"), "null");
  EXPECT_EQ(call.at("action"), "{00AAC56B-CD44-11D0-8CC2-00C04FC295EE}");
  EXPECT_EQ(call.at("cbStruct"), std::to_string(sizeof(WINTRUST_DATA)));
  EXPECT_EQ(call.at("pPolicyCallbackData"), "null");
  EXPECT_EQ(call.at("pSIPClientData"), "null");
  EXPECT_EQ(call.at("dwUIChoice"), std::to_string(WTD_UI_NONE));
  EXPECT_EQ(call.at("fdwRevocationChecks"), std::to_string(WTD_REVOKE_NONE));
  EXPECT_EQ(call.at("dwUnionChoice"), std::to_string(WTD_CHOICE_FILE));
  EXPECT_EQ(call.at("dwStateAction"), std::to_string(stateAction));
  EXPECT_EQ(call.at("pwszURLReference"), "null");
  EXPECT_EQ(call.at("dwProvFlags"), "0");
  EXPECT_EQ(call.at("dwUIContext"), "0");
  EXPECT_EQ(call.at("file.cbStruct"), std::to_string(sizeof(WINTRUST_FILE_INFO)));
  EXPECT_EQ(call.at("file.path"), path);
  EXPECT_EQ(call.at("file.hFile"), "null");
  EXPECT_EQ(call.at("file.pgKnownSubject"), "null");
}

TEST_F(TrustSettingsTest, AVerifiedFileIsCheckedAsDocumentedThenItsStateReleased) {
  const std::wstring path = StandInSdkPath(StandInKind::Signed);
  EXPECT_EQ(TrustStatus(path), 0);
  const auto calls = CallsMade();
  ASSERT_EQ(calls.size(), 2u);
  ExpectDocumentedSettings(calls[0], Narrow(path), WTD_STATEACTION_VERIFY);
  // The close gets the very structures of the check, switched to "close".
  ExpectDocumentedSettings(calls[1], Narrow(path), WTD_STATEACTION_CLOSE);
  EXPECT_EQ(calls[1].at("data"), calls[0].at("data"));
  EXPECT_FALSE(sandbox_.log().LogExists());
}

TEST_F(TrustSettingsTest, TheStateIsReleasedAlsoAfterAFailedVerification) {
  const std::wstring path = StandInSdkPath(StandInKind::Unsigned);
  SetTrustStatus(TRUST_E_NOSIGNATURE);
  EXPECT_EQ(TrustStatus(path), static_cast<LONG>(TRUST_E_NOSIGNATURE));
  const auto calls = CallsMade();
  ASSERT_EQ(calls.size(), 2u);
  ExpectDocumentedSettings(calls[1], Narrow(path), WTD_STATEACTION_CLOSE);
  EXPECT_EQ(calls[1].at("data"), calls[0].at("data"));
}

}  // namespace
}  // namespace ambrel::test
