// The one process-wide state behind every wrapper instance: the loaded SDK,
// where it was found, where the log goes and the SDK session being held.
#pragma once

#include <windows.h>

#include <string>

namespace ambrel {

struct QelHaldoSdkWrapperState {
  HMODULE module = nullptr;  // null while the SDK is not loaded
  std::wstring dllPath;      // found once, then kept for the life of the process
  std::wstring logPath;      // empty until the log is first opened
  std::string sessionId;     // non-empty exactly while a session is held
};

// Constructed on first use, destroyed at unload; its destructor does not
// unload the SDK (the module may still be in use by the loader at that point).
QelHaldoSdkWrapperState& WrapperState();

}  // namespace ambrel
