#include "qel_session/QelSession.h"

#include <system_error>
#include <utility>

#include "common/Environment.h"
#include "common/RegistryText.h"
#include "common/TextConvert.h"
#include "haldo_sdk/QelHaldoSdkWrapperImpl.h"
#include "qel_session/BypassMarker.h"
#include "qel_session/SessionLog.h"

using ambrel::DeliverSessionMessage;
using ambrel::NewSessionMessage;
using ambrel::WideToUtf8;

namespace {

// A fresh SDK session, or one that this process already holds.
bool IsUsableSdkStatus(std::int32_t status) {
  return status == ambrel::kWrapperSuccess || status == ambrel::kWrapperAlreadyInitialized;
}

// The folder as the SDK wants it for locking and unlocking: UTF-8 with one
// backslash appended, whether or not it already ends in one.
std::string LockPathOf(const std::wstring& location) { return WideToUtf8(location) + "\\"; }

void DeliverText(const char* level, const char* text) {
  std::ostringstream message = NewSessionMessage();
  message << text;
  DeliverSessionMessage(level, message);
}

void DeliverWithCode(const char* level, const char* text, std::int32_t code) {
  std::ostringstream message = NewSessionMessage();
  message << text << code;
  DeliverSessionMessage(level, message);
}

// An existence test that failed: the text, the path or name that was shown (as
// UTF-8) and the test's error text.
void DeliverMissingPath(const char* text, const std::wstring& shown, const std::error_code& error) {
  std::ostringstream message = NewSessionMessage();
  message << text << WideToUtf8(shown) << " Error Code : " << error.message();
  DeliverSessionMessage("ERROR", message);
}

// The session's messages, delivered at the lookup's steps as they happen:
// before the lookup reads on, and before it closes its key.
class SessionMessages final : public ambrel::InstallLocationSteps {
 public:
  void OverrideSwitchUnread(const ambrel::PathOverrideLookup& /*lookup*/) override {
    DeliverText("FATAL", "There is no custom path set");
  }
  void OverrideSwitchedOn(const ambrel::PathOverrideLookup& /*lookup*/) override {
    DeliverText("INFO", "EnablePathOverride is set to 1");
  }
  void InstallEntryStopped(const ambrel::InstallEntryLookup& lookup) override {
    using Stop = ambrel::InstallEntryLookup::Stop;
    switch (lookup.stop) {
      case Stop::KeyNotOpened: DeliverText("FATAL", "Failed to open registry key"); break;
      case Stop::InstallPathNotRead: DeliverText("FATAL", "Failed to read InstallPath registry entry"); break;
      case Stop::InstallPathMissing:
        DeliverMissingPath("The Install Location Path is Incorrect", lookup.installPath, lookup.error);
        break;
      case Stop::VersionNotRead: DeliverText("FATAL", "Failed to read Version from registry entry"); break;
      case Stop::VersionEmpty: DeliverText("FATAL", "Entry for Version in Registry is Empty."); break;
      case Stop::VersionFolderMissing:
        // Names only the Version text, not the folder that was tested.
        DeliverMissingPath("The Version for the Install Path Does Not Exist.", lookup.version, lookup.error);
        break;
      case Stop::InstallPathOnly:  // the override already named the folder; InstallPath stands in
      case Stop::Found: break;
    }
  }
};

// The registry lookup hands its key back open on the paths where the session
// has always left it open: deliberately leaked, as hosts have always had it;
// the process's end frees it.
void LeakKeptKey(ambrel::InstallEntryLookup& lookup) { (void)lookup.key.release(); }

}  // namespace

QelSession::QelSession() : sdkWrapper(new QelHaldoSdkWrapperImpl) {}

QelSession::QelSession(std::unique_ptr<QelHaldoSdkWrapperInterface> wrapper) : sdkWrapper(std::move(wrapper)) {}

QelSession::~QelSession() = default;

