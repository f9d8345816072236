// The short conversation with the installer SDK that finds the shared
// components' folder and has the installer lock it while the host prepares
// itself: construct, Initialize, then (on 0) LockInstallLocation and
// Uninitialize, then destroy. Used by one thread at a time; never throws for a
// registry, environment or SDK failure. What can leave it: std::bad_alloc and
// std::length_error, and from Initialize the wrapper's
// std::filesystem::filesystem_error ("exists") when the installer's
// self-update lock file cannot be tested for an unexpected reason, or
// ("temp_directory_path") when neither the program-data folder nor the
// temporary directory can be had to look for it.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>

#include "haldo_sdk/QelHaldoSdkWrapperInterface.h"
#include "haldo_sdk/WrapperStatus.h"
#include "qel_session/InstallLocation.h"
#include "qel_session/QelStatus.h"

class QelSession {
 public:
  // Creates its own QelHaldoSdkWrapperImpl; touches no registry, environment or SDK.
  QelSession();
  // Drives the given wrapper instead (it must not be null); the session owns it.
  explicit QelSession(std::unique_ptr<QelHaldoSdkWrapperInterface> wrapper);
  // Deletes the wrapper only: a caller that started a session calls Uninitialize first.
  ~QelSession();

  QelSession(const QelSession&) = delete;
  QelSession& operator=(const QelSession&) = delete;
  QelSession(QelSession&&) = delete;
  QelSession& operator=(QelSession&&) = delete;

  // Starts an SDK session for "QEL", `release` and "neutral".
  // InitializeBypassed when QEL_INITIALIZE_BYPASSED is present (nothing else
  // happens), else Success, also when the SDK could not be started.
  QelStatus Initialize(std::wstring release);

  // Finds the install folder (environment override or registry), asks the SDK
  // to lock it and hands it back in `location`. NotInitialized before
  // Initialize (location untouched), else the locate result: Success,
  // RegistryReadFailed, PathNotFound or VersionEmpty; a failed lock still
  // gives Success with a usable location.
  QelStatus LockInstallLocation(std::wstring& location);

  // Unlocks the folder and ends the SDK session. NotInitialized before
  // Initialize, else Success.
  QelStatus Uninitialize();

  // The two locate steps of LockInstallLocation; each leaves its result in
  // the session's install location.
  // `keyRelease` names the registry key whose EnablePathOverride is read; the
  // variable is QEL_PATH_ + the session's own release. Success when the switch
  // is 1 and the variable is set; PathNotFound when it is 1 and the variable
  // is not set; NoPathOverride otherwise.
  QelStatus GetPathOverride(const std::wstring& keyRelease);
  // InstallPath + "\" + Version from the key of `keyRelease` (or
  // customRegistryKey), both checked to exist (InstallPath alone while the
  // override supplied the location): Success, RegistryReadFailed,
  // PathNotFound or VersionEmpty.
  QelStatus ReadInstallLocation(const std::wstring& keyRelease);

 private:
  friend struct QelSessionInspector;  // tests point the registry step at another key

  // Take a lookup's result into the session's state (its messages were
  // delivered while it ran); return its status.
  QelStatus Take(const ambrel::PathOverrideLookup& lookup);
  QelStatus Take(const ambrel::InstallEntryLookup& lookup);

  // Key path used by ReadInstallLocation instead of the computed one when
  // non-empty; nothing in the library sets it.
  std::wstring customRegistryKey;
  HKEY registryRoot = HKEY_LOCAL_MACHINE;
  // Found by the last locate step; also the folder locked and unlocked.
  std::wstring installLocation;
  // Empty until Initialize succeeds: the later operations then answer NotInitialized.
  std::wstring release;
  // True when the environment override supplied installLocation.
  bool pathOverridden = false;
  std::string productLineCode;
  std::unique_ptr<QelHaldoSdkWrapperInterface> sdkWrapper;
  // Last result of the wrapper's Initialize, then of its LockDirectory; it
  // starts as the wrapper's "not initialized" code.
  std::int32_t sdkStatus = ambrel::kWrapperNotInitialized;
};
