// The publisher check run before the SDK DLL is loaded: its Authenticode
// signature must verify, and a certificate carried in that signature must
// name the maker.
#pragma once

#include <windows.h>
#include <wintrust.h>

#include <optional>
#include <string>

#include "common/WinResource.h"

namespace ambrel {

// The text a certificate subject must contain (any case, anywhere).
inline constexpr const wchar_t* kSdkPublisher = L"Tavrel, Inc";

// Told of the two moments of the check that a log line must come before the
// next call: the file is about to be verified, and the verification failed
// while its state is still held (the call that releases it comes next).
// Everything else a caller reports from the record the check hands back.
class SignatureSteps {
 public:
  SignatureSteps() = default;
  SignatureSteps(const SignatureSteps&) = delete;
  SignatureSteps& operator=(const SignatureSteps&) = delete;
  SignatureSteps(SignatureSteps&&) = delete;
  SignatureSteps& operator=(SignatureSteps&&) = delete;
  virtual ~SignatureSteps() = default;
  virtual void VerifyingNext(const std::wstring& path) = 0;
  virtual void TrustFailed(LONG status) = 0;
};

// The wrapper's log lines of the check: a failed trust status, written while
// its state is held. `VerifyingNext` writes nothing.
class SignatureLog : public SignatureSteps {
 public:
  void VerifyingNext(const std::wstring& path) override;
  void TrustFailed(LONG status) override;
};

// WinVerifyTrust with the generic Authenticode action, no UI and no
// revocation check, always followed by the call that releases its state.
// Returns its status (0: verified).
LONG TrustStatus(const std::wstring& path, SignatureSteps* steps = nullptr);

// The publisher search over the file's embedded signature. The record holds
// the certificate store and message the query handed out until it is
// destroyed (the store closed first, then the message), so a caller reports
// a failure before they are closed by writing it while the record lives.
// `error` is GetLastError() of the failed step.
struct PublisherSearch {
  enum class Outcome { SignatureUnreadable, NotFound, Found };
  Outcome outcome = Outcome::SignatureUnreadable;
  DWORD error = 0;
  UniqueCryptMsg message;  // declared before the store, so closed after it
  UniqueCertStore store;
  bool found() const noexcept { return outcome == Outcome::Found; }
};
PublisherSearch SearchPublisher(const std::wstring& path, const wchar_t* publisher);

// The publisher search's log line for a failure; none when found.
void LogPublisherSearch(const PublisherSearch& search);

// Both stages as a record: the trust status, and the publisher search when
// the trust stage passed (it is not run otherwise), with what that search
// holds open.
struct SignatureFindings {
  LONG trust = 0;
  std::optional<PublisherSearch> publisher;
  bool passed() const noexcept { return trust == 0 && publisher && publisher->found(); }
};
SignatureFindings InspectSignature(const std::wstring& path, SignatureSteps* steps = nullptr);

// The wrapper's lines after the check: "VerifyCertificate failed!" for a
// failed trust stage, else the publisher search's line. Written while
// `findings` holds the store and message, so they are closed after it.
void LogSignatureFindings(const SignatureFindings& findings);

// Both stages; an empty path passes. Logs what failed, each line at its step.
bool VerifyCertificate(const std::wstring& path);

}  // namespace ambrel
