#include "qel_session/InstallLocation.h"

#include "common/Environment.h"
#include "common/FileSystemStatus.h"
#include "common/RegistryText.h"

namespace ambrel {

PathOverrideLookup LookUpPathOverride(HKEY root, const std::wstring& keyPath, const std::wstring& release,
                                      InstallLocationSteps* steps) {
  PathOverrideLookup lookup;
  lookup.variableName = kPathOverridePrefix + release;
  UniqueRegKey key;
  lookup.keyOpened = ::RegOpenKeyExW(root, keyPath.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS;
  if (lookup.keyOpened) {
    DWORD enabled = 0;
    if (QueryPathOverrideSwitch(key.get(), enabled) == ERROR_SUCCESS) lookup.enabled = enabled;
  }
  if (!lookup.enabled) {
    if (steps) steps->OverrideSwitchUnread(lookup);  // the key, if opened, is closed after this
    return lookup;
  }
  if (!lookup.switchedOn()) return lookup;
  if (steps) steps->OverrideSwitchedOn(lookup);
  // The override is taken as it stands: no trimming, no existence check.
  lookup.variable = ReadEnvironmentVariable(lookup.variableName.c_str());
  lookup.status = lookup.variable ? Success : PathNotFound;
  return lookup;
}

QelStatus InstallEntryLookup::status() const noexcept {
  switch (stop) {
    case Stop::KeyNotOpened:
    case Stop::InstallPathNotRead:
    case Stop::VersionNotRead: return RegistryReadFailed;
    case Stop::InstallPathMissing:
    case Stop::VersionFolderMissing: return PathNotFound;
    case Stop::VersionEmpty: return VersionEmpty;
    case Stop::InstallPathOnly:
    case Stop::Found: return Success;
  }
  return RegistryReadFailed;  // GCOVR_EXCL_LINE every Stop is handled above
}

namespace {

// The registry lookup's steps up to its stop; LookUpInstallEntry reports the stop.
void WalkInstallEntry(InstallEntryLookup& lookup, HKEY root, const std::wstring& keyPath, bool overridden) {
  using Stop = InstallEntryLookup::Stop;
  if (::RegOpenKeyExW(root, keyPath.c_str(), 0, KEY_READ, lookup.key.put()) != ERROR_SUCCESS) return;

  lookup.stop = Stop::InstallPathNotRead;
  if (QuerySharedComponentsText(lookup.key.get(), L"InstallPath", lookup.installPath) != ERROR_SUCCESS) return;
  lookup.stop = Stop::InstallPathMissing;
  if (!PathExists(lookup.installPath, lookup.error)) return;

  if (overridden) {
    lookup.stop = Stop::InstallPathOnly;
    lookup.location = lookup.installPath;
    return;
  }

  lookup.stop = Stop::VersionNotRead;
  if (QuerySharedComponentsText(lookup.key.get(), L"Version", lookup.version) != ERROR_SUCCESS) return;
  lookup.stop = Stop::VersionEmpty;
  if (lookup.version.empty()) return;

  // One backslash, without looking at how InstallPath ends; the folder is
  // the location even when it turns out to be missing.
  lookup.versionFolder = lookup.installPath + L"\\" + lookup.version;
  lookup.location = lookup.versionFolder;
  lookup.stop = PathExists(lookup.versionFolder, lookup.error) ? Stop::Found : Stop::VersionFolderMissing;
}

}  // namespace

InstallEntryLookup LookUpInstallEntry(HKEY root, const std::wstring& keyPath, bool overridden,
                                      InstallLocationSteps* steps) {
  InstallEntryLookup lookup;
  WalkInstallEntry(lookup, root, keyPath, overridden);
  // Told while the key is still open; closed afterwards unless the caller keeps it.
  if (steps) steps->InstallEntryStopped(lookup);
  if (!lookup.keepsKeyOpen()) lookup.key.reset();
  return lookup;
}

InstallLocationLookup LookUpInstallLocation(HKEY root, const std::wstring& release, const std::wstring& customKeyPath,
                                            bool overriddenBefore, InstallLocationSteps* steps) {
  InstallLocationLookup lookup;
  const std::wstring keyPath = SharedComponentsKeyPath(release);
  lookup.pathOverride = LookUpPathOverride(root, keyPath, release, steps);
  lookup.overridden = overriddenBefore;
  if (lookup.pathOverride.status == Success) {
    lookup.overridden = true;
    lookup.status = Success;
    lookup.location = lookup.pathOverride.variable;
  } else {
    if (lookup.pathOverride.status == PathNotFound) lookup.overridden = false;
    // The override's own refusal is not reported: the registry decides then.
    lookup.registry.emplace(
        LookUpInstallEntry(root, customKeyPath.empty() ? keyPath : customKeyPath, lookup.overridden, steps));
    lookup.status = lookup.registry->status();
    lookup.location = lookup.registry->location;
  }
  lookup.tooShort = lookup.status == Success && lookup.location && lookup.location->size() < kMinimumLocationLength;
  return lookup;
}

}  // namespace ambrel
