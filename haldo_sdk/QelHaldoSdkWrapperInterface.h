// The session's only way to the installer SDK. Kept abstract so that tests can
// put a double in the wrapper's place; the slot order is part of the contract.
#pragma once

#include <string>

class QelHaldoSdkWrapperInterface {
 public:
  QelHaldoSdkWrapperInterface() = default;
  QelHaldoSdkWrapperInterface(const QelHaldoSdkWrapperInterface&) = delete;
  QelHaldoSdkWrapperInterface& operator=(const QelHaldoSdkWrapperInterface&) = delete;
  QelHaldoSdkWrapperInterface(QelHaldoSdkWrapperInterface&&) = delete;
  QelHaldoSdkWrapperInterface& operator=(QelHaldoSdkWrapperInterface&&) = delete;
  // Starts an SDK session for a product line, release and language.
  virtual int Initialize(const std::string& plc, const std::string& release, const std::string& language) = 0;
  // True while an SDK session is held.
  virtual bool IsInitialized() = 0;
  virtual int LockDirectory(const std::string& directoryToLock) = 0;
  virtual int UnLockDirectory(const std::string& directoryToLock) = 0;
  // Ends the SDK session and unloads the SDK.
  virtual int Uninitialize() = 0;
  // A further wrapper over the same process-wide state; the caller owns it.
  virtual QelHaldoSdkWrapperInterface* CreateInstance() = 0;
  virtual ~QelHaldoSdkWrapperInterface() = default;
};
