// The one sandbox for every test, benchmark and soak run that drives the
// installer SDK wrapper, from a single wrapper call to a whole bootstrap:
// - HKLM/HKCU redirected to scratch keys;
// - PATH, QEL_INITIALIZE_BYPASSED and QEL_PATH_2026 restored at the end, the
//   last two unset at the start;
// - a scratch LOCALAPPDATA with the wrapper log's folder, and a scratch
//   program-data folder for the installer's self-update lock;
// - the stand-in SDK's steering and call record (or, for long runs, no
//   record at all);
// - with Contents::Installed, a shared-components entry for release 2026
//   over existing scratch folders and the signed stand-in as the SDK;
// - the wrapper's process-wide state reset at the start and at the end, as
//   in a fresh process.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tests/support/StandInSdk.h"
#include "tests/support/TestSupport.h"

namespace ambrel::test {

inline const std::wstring kMarker = L"QEL_INITIALIZE_BYPASSED";
// The Version an installed sandbox registers.
inline const std::wstring kSharedVersion = L"2026.1";
// The stand-in's calls for one whole session: start, lock, unlock, end.
inline const std::vector<std::string> kWholeSession = {"Initialize", "LockDirectory", "UnLockDirectory",
                                                       "Uninitialize"};

class SdkSandbox {
 public:
  enum class Contents { Empty, Installed };
  enum class Record { Calls, Nothing };

  explicit SdkSandbox(Contents contents = Contents::Empty, Record record = Record::Calls);
  ~SdkSandbox();
  SdkSandbox(const SdkSandbox&) = delete;
  SdkSandbox& operator=(const SdkSandbox&) = delete;

  const RegistrySandbox& registry() const { return registry_; }
  EnvGuard& env() { return env_; }
  const WrapperLogFolder& log() const { return log_; }
  const ProgramDataFolder& programData() const { return programData_; }
  const ScratchDir& scratch() const { return scratch_; }
  // The stand-in's steering and record; throws with Record::Nothing.
  StandInSdk& sdk();
  const StandInSdk& sdk() const;

  // InstallPath\Version of an installed sandbox: the folder a session hands out.
  const std::wstring& sharedDir() const { return sharedDir_; }
  // The stand-in SDK's calls so far, by export name, in order; loading and
  // ReleaseMemory are left out unless `all`.
  std::vector<std::string> SdkCalls(bool all = false) const;
  // Points the override at `location` (EnablePathOverride=1, QEL_PATH_2026).
  void OverrideLocation(const std::wstring& location);
  // Rewrites the registry's Version value (e.g. one naming no folder).
  static void SetVersion(const std::wstring& version);

 private:
  RegistrySandbox registry_;
  EnvGuard env_{L"PATH", L"QEL_INITIALIZE_BYPASSED", L"QEL_PATH_2026"};
  WrapperLogFolder log_;
  ProgramDataFolder programData_;
  ScratchDir scratch_;
  std::optional<StandInSdk> sdk_;
  std::wstring sharedDir_;
};

}  // namespace ambrel::test
