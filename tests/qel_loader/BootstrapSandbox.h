// The sandbox every bootstrap test runs in: redirected HKLM/HKCU holding a
// shared-components entry for release 2026 and the location of the signed
// stand-in SDK, a scratch LOCALAPPDATA for the wrapper's log, the stand-in's
// record and config files, and every variable the bootstrap touches restored
// at the end.
#pragma once

#include <string>
#include <vector>

#include "tests/support/StandInSdk.h"
#include "tests/support/TestSupport.h"

namespace ambrel::test {

inline const std::wstring kSharedKey = L"SOFTWARE\\Tavrel\\SharedComponents\\2026";
inline const std::wstring kMarker = L"QEL_INITIALIZE_BYPASSED";

class BootstrapSandbox {
 public:
  BootstrapSandbox();

  // InstallPath\Version, the folder the session hands out.
  const std::wstring& sharedDir() const { return sharedDir_; }
  const ScratchDir& scratch() const { return scratch_; }
  EnvGuard& env() { return env_; }
  const RegistrySandbox& registry() const { return registry_; }
  StandInSdk& sdk() { return sdk_; }

  // The stand-in SDK's calls so far, by export name, in order; loading and
  // ReleaseMemory are left out unless `all`.
  std::vector<std::string> SdkCalls(bool all = false) const;
  // Points the override at `location` (EnablePathOverride=1, QEL_PATH_2026).
  void OverrideLocation(const std::wstring& location);
  // The wrapper's log lines; empty when it was never written.
  std::vector<std::string> WrapperLog() const { return log_.Lines(); }

 private:
  RegistrySandbox registry_;
  ScratchDir scratch_;
  EnvGuard env_{L"PATH", L"QEL_INITIALIZE_BYPASSED", L"QEL_PATH_2026"};
  StandInSdk sdk_;
  WrapperLogFolder log_;
  std::wstring sharedDir_;
};

// The folder that holds the test programs and the test DLLs.
std::wstring BinFile(const std::wstring& name);
void CopyFileTo(const std::wstring& from, const std::wstring& to);

}  // namespace ambrel::test
