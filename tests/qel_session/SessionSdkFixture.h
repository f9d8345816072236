// The set-up shared by the session tests that run the real wrapper over the
// stand-in SDK: a registry sandbox, scratch log and program-data folders, the
// stand-in's steering, a scratch folder and a message capture, with the
// bypass and override variables unset and the wrapper's state fresh.
#pragma once

#include <gtest/gtest.h>

#include "tests/qel_session/SessionTestSupport.h"
#include "tests/support/StandInSdk.h"

namespace ambrel::test {

class SessionWithStandInSdk : public ::testing::Test {
 protected:
  SessionWithStandInSdk() {
    env_.Unset(L"QEL_INITIALIZE_BYPASSED");
    env_.Unset(L"QEL_PATH_2026");
  }
  void SetUp() override { ResetWrapperState(); }
  void TearDown() override { ResetWrapperState(); }

  RegistrySandbox sandbox_;
  WrapperLogFolder log_;
  ProgramDataFolder programData_;
  StandInSdk sdk_;
  EnvGuard env_;
  ScratchDir dir_;
  SinkCapture sink_;
};

}  // namespace ambrel::test
