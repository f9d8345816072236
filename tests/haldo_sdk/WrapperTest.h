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

// Log lines the wrapper writes as they stand, shared by its tests.
inline const std::string kArgsLine =
    "[INFO] HALDOAPIWrapperImpl::Initialize: plc = \"QEL\", release = \"2026\", language = \"neutral\"";
inline const std::string kLoadedLine = "[INFO] HALDOAPIWrapperImpl::Initialize: HALDO SDK loaded successfully";
inline const std::string kUnloadedLine = "[INFO] HALDOAPIWrapperImpl::Initialize: HALDO SDK unloaded successfully";
inline const std::string kLoadFailedLine = "[ERROR] HALDOAPIWrapperImpl::Initialize: Failed to load SDK! ";
inline const std::string kPathEmptyLine = "[ERROR] Load: dll path empty!";

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
