// A complete installation of release 2026 for runs of whole sessions outside
// the unit tests (benchmarks, soak): the registry sandbox with the
// shared-components entry (InstallPath, Version "1.0", EnablePathOverride 0)
// over existing scratch folders and the location of the signed stand-in SDK;
// scratch LOCALAPPDATA and program-data folders; and none of the variables
// that would bypass the session, override the folder or make the stand-in
// record its calls. Everything is undone at the end of the scope.
#pragma once

#include <string>

#include "tests/support/StandInSdk.h"
#include "tests/support/TestSupport.h"

namespace ambrel::test {

class SessionSandbox {
 public:
  SessionSandbox();
  SessionSandbox(const SessionSandbox&) = delete;
  SessionSandbox& operator=(const SessionSandbox&) = delete;

  // InstallPath\1.0: the folder a session hands out.
  const std::wstring& versionFolder() const { return versionFolder_; }
  const WrapperLogFolder& log() const { return log_; }
  const ProgramDataFolder& programData() const { return programData_; }
  // Rewrites the registry's Version value (e.g. one naming no folder).
  static void SetVersion(const std::wstring& version);

 private:
  RegistrySandbox registry_;
  EnvGuard env_;
  WrapperLogFolder log_;
  ProgramDataFolder programData_;
  ScratchDir install_;
  std::wstring versionFolder_;
};

}  // namespace ambrel::test
