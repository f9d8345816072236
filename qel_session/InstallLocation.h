// Where the shared components are installed, looked up the way a session does
// it and handed back as a record of what was found. The lookups log nothing
// themselves: they tell an observer of each step at the moment it happens
// (the session delivers its messages there, before the lookup reads on or
// closes its key), and ambrel-diagnose renders the record afterwards, so the
// two cannot read the machine differently.
#pragma once

#include <windows.h>

#include <cstddef>
#include <optional>
#include <string>
#include <system_error>

#include "common/WinResource.h"
#include "qel_session/QelStatus.h"

namespace ambrel {

// The override variable is this prefix followed by the release.
inline constexpr const wchar_t* kPathOverridePrefix = L"QEL_PATH_";
// Shorter locations cannot be a real install folder (a bare "D:\x").
inline constexpr std::size_t kMinimumLocationLength = 5;

// The override: EnablePathOverride of the shared-components key and, when it
// is exactly 1, the variable QEL_PATH_ + release.
struct PathOverrideLookup {
  bool keyOpened = false;
  std::optional<DWORD> enabled;          // the switch, when it could be read
  std::wstring variableName;             // QEL_PATH_ + release
  std::optional<std::wstring> variable;  // its value; read only while the switch is 1
  // Success: the variable names the folder; PathNotFound: the switch is 1 but
  // the variable is not set; NoPathOverride: no key, no switch, or not 1.
  QelStatus status = NoPathOverride;
  bool switchedOn() const noexcept { return enabled && *enabled == 1; }
};
struct InstallEntryLookup;

// Told of a lookup's steps as they happen. Each call comes before the lookup
// goes on (reads another value or variable, tests a folder) or closes its key,
// so what the observer does (deliver a message, change the machine, throw) is
// seen by everything that follows.
class InstallLocationSteps {
 public:
  InstallLocationSteps() = default;
  InstallLocationSteps(const InstallLocationSteps&) = delete;
  InstallLocationSteps& operator=(const InstallLocationSteps&) = delete;
  InstallLocationSteps(InstallLocationSteps&&) = delete;
  InstallLocationSteps& operator=(InstallLocationSteps&&) = delete;
  virtual ~InstallLocationSteps() = default;
  // The override's key could not be opened, or its switch could not be read
  // (the key is still open then).
  virtual void OverrideSwitchUnread(const PathOverrideLookup& lookup) = 0;
  // The switch reads exactly 1; the variable has not been read yet.
  virtual void OverrideSwitchedOn(const PathOverrideLookup& lookup) = 0;
  // The registry lookup has reached its last step (`lookup.stop`), its key
  // still open where it was opened; it is closed next unless keepsKeyOpen().
  virtual void InstallEntryStopped(const InstallEntryLookup& lookup) = 0;
};

// `keyPath` names the key whose switch is read; `release` the variable's suffix.
PathOverrideLookup LookUpPathOverride(HKEY root, const std::wstring& keyPath, const std::wstring& release,
                                      InstallLocationSteps* steps = nullptr);

// InstallPath and Version of the shared-components key, in the session's order:
// each step is reached only when the one before it succeeded.
struct InstallEntryLookup {
  enum class Stop {
    KeyNotOpened,          // RegistryReadFailed
    InstallPathNotRead,    // missing, unreadable or longer than 129 characters: RegistryReadFailed
    InstallPathMissing,    // the folder does not exist: PathNotFound
    InstallPathOnly,       // the override named the folder, InstallPath stands in: Success
    VersionNotRead,        // RegistryReadFailed
    VersionEmpty,          // VersionEmpty
    VersionFolderMissing,  // InstallPath\Version does not exist: PathNotFound
    Found,                 // InstallPath\Version exists: Success
  };
  Stop stop = Stop::KeyNotOpened;
  // Open while the lookup runs. Once the observer has been told of the stop,
  // closed, except on the keepsKeyOpen() paths: there the record hands it
  // back open, and the caller decides (the session leaks it).
  UniqueRegKey key;
  std::wstring installPath;    // read when stop is past InstallPathNotRead
  std::wstring version;        // read when stop is past VersionNotRead
  std::wstring versionFolder;  // InstallPath + "\" + Version, when tested
  std::error_code error;       // the failed existence test's error (cleared for a plain "no")
  // The folder the session takes as its install location, when this lookup names one.
  std::optional<std::wstring> location;
  QelStatus status() const noexcept;
  // The paths on which the session has always left the key open.
  bool keepsKeyOpen() const noexcept {
    return stop == Stop::InstallPathMissing || stop == Stop::VersionEmpty || stop == Stop::VersionFolderMissing;
  }
};
// `overridden`: the override already named the folder, so InstallPath alone
// is taken and Version is not read.
InstallEntryLookup LookUpInstallEntry(HKEY root, const std::wstring& keyPath, bool overridden,
                                      InstallLocationSteps* steps = nullptr);

// The whole locate step of LockInstallLocation: the override first, the
// registry only when the override does not name the folder, then the length
// rule.
struct InstallLocationLookup {
  PathOverrideLookup pathOverride;
  std::optional<InstallEntryLookup> registry;  // absent when the override named the folder
  bool overridden = false;                     // the session's pathOverridden afterwards
  QelStatus status = NoPathOverride;
  std::optional<std::wstring> location;  // the folder this lookup names, if any
  // The folder is found (Success) but shorter than kMinimumLocationLength: not handed out.
  bool tooShort = false;
  // Found and long enough: the folder the session hands out and would lock.
  bool usable() const noexcept { return status == Success && !tooShort; }
};
// `release` gives the key (unless `customKeyPath` is non-empty, which only the
// registry step uses) and the variable; `overriddenBefore` is the session's
// pathOverridden before the step (false for a fresh session).
InstallLocationLookup LookUpInstallLocation(HKEY root, const std::wstring& release, const std::wstring& customKeyPath,
                                            bool overriddenBefore, InstallLocationSteps* steps = nullptr);

}  // namespace ambrel
