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

PublisherSearch SearchPublisher(const std::wstring& path, const wchar_t* publisher, SignatureSteps* steps) {
  PublisherSearch search;
  DWORD encoding = 0;
  DWORD contentType = 0;
  DWORD formatType = 0;
  // Declared so that the store is closed before the message, the order the
  // query handed them out in; both only after a failure has been reported.
  UniqueCryptMsg message;
  UniqueCertStore store;
  if (!::CryptQueryObject(CERT_QUERY_OBJECT_FILE, path.c_str(), CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED,
                          CERT_QUERY_FORMAT_FLAG_BINARY, 0, &encoding, &contentType, &formatType, store.put(),
                          message.put(), nullptr)) {
    search.error = ::GetLastError();
    if (steps) steps->SignatureUnreadable(search.error);
    return search;
  }

  const UniqueCertContext found(
      ::CertFindCertificateInStore(store.get(), encoding, 0, CERT_FIND_SUBJECT_STR_W, publisher, nullptr));
  if (!found) {
    search.outcome = PublisherSearch::Outcome::NotFound;
    search.error = ::GetLastError();
    if (steps) steps->PublisherNotFound(search.error);
    return search;
  }
  search.outcome = PublisherSearch::Outcome::Found;
  return search;
}

SignatureFindings InspectSignature(const std::wstring& path, SignatureSteps* steps) {
  SignatureFindings findings;
  findings.trust = TrustStatus(path, steps);
  if (findings.trust != 0) {
    if (steps) steps->TrustRejected();
    return findings;
  }
  findings.publisher = SearchPublisher(path, kSdkPublisher, steps);
  return findings;
}

void SignatureLog::TrustFailed(LONG status) {
  WriteWrapperLogLine(L"[ERROR] WinVerifyTrust returned status: " + std::to_wstring(status));
}

void SignatureLog::TrustRejected() { WriteWrapperLogLine(L"[ERROR] VerifyCertificate failed!"); }

void SignatureLog::SignatureUnreadable(DWORD /*error*/) {
  WriteWrapperLogLine(L"[ERROR] CryptQueryObject returned false!");
}

void SignatureLog::PublisherNotFound(DWORD error) {
  WriteWrapperLogLine(L"[ERROR] CertFindCertificateInStore returned ERROR: " + std::to_wstring(error));
}

bool VerifyCertificate(const std::wstring& path) {
  if (path.empty()) return true;
  SignatureLog log;
  return InspectSignature(path, &log).passed();
}

}  // namespace ambrel
