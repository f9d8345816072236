// The one process-wide state behind every wrapper instance: the loaded SDK,
// where it was found, where the log goes and the SDK session being held.
#pragma once

#include <windows.h>

#include <string>

#include "common/WinResource.h"

namespace ambrel {

struct QelHaldoSdkWrapperState {
  QelHaldoSdkWrapperState() = default;
  // At unload the SDK stays loaded: the loader may still be using it then.
  ~QelHaldoSdkWrapperState() { (void)module.release(); }
  QelHaldoSdkWrapperState(const QelHaldoSdkWrapperState&) = delete;
  QelHaldoSdkWrapperState& operator=(const QelHaldoSdkWrapperState&) = delete;
  QelHaldoSdkWrapperState(QelHaldoSdkWrapperState&&) = delete;
  QelHaldoSdkWrapperState& operator=(QelHaldoSdkWrapperState&&) = delete;

  UniqueModule module;    // empty while the SDK is not loaded
  std::wstring dllPath;   // found once, then kept for the life of the process
  std::wstring logPath;   // empty until the log is first opened
  std::string sessionId;  // non-empty exactly while a session is held
};

// Constructed on first use, destroyed at unload.
QelHaldoSdkWrapperState& WrapperState();

}  // namespace ambrel
