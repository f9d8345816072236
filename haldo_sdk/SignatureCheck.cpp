#include "haldo_sdk/SignatureCheck.h"

#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include "haldo_sdk/WrapperLog.h"
#include "common/ScopeExit.h"
#include "common/WinResource.h"

namespace ambrel {

LONG TrustStatus(const std::wstring& path, SignatureSteps* steps) {
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
  // included: WinVerifyTrust keeps it until it is asked to close it. A failed
  // status is reported before that close.
  const ScopeExit closeState([&] {
    data.dwStateAction = WTD_STATEACTION_CLOSE;
    ::WinVerifyTrust(nullptr, &action, &data);
  });
  const LONG status = ::WinVerifyTrust(nullptr, &action, &data);
  if (status != 0 && steps) steps->TrustFailed(status);
  return status;
}

PublisherSearch SearchPublisher(const std::wstring& path, const wchar_t* publisher) {
  PublisherSearch search;
  DWORD encoding = 0;
  DWORD contentType = 0;
  DWORD formatType = 0;
  if (!::CryptQueryObject(CERT_QUERY_OBJECT_FILE, path.c_str(), CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED,
                          CERT_QUERY_FORMAT_FLAG_BINARY, 0, &encoding, &contentType, &formatType, search.store.put(),
                          search.message.put(), nullptr)) {
    search.error = ::GetLastError();
    return search;
  }

  // Only whether one certificate matches counts: the match is freed at once.
  const UniqueCertContext found(
      ::CertFindCertificateInStore(search.store.get(), encoding, 0, CERT_FIND_SUBJECT_STR_W, publisher, nullptr));
  if (!found) {
    search.outcome = PublisherSearch::Outcome::NotFound;
    search.error = ::GetLastError();
    return search;
  }
  search.outcome = PublisherSearch::Outcome::Found;
  return search;
}

SignatureFindings InspectSignature(const std::wstring& path, SignatureSteps* steps) {
  SignatureFindings findings;
  if (steps) steps->VerifyingNext(path);
  findings.trust = TrustStatus(path, steps);
  if (findings.trust != 0) return findings;
  findings.publisher.emplace(SearchPublisher(path, kSdkPublisher));
  return findings;
}

void SignatureLog::VerifyingNext(const std::wstring& /*path*/) {}

void SignatureLog::TrustFailed(LONG status) {
  WriteWrapperLogLine(L"[ERROR] WinVerifyTrust returned status: " + std::to_wstring(status));
}

void LogPublisherSearch(const PublisherSearch& search) {
  switch (search.outcome) {
    case PublisherSearch::Outcome::SignatureUnreadable:
      WriteWrapperLogLine(L"[ERROR] CryptQueryObject returned false!");
      break;
    case PublisherSearch::Outcome::NotFound:
      WriteWrapperLogLine(L"[ERROR] CertFindCertificateInStore returned ERROR: " + std::to_wstring(search.error));
      break;
    case PublisherSearch::Outcome::Found: break;
  }
}

void LogSignatureFindings(const SignatureFindings& findings) {
  if (findings.trust != 0) {
    WriteWrapperLogLine(L"[ERROR] VerifyCertificate failed!");
  } else if (findings.publisher) {
    LogPublisherSearch(*findings.publisher);
  }
}

bool VerifyCertificate(const std::wstring& path) {
  if (path.empty()) return true;
  SignatureLog log;
  // The findings hold the certificate store and message until the end of
  // this scope: a failed search is logged before they are closed.
  const SignatureFindings findings = InspectSignature(path, &log);
  LogSignatureFindings(findings);
  return findings.passed();
}

}  // namespace ambrel