QelStatus QelSession::Initialize(std::wstring requestedRelease) {
  if (ambrel::ReadEnvironmentVariable(ambrel::kBypassMarker)) {
    DeliverText("INFO", "Intialize is bypassed");
    return InitializeBypassed;
  }
  release = std::move(requestedRelease);
  productLineCode = "QEL";
  sdkStatus = sdkWrapper->Initialize(productLineCode, WideToUtf8(release), "neutral");
  if (!IsUsableSdkStatus(sdkStatus)) {
    DeliverWithCode("WARN", "Failed to intialize HALDO SDK wrapper status code:", sdkStatus);
  }
  // A failed SDK start is not a failure of the session: it shows later as no lock.
  return Success;
}

QelStatus QelSession::LockInstallLocation(std::wstring& location) {
  if (release.empty()) return NotInitialized;

  SessionMessages messages;
  ambrel::InstallLocationLookup found =
      ambrel::LookUpInstallLocation(registryRoot, release, customRegistryKey, pathOverridden, &messages);
  Take(found.pathOverride);
  if (found.registry) {
    LeakKeptKey(*found.registry);
    Take(*found.registry);
  }
  const QelStatus result = found.status;

  location = installLocation;
  if (found.tooShort) {
    std::ostringstream message = NewSessionMessage();
    message << "The Install Location Path is Incorrect" << WideToUtf8(location);
    DeliverSessionMessage("ERROR", message);
    location.clear();
  }

  if (!IsUsableSdkStatus(sdkStatus) || !found.usable()) {
    DeliverWithCode("WARN", "Failed to intialize HALDO SDK wrapper status code:", sdkStatus);
  } else {
    const std::string lockPath = LockPathOf(installLocation);
    sdkStatus = sdkWrapper->LockDirectory(lockPath);
    if (sdkStatus != 0) {
      std::ostringstream message = NewSessionMessage();
      message << "Failed to lock" << lockPath << ", HALDO SDK wrapper status code : " << sdkStatus;
      DeliverSessionMessage("WARN", message);
    }
  }
  // The folder is handed out whether or not the installer could lock it.
  return result;
}

QelStatus QelSession::Uninitialize() {
  if (release.empty()) return NotInitialized;
  if (!sdkWrapper->IsInitialized()) {
    DeliverText("WARN", "HALDO SDK wrapper is not initialized");
    return Success;
  }
  try {
    // Unlocked whether or not a lock was taken; an empty location gives a lone backslash.
    const std::int32_t unlockStatus = sdkWrapper->UnLockDirectory(LockPathOf(installLocation));
    if (unlockStatus != 0) {
      DeliverWithCode("WARN", "Failed to Unlock HALDO SDK wrapper status code:", unlockStatus);
    }
  } catch (...) {
    // Out of memory before the unlock got through: the SDK session is ended
    // all the same (which lets go of its lock) before the exception goes on;
    // a second one raised while ending it is dropped.
    try {
      sdkWrapper->Uninitialize();
    } catch (...) {
    }
    throw;
  }
  const std::int32_t uninitializeStatus = sdkWrapper->Uninitialize();
  if (uninitializeStatus != 0) {
    DeliverWithCode("WARN", "Failed to Uninitialize HALDO SDK wrapper status code:", uninitializeStatus);
  }
  return Success;
}

QelStatus QelSession::GetPathOverride(const std::wstring& keyRelease) {
  // customRegistryKey does not apply to the override switch.
  SessionMessages messages;
  return Take(
      ambrel::LookUpPathOverride(registryRoot, ambrel::SharedComponentsKeyPath(keyRelease), release, &messages));
}

QelStatus QelSession::ReadInstallLocation(const std::wstring& keyRelease) {
  SessionMessages messages;
  ambrel::InstallEntryLookup found = ambrel::LookUpInstallEntry(
      registryRoot, customRegistryKey.empty() ? ambrel::SharedComponentsKeyPath(keyRelease) : customRegistryKey,
      pathOverridden, &messages);
  LeakKeptKey(found);
  return Take(found);
}

QelStatus QelSession::Take(const ambrel::PathOverrideLookup& lookup) {
  if (lookup.switchedOn()) {
    pathOverridden = lookup.status == Success;
    if (lookup.variable) installLocation = *lookup.variable;
  }
  return lookup.status;
}

QelStatus QelSession::Take(const ambrel::InstallEntryLookup& lookup) {
  if (lookup.location) installLocation = *lookup.location;
  return lookup.status();
}
