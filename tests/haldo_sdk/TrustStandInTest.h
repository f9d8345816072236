// Wrapper tests over the stand-in WINTRUST.DLL and CRYPT32.DLL
// (TrustStandIn.cpp): the program runs with WINEDLLOVERRIDES=wintrust,crypt32=n,
// so the signature check's calls reach the stand-ins, which record each call
// with the wrapper log's last line at that moment.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tests/haldo_sdk/WrapperTest.h"

namespace ambrel::test {

class TrustStandInTest : public WrapperTest {
 protected:
  // A call as the stand-ins saw it: its name (and arguments), and the log's
  // last message then, without its timestamp.
  using Call = std::pair<std::string, std::string>;

  TrustStandInTest();
  void SetUp() override;

  // The calls so far, in order.
  std::vector<Call> Calls() const;
  // What the stand-ins answer (see TrustStandIn.cpp).
  void SetTrustStatus(long status) { env_.Set(L"AMBREL_TRUST_STANDIN_STATUS", std::to_wstring(status)); }
  void SetSignature(const wchar_t* kind) { env_.Set(L"AMBREL_TRUST_STANDIN_SIGNATURE", kind); }
  void SetChange(const wchar_t* kind) { env_.Set(L"AMBREL_TRUST_STANDIN_CHANGE", kind); }

 private:
  ScratchDir records_;
  EnvGuard env_{L"AMBREL_TRUST_STANDIN_RECORD", L"AMBREL_TRUST_STANDIN_STATUS", L"AMBREL_TRUST_STANDIN_SIGNATURE",
                L"AMBREL_TRUST_STANDIN_CHANGE"};
};

}  // namespace ambrel::test
