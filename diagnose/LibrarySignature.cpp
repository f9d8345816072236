#include "diagnose/LibrarySignature.h"

#include <windows.h>
#include <wincrypt.h>

#include <cstdint>
#include <vector>

#include "common/TextConvert.h"
#include "common/WinResource.h"
#include "diagnose/Hex.h"
#include "haldo_sdk/SignatureCheck.h"

namespace ambrel::diagnose {
namespace {

// The subject name of `certificate` as X.500 text.
std::wstring SubjectText(PCCERT_CONTEXT certificate) {
  CERT_NAME_BLOB& subject = certificate->pCertInfo->Subject;
  const DWORD type = CERT_X500_NAME_STR;
  const DWORD size = ::CertNameToStrW(certificate->dwCertEncodingType, &subject, type, nullptr, 0);
  if (size <= 1) return {};
  std::wstring text(size, L'\0');
  ::CertNameToStrW(certificate->dwCertEncodingType, &subject, type, text.data(), size);
  text.resize(size - 1);  // the count includes the terminating NUL
  return text;
}

}  // namespace

UniqueCertContext SignerCertificate(const std::wstring& file) {
  DWORD encoding = 0;
  UniqueCryptMsg message;
  UniqueCertStore store;
  if (!::CryptQueryObject(CERT_QUERY_OBJECT_FILE, file.c_str(), CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED,
                          CERT_QUERY_FORMAT_FLAG_BINARY, 0, &encoding, nullptr, nullptr, store.put(), message.put(),
                          nullptr)) {
    return {};
  }
  // The signer is named by issuer and serial number; its certificate is
  // among those the signature carries.
  DWORD size = 0;
  if (!::CryptMsgGetParam(message.get(), CMSG_SIGNER_CERT_INFO_PARAM, 0, nullptr, &size) || size == 0) return {};
  std::vector<unsigned char> signerInfo(size);
  if (!::CryptMsgGetParam(message.get(), CMSG_SIGNER_CERT_INFO_PARAM, 0, signerInfo.data(), &size)) return {};
  return UniqueCertContext(
      ::CertFindCertificateInStore(store.get(), encoding, 0, CERT_FIND_SUBJECT_CERT, signerInfo.data(), nullptr));
}

std::wstring SignerSubject(const std::wstring& file) {
  const UniqueCertContext signer = SignerCertificate(file);
  return signer ? SubjectText(signer.get()) : std::wstring();
}

Check CheckLibrarySignature(const std::wstring& library) {
  const LONG status = TrustStatus(library);
  const std::wstring signer = SignerSubject(library);
  const std::string hex = Hex(static_cast<std::uint32_t>(status));
  Check check{"library.signature", Verdict::Info, {}, {}};
  if (status == 0) {
    check.verdict = Verdict::Ok;
    check.text = "signed by \"" + WideToUtf8(signer) + "\" (WinVerifyTrust 0)";
  } else if (signer.empty()) {
    check.text = "not signed (WinVerifyTrust " + hex + ")";
  } else {
    check.verdict = Verdict::Warn;
    check.text =
        "signed by \"" + WideToUtf8(signer) + "\", but the signature does not verify (WinVerifyTrust " + hex + ")";
  }
  check.fields = {{"status", std::int64_t{status}},
                  {"statusHex", hex},
                  {"verified", status == 0},
                  {"signer", signer.empty() ? Value(nullptr) : Value(WideToUtf8(signer))}};
  return check;
}

}  // namespace ambrel::diagnose
