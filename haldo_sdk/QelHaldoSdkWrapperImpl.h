// The wrapper over the installer SDK DLL. Instances hold no data: every one
// forwards to the one process-wide QelHaldoSdkWrapperState, so they share the
// loaded SDK, its session and the log.
#pragma once

#include "haldo_sdk/QelHaldoSdkWrapperInterface.h"

class QelHaldoSdkWrapperImpl : public QelHaldoSdkWrapperInterface {
 public:
  int Initialize(const std::string& plc, const std::string& release, const std::string& language) override;
  bool IsInitialized() override;
  int LockDirectory(const std::string& directoryToLock) override;
  int UnLockDirectory(const std::string& directoryToLock) override;
  int Uninitialize() override;
  QelHaldoSdkWrapperInterface* CreateInstance() override;
};
