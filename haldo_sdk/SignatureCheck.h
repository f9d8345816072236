// The publisher check run before the SDK DLL is loaded: its Authenticode
// signature must verify, and a certificate carried in that signature must
// name the maker.
#pragma once

#include <windows.h>
#include <wintrust.h>

#include <optional>
#include <string>

namespace ambrel {

// The text a certificate subject must contain (any case, anywhere).
inline constexpr const wchar_t* kSdkPublisher = L"Tavrel, Inc";

// WinVerifyTrust's shape, so a test can watch the calls made through it.
using WinVerifyTrustFunction = LONG(WINAPI*)(HWND, GUID*, LPVOID);

// The WinVerifyTrust that VerifyCertificate calls. Replaceable so that a test
// can act while a check is in progress.
WinVerifyTrustFunction& TrustVerifier();

// Both stages; an empty path passes. Logs what failed.
bool VerifyCertificate(const std::wstring& path);

// WinVerifyTrust with the generic Authenticode action, no UI and no
// revocation check, always followed by the call that releases its state.
// Returns its status (0: verified); logs nothing.
LONG TrustStatus(const std::wstring& path, WinVerifyTrustFunction verify = ::WinVerifyTrust);

// TrustStatus, logging a failed status; true when it is 0.
bool VerifyTrust(const std::wstring& path, WinVerifyTrustFunction verify = ::WinVerifyTrust);

// The publisher search over the file's embedded signature; logs nothing.
// `error` is GetLastError() of the failed step.
struct PublisherSearch {
  enum class Outcome { SignatureUnreadable, NotFound, Found };
  Outcome outcome = Outcome::SignatureUnreadable;
  DWORD error = 0;
};
PublisherSearch SearchPublisher(const std::wstring& path, const wchar_t* publisher);

// Both stages as a record: the trust status, and the publisher search when
// the trust stage passed (it is not run otherwise). Uses TrustVerifier();
// logs nothing.
struct SignatureFindings {
  LONG trust = 0;
  std::optional<PublisherSearch> publisher;
  bool passed() const noexcept {
    return trust == 0 && publisher && publisher->outcome == PublisherSearch::Outcome::Found;
  }
};
SignatureFindings InspectSignature(const std::wstring& path);
// The lines VerifyCertificate writes for these findings (none when they pass).
void LogSignatureFindings(const SignatureFindings& findings);

// True when a certificate of the file's embedded signature has a subject
// containing `publisher`, compared without regard to case. Logs what failed.
bool SignatureNamesPublisher(const std::wstring& path, const wchar_t* publisher);

}  // namespace ambrel
