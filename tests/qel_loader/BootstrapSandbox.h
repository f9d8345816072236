// The sandbox every bootstrap test runs in: redirected HKLM/HKCU holding a
// shared-components entry for release 2026 and the location of the signed
// stand-in SDK, a scratch LOCALAPPDATA for the wrapper's log, the stand-in's
// record and config files, and every variable the bootstrap touches restored
// at the end.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/support/StandInSdk.h"
#include "tests/support/TestSupport.h"

namespace ambrel::test {

inline const std::wstring kSharedKey = L"SOFTWARE\\Tavrel\\SharedComponents\\2026";
inline const std::wstring kMarker = L"QEL_INITIALIZE_BYPASSED";
// The stand-in's calls for one whole session: start, lock, unlock, end.
inline const std::vector<std::string> kWholeSession = {"Initialize", "LockDirectory", "UnLockDirectory",
                                                       "Uninitialize"};

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

// The delay-load host (tests/qel_loader/delayload) alone in one folder, and a
// copy of Ambrel.dll in another (under `libraryParent`, e.g. R:\ for a
// development build), so the host's ordinary search never sees the library's
// folder.
class HostLayout {
 public:
  explicit HostLayout(const std::wstring& libraryParent = L"");
  const ScratchDir& libraryDir() const { return libraryDir_; }
  // Runs the host in `sandbox` and returns its "key: value" lines.
  std::map<std::string, std::string> Run(const BootstrapSandbox& sandbox, const std::wstring& mode,
                                         const std::wstring& folder = L"") const;
  // The same with another build of the host program (a file name beside the tests).
  std::map<std::string, std::string> RunHost(const std::wstring& program, const BootstrapSandbox& sandbox,
                                             const std::wstring& mode, const std::wstring& folder = L"") const;

 private:
  ScratchDir hostDir_;
  ScratchDir libraryDir_;
};

// The folder that holds the test programs and the test DLLs.
std::wstring BinFile(const std::wstring& name);
void CopyFileTo(const std::wstring& from, const std::wstring& to);

}  // namespace ambrel::test
