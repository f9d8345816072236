// What every wrapper test starts from: the empty SDK sandbox (registry,
// scratch LOCALAPPDATA and program-data folders, the stand-in's record, a
// fresh wrapper state) and a wrapper object.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "haldo_sdk/QelHaldoSdkWrapperImpl.h"
#include "haldo_sdk/QelHaldoSdkWrapperState.h"
#include "tests/support/SdkSandbox.h"
#include "tests/support/TestSupport.h"

namespace ambrel::test {

class WrapperTest : public ::testing::Test {
 protected:
  static std::string Path(const std::wstring& path) { return Narrow(path); }
  static std::string SdkPath(StandInKind kind) { return Narrow(StandInSdkPath(kind)); }

  static std::vector<std::string> SuccessfulInitializeLines(
      const std::string& dllPath, const std::string& sessionId = StandInSdk::kDefaultSessionId) {
    return SuccessfulInitializeLog(dllPath, sessionId);
  }

  SdkSandbox sandbox_;
  QelHaldoSdkWrapperImpl wrapper_;
};

}  // namespace ambrel::test
