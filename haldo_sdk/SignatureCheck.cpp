#include "haldo_sdk/SignatureCheck.h"

#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include "haldo_sdk/WrapperLog.h"
#include "common/ScopeExit.h"
#include "common/WinResource.h"

namespace ambrel {

LONG TrustStatus(const std::wstring& path, WinVerifyTrustFunction verify) {
  WINTRUST_FILE_INFO file{};
  file.cbStruct = sizeof file;
  file.pcwszFilePath = path.c_str();
  file.hFile = nullptr;
  file.pgKnownSubject = nullptr;

  WINTRUST_DATA data{};
  data.cbStruct = sizeof data;
  data.pPolicyCallbackData = nullptr;
  data.pSIPClientData = nullptr;
  data.dwUIChoice = WTD_UI_NONE;
  data.fdwRevocationChecks = WTD_REVOKE_NONE;
  data.dwUnionChoice = WTD_CHOICE_FILE;
  data.pFile = &file;
  data.dwStateAction = WTD_STATEACTION_VERIFY;
  data.hWVTStateData = nullptr;
  data.pwszURLReference = nullptr;
  data.dwProvFlags = 0;
  data.dwUIContext = 0;

  GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
  // The verification state is released on every path, failed verifications
  // included: WinVerifyTrust keeps it until it is asked to close it.
  const ScopeExit closeState([&] {
    data.dwStateAction = WTD_STATEACTION_CLOSE;
    verify(nullptr, &action, &data);
  });
  return verify(nullptr, &action, &data);
}

namespace {

void LogTrustStatus(LONG status) {
  if (status != 0) WriteWrapperLogLine(L"[ERROR] WinVerifyTrust returned status: " + std::to_wstring(status));
}

bool LogPublisherSearch(const PublisherSearch& search) {
  switch (search.outcome) {
    case PublisherSearch::Outcome::SignatureUnreadable:
      WriteWrapperLogLine(L"[ERROR] CryptQueryObject returned false!");
      return false;
    case PublisherSearch::Outcome::NotFound:
      WriteWrapperLogLine(L"[ERROR] CertFindCertificateInStore returned ERROR: " + std::to_wstring(search.error));
      return false;
    case PublisherSearch::Outcome::Found:
      return true;
  }
  return false;  // GCOVR_EXCL_LINE every outcome is handled above
}

}  // namespace

bool VerifyTrust(const std::wstring& path, WinVerifyTrustFunction verify) {
  const LONG status = TrustStatus(path, verify);
  LogTrustStatus(status);
  return status == 0;
}

PublisherSearch SearchPublisher(const std::wstring& path, const wchar_t* publisher) {
  PublisherSearch search;
  DWORD encoding = 0;
  DWORD contentType = 0;
  DWORD formatType = 0;
  // Declared so that the store is closed before the message, the order the
  // query handed them out in.
  UniqueCryptMsg message;
  UniqueCertStore store;
  if (!::CryptQueryObject(CERT_QUERY_OBJECT_FILE, path.c_str(), CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED,
                          CERT_QUERY_FORMAT_FLAG_BINARY, 0, &encoding, &contentType, &formatType, store.put(),
                          message.put(), nullptr)) {
    search.error = ::GetLastError();
    return search;
  }

  const UniqueCertContext found(
      ::CertFindCertificateInStore(store.get(), encoding, 0, CERT_FIND_SUBJECT_STR_W, publisher, nullptr));
  if (!found) {
    search.outcome = PublisherSearch::Outcome::NotFound;
    search.error = ::GetLastError();
    return search;
  }
  search.outcome = PublisherSearch::Outcome::Found;
  return search;
}

bool SignatureNamesPublisher(const std::wstring& path, const wchar_t* publisher) {
  return LogPublisherSearch(SearchPublisher(path, publisher));
}

WinVerifyTrustFunction& TrustVerifier() {
  static WinVerifyTrustFunction verify = ::WinVerifyTrust;
  return verify;
}

SignatureFindings InspectSignature(const std::wstring& path) {
  SignatureFindings findings;
  findings.trust = TrustStatus(path, TrustVerifier());
  if (findings.trust == 0) findings.publisher = SearchPublisher(path, kSdkPublisher);
  return findings;
}

void LogSignatureFindings(const SignatureFindings& findings) {
  LogTrustStatus(findings.trust);
  if (findings.trust != 0) {
    WriteWrapperLogLine(L"[ERROR] VerifyCertificate failed!");
  } else if (findings.publisher) {
    LogPublisherSearch(*findings.publisher);
  }
}

bool VerifyCertificate(const std::wstring& path) {
  if (path.empty()) return true;
  const SignatureFindings findings = InspectSignature(path);
  LogSignatureFindings(findings);
  return findings.passed();
}

}  // namespace ambrel
