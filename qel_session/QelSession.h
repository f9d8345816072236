// The short conversation with the installer SDK that finds the shared
// components' folder and has the installer lock it while the host prepares
// itself: construct, Initialize, then (on 0) LockInstallLocation and
// Uninitialize, then destroy. Used by one thread at a time; never throws for a
// registry, environment or SDK failure (only std::bad_alloc and
// std::length_error leave it).
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>

#include "haldo_sdk/QelHaldoSdkWrapperInterface.h"
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

  // Starts an SDK session for "QEL", `release` and "neutral". 14 when
  // QEL_INITIALIZE_BYPASSED is present (nothing else happens), else 0, also
  // when the SDK could not be started.
  QelStatus Initialize(std::wstring release);

  // Finds the install folder (environment override or registry), asks the SDK
  // to lock it and hands it back in `location`. 8 before Initialize (location
  // untouched), else the locate result 0, 6, 12 or 13; a failed lock still
  // gives 0 with a usable location.
  QelStatus LockInstallLocation(std::wstring& location);

  // Unlocks the folder and ends the SDK session. 8 before Initialize, else 0.
  QelStatus Uninitialize();

  // The two locate steps of LockInstallLocation; each leaves its result in
  // the session's install location.
  // 0 when EnablePathOverride is 1 and QEL_PATH_<release> is set; 12 when it
  // is 1 and the variable is not set; 100 otherwise.
  QelStatus GetPathOverride(std::wstring release);
  // InstallPath + "\" + Version from the registry, both checked to exist
  // (InstallPath alone while the override supplied the location): 0, 6, 12 or 13.
  QelStatus ReadInstallLocation(std::wstring release);

 private:
  friend struct QelSessionInspector;  // tests look at the fields

  // Key path used by ReadInstallLocation instead of the computed one when
  // non-empty; nothing in the library sets it.
  std::wstring customRegistryKey;
  HKEY registryRoot = HKEY_LOCAL_MACHINE;
  // Found by the last locate step; also the folder locked and unlocked.
  std::wstring installLocation;
  // Empty until Initialize succeeds: the later operations then answer 8.
  std::wstring release;
  // True when the environment override supplied installLocation.
  bool pathOverridden = false;
  std::string productLineCode;
  std::unique_ptr<QelHaldoSdkWrapperInterface> sdkWrapper;
  // Last result of the wrapper's Initialize, then of its LockDirectory; 7 is
  // the wrapper's "no session" code.
  std::int32_t sdkStatus = 7;
};
