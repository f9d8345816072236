// Wrapper tests over stand-ins of the WINTRUST.DLL and CRYPT32.DLL functions
// (TrustStandIn.cpp): each test patches the library's imports of them, so the
// signature check's calls reach the stand-ins, which record each call with
// the wrapper log's last line at that moment.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/haldo_sdk/WrapperTest.h"
#include "tests/support/ImportPatch.h"

namespace ambrel::test {

// One system function the signature check imports, and its stand-in.
struct StandInImport {
  const char* dll;
  const char* function;
  void* standIn;
};
const std::vector<StandInImport>& TrustStandIns();

class TrustStandInTest : public WrapperTest {
 protected:
  // A call as the stand-ins saw it: its name (and arguments), and the log's
  // last message then, without its timestamp.
  using Call = std::pair<std::string, std::string>;

  TrustStandInTest();

  // The calls so far, in order.
  std::vector<Call> Calls() const;
  // What the stand-ins answer (see TrustStandIn.cpp).
  void SetTrustStatus(long status) { env_.Set(L"AMBREL_TRUST_STANDIN_STATUS", std::to_wstring(status)); }
  void SetSignature(const wchar_t* kind) { env_.Set(L"AMBREL_TRUST_STANDIN_SIGNATURE", kind); }
  void SetChange(const wchar_t* kind) { env_.Set(L"AMBREL_TRUST_STANDIN_CHANGE", kind); }

 private:
  ScratchDir records_;
  std::vector<std::unique_ptr<ImportPatch>> patches_;
  EnvGuard env_{L"AMBREL_TRUST_STANDIN_RECORD", L"AMBREL_TRUST_STANDIN_STATUS", L"AMBREL_TRUST_STANDIN_SIGNATURE",
                L"AMBREL_TRUST_STANDIN_CHANGE"};
};

}  // namespace ambrel::test
