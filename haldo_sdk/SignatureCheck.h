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

// Told of the check's failures as they happen: each call comes before the
// check releases what the failed step handed out, so a log line written there
// precedes the close that follows it.
class SignatureSteps {
 public:
  SignatureSteps() = default;
  SignatureSteps(const SignatureSteps&) = delete;
  SignatureSteps& operator=(const SignatureSteps&) = delete;
  SignatureSteps(SignatureSteps&&) = delete;
  SignatureSteps& operator=(SignatureSteps&&) = delete;
  virtual ~SignatureSteps() = default;
  // WinVerifyTrust answered `status` (not 0); the call that releases its
  // state comes next.
  virtual void TrustFailed(LONG status) = 0;
  // The trust stage failed and its state is released; the publisher stage
  // will not run.
  virtual void TrustRejected() = 0;
  // CryptQueryObject could not read the embedded signature (`error`).
  virtual void SignatureUnreadable(DWORD error) = 0;
  // No certificate names the publisher (`error` is GetLastError() of the
  // search); the store and the message are closed next.
  virtual void PublisherNotFound(DWORD error) = 0;
};

// The wrapper's log lines for those failures, each written at its step.
class SignatureLog final : public SignatureSteps {
 public:
  void TrustFailed(LONG status) override;
  void TrustRejected() override;
  void SignatureUnreadable(DWORD error) override;
  void PublisherNotFound(DWORD error) override;
};

// Both stages; an empty path passes. Logs what failed, as it fails.
bool VerifyCertificate(const std::wstring& path);

// WinVerifyTrust with the generic Authenticode action, no UI and no
// revocation check, always followed by the call that releases its state.
// Returns its status (0: verified).
LONG TrustStatus(const std::wstring& path, SignatureSteps* steps = nullptr);

// The publisher search over the file's embedded signature.
// `error` is GetLastError() of the failed step.
struct PublisherSearch {
  enum class Outcome { SignatureUnreadable, NotFound, Found };
  Outcome outcome = Outcome::SignatureUnreadable;
  DWORD error = 0;
};
PublisherSearch SearchPublisher(const std::wstring& path, const wchar_t* publisher, SignatureSteps* steps = nullptr);

// Both stages as a record: the trust status, and the publisher search when
// the trust stage passed (it is not run otherwise).
struct SignatureFindings {
  LONG trust = 0;
  std::optional<PublisherSearch> publisher;
  bool passed() const noexcept {
    return trust == 0 && publisher && publisher->outcome == PublisherSearch::Outcome::Found;
  }
};
SignatureFindings InspectSignature(const std::wstring& path, SignatureSteps* steps = nullptr);

}  // namespace ambrel
