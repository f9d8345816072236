#include "haldo_sdk/QelHaldoSdkWrapperImpl.h"

#include <windows.h>

#include "haldo_sdk/QelHaldoSdkWrapperState.h"
#include "haldo_sdk/SdkEntryPoints.h"
#include "haldo_sdk/SdkModule.h"
#include "haldo_sdk/WrapperLog.h"
#include "haldo_sdk/WrapperStatus.h"
#include "common/ModuleHelpers.h"

// The wrapper classes live outside the library's namespace; their helpers do not.
namespace ambrel {
namespace {

// The SDK's entry points, bound by name at each call.
using SdkInitializeFunction = int (*)(const char* plc, const char* release, const char* language, char** sessionId);
using SdkReleaseMemoryFunction = int (*)(const char* sessionId, char** memory);
using SdkUninitializeFunction = int (*)(const char* sessionId);
using SdkDirectoryFunction = int (*)(const char* sessionId, const char* directory);

// No module counts as a missing export.
template <typename Function>
Function BindSdkExport(const QelHaldoSdkWrapperState& state, const char* name) {
  if (!state.module) return nullptr;
  return GetExport<Function>(state.module.get(), name);
}

// LockDirectory and UnLockDirectory differ only in the export, whose name
// also begins their log messages.
int CallDirectoryExport(const std::string& directory, const std::string& exportName) {
  const QelHaldoSdkWrapperState& state = WrapperState();
  if (directory.empty()) {
    LogWrapperError(exportName + ": Argument \"directoryToLock \" is empty!");
    return kWrapperArgumentMissing;
  }
  const auto function = BindSdkExport<SdkDirectoryFunction>(state, exportName.c_str());
  if (!function) {
    LogWrapperError(exportName + ": Failed to obtain " + exportName + "Func handle!");
    return kWrapperExportMissing;
  }
  const int result = function(state.sessionId.c_str(), directory.c_str());
  if (result != 0) LogWrapperError(exportName + ": API returned error code " + std::to_string(result));
  return result;
}

// Undoes what an interrupted Initialize started: ends the SDK session when
// one started (under the id the wrapper kept, else the SDK's own copy of it),
// gives back the memory the SDK handed out and unloads the SDK. Allocates
// nothing, so running out of memory cannot stop it.
void UndoInitialize(QelHaldoSdkWrapperState& state, bool started, char* returnedId) noexcept {
  const char* id = !state.sessionId.empty() ? state.sessionId.c_str() : (returnedId ? returnedId : "");
  if (const auto uninitialize = BindSdkExport<SdkUninitializeFunction>(state, kSdkUninitializeExport);
      started && uninitialize)
    uninitialize(id);
  if (const auto releaseMemory = BindSdkExport<SdkReleaseMemoryFunction>(state, kSdkReleaseMemoryExport);
      returnedId && releaseMemory)
    releaseMemory(id, &returnedId);
  state.sessionId.clear();
  state.module.reset();
}

}  // namespace
}  // namespace ambrel

int QelHaldoSdkWrapperImpl::Initialize(const std::string& plc, const std::string& release,
                                       const std::string& language) {
  ambrel::QelHaldoSdkWrapperState& state = ambrel::WrapperState();
  if (!state.sessionId.empty()) return ambrel::kWrapperAlreadyInitialized;

  ambrel::OpenWrapperLog();
  if (plc.empty() || release.empty()) {
    ambrel::LogWrapperError("Initialize: Either \"plc\" or \"release\" argument absent!");
    return ambrel::kWrapperArgumentMissing;
  }
  ambrel::LogWrapperInfo("Initialize: plc = \"" + plc + "\", release = \"" + release + "\", language = \"" + language +
                         "\"");

  int loadCode = ambrel::kWrapperSdkNotLoaded;
  if (!ambrel::LoadSdk(loadCode)) {
    ambrel::LogWrapperError("Initialize: Failed to load SDK! ");
    return loadCode;
  }
  // Null before the call, so an SDK that fails without writing it hands
  // ReleaseMemory a null pointer rather than stack garbage.
  char* returnedId = nullptr;
  bool started = false;
  try {
    ambrel::LogWrapperInfo("Initialize: HALDO SDK loaded successfully");

    const auto initialize = ambrel::BindSdkExport<ambrel::SdkInitializeFunction>(state, ambrel::kSdkInitializeExport);
    if (!initialize) {
      ambrel::LogWrapperError("Initialize: Failed to obtain InitializeFunc handle!");
      return ambrel::kWrapperExportMissing;
    }

    const int result = initialize(plc.c_str(), release.c_str(), language.c_str(), &returnedId);
    started = result == 0;
    if (started) {
      const std::string id = returnedId ? returnedId : "";
      ambrel::LogWrapperInfo("Initialize: session id = " + id);
      state.sessionId = id;
    }

    if (const auto releaseMemory =
            ambrel::BindSdkExport<ambrel::SdkReleaseMemoryFunction>(state, ambrel::kSdkReleaseMemoryExport)) {
      releaseMemory(state.sessionId.c_str(), &returnedId);
    } else {
      ambrel::LogWrapperError("ReleaseMemory: Failed to obtain ReleaseMemoryFunc handle!");
    }
    return result;
  } catch (...) {
    // Out of memory midway (a log line, the copy of the session id): what
    // this call started is undone, so the failed Initialize leaves neither an
    // SDK session nor the SDK loaded behind it.
    ambrel::UndoInitialize(state, started, returnedId);
    throw;
  }
}

bool QelHaldoSdkWrapperImpl::IsInitialized() { return !ambrel::WrapperState().sessionId.empty(); }

int QelHaldoSdkWrapperImpl::LockDirectory(const std::string& directoryToLock) {
  return ambrel::CallDirectoryExport(directoryToLock, ambrel::kSdkLockDirectoryExport);
}

int QelHaldoSdkWrapperImpl::UnLockDirectory(const std::string& directoryToLock) {
  return ambrel::CallDirectoryExport(directoryToLock, ambrel::kSdkUnLockDirectoryExport);
}

int QelHaldoSdkWrapperImpl::Uninitialize() {
  ambrel::QelHaldoSdkWrapperState& state = ambrel::WrapperState();
  if (state.sessionId.empty()) {
    ambrel::LogWrapperError("Uninitialize: Not initialized!");
    return ambrel::kWrapperNotInitialized;
  }
  const auto uninitialize =
      ambrel::BindSdkExport<ambrel::SdkUninitializeFunction>(state, ambrel::kSdkUninitializeExport);
  if (!uninitialize) {
    ambrel::LogWrapperError("Uninitialize: Failed to obtain UninitializeFunc handle!");
    return ambrel::kWrapperExportMissing;
  }
  const int result = uninitialize(state.sessionId.c_str());
  if (result == 0) state.sessionId.clear();

  // The SDK is unloaded whatever it answered; a later Initialize loads it again.
  // The state forgets the module before FreeLibrary answers: a failed unload
  // leaves nothing the wrapper could still use.
  const HMODULE module = state.module.release();
  if (module && !::FreeLibrary(module)) {
    ambrel::LogWrapperError("Uninitialize: Unload failed!");
    return ambrel::kWrapperUnloadFailed;
  }
  ambrel::LogWrapperInfo("Initialize: HALDO SDK unloaded successfully");
  return result;
}

QelHaldoSdkWrapperInterface* QelHaldoSdkWrapperImpl::CreateInstance() { return new QelHaldoSdkWrapperImpl(); }
