// Whether the Ambrel.dll being judged is signed, and by whom. Worth knowing
// when a host's installer or an application-control policy refuses it; the
// bootstrap itself never looks at its own signature, so the check does not
// change what InitializeQel would do.
#pragma once

#include <string>

#include "common/WinResource.h"
#include "diagnose/Checks.h"

namespace ambrel::diagnose {

// The certificate that made the file's embedded signature (the signer, not
// any other certificate the signature carries); null when the file carries
// no readable signature. Its store holds the other certificates carried.
UniqueCertContext SignerCertificate(const std::wstring& file);

// The signer's subject as X.500 text ("CN=..., O=..."); empty when the file
// carries no readable signature.
std::wstring SignerSubject(const std::wstring& file);

// The `library.signature` check: WinVerifyTrust on `library`, as the wrapper
// calls it for the SDK, and the signer's subject. Info when unsigned.
Check CheckLibrarySignature(const std::wstring& library);

}  // namespace ambrel::diagnose
