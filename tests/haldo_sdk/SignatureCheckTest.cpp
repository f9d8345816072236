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
    {"Unsigned",
     StandInKind::Unsigned,
     9,
     {"[ERROR] WinVerifyTrust returned status: -2146762496", "[ERROR] VerifyCertificate failed!",
      "[ERROR] IsSignatureValid: Signature invalid at path = <path>"}},
    {"Tampered",
     StandInKind::Tampered,
     9,
     {"[ERROR] WinVerifyTrust returned status: -2146869232", "[ERROR] VerifyCertificate failed!",
      "[ERROR] IsSignatureValid: Signature invalid at path = <path>"}},
    {"OtherPublisher",
     StandInKind::OtherPublisher,
     9,
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

// ---- The publisher stage on its own (the trust stage's calls: SignatureOrderTest.cpp)

using PublisherStageTest = WrapperTest;

TEST_F(PublisherStageTest, UnreadableSignatureIsReportedByCryptQueryObject) {
  // The whole check never gets here with an unsigned file (the trust stage
  // refuses it first), so the publisher stage is run on its own.
  const PublisherSearch search = SearchPublisher(StandInSdkPath(StandInKind::Unsigned), kSdkPublisher);
  EXPECT_EQ(search.outcome, PublisherSearch::Outcome::SignatureUnreadable);
  LogPublisherSearch(search);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAre(kLogSeparator, "[ERROR] CryptQueryObject returned false!"));
}

TEST_F(PublisherStageTest, MatchIsACaseInsensitiveSubstringOfAnyCertificateSubject) {
  const std::wstring other = StandInSdkPath(StandInKind::OtherPublisher);
  using Outcome = PublisherSearch::Outcome;
  EXPECT_EQ(SearchPublisher(other, L"northwind software").outcome, Outcome::Found);
  // The test root travels in the signature too, and it can satisfy the search.
  EXPECT_EQ(SearchPublisher(other, L"Ambrel Test Authority").outcome, Outcome::Found);
  EXPECT_EQ(SearchPublisher(StandInSdkPath(StandInKind::Signed), L"tavrel, inc").outcome, Outcome::Found);
  const PublisherSearch missing = SearchPublisher(StandInSdkPath(StandInKind::Signed), L"Tavrel, Inc.");
  EXPECT_EQ(missing.outcome, Outcome::NotFound);
  EXPECT_EQ(missing.error, static_cast<DWORD>(CRYPT_E_NOT_FOUND));
  LogPublisherSearch(missing);
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
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAre(kLogSeparator, "[ERROR] WinVerifyTrust returned status: -2146762496",
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
    SearchPublisher(StandInSdkPath(StandInKind::Unsigned), kSdkPublisher);
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
