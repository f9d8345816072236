#include "qel_session/QelSession.h"

#include <optional>
#include <system_error>
#include <utility>

#include "haldo_sdk/QelHaldoSdkWrapperImpl.h"
#include "common/Environment.h"
#include "common/FileSystemStatus.h"
#include "common/RegistryText.h"
#include "common/TextConvert.h"
#include "common/WinResource.h"
#include "qel_session/SessionLog.h"

using ambrel::DeliverSessionMessage;
using ambrel::NewSessionMessage;
using ambrel::WideToUtf8;

namespace {

// Shorter locations cannot be a real install folder (a bare "D:\x").
constexpr std::size_t kMinimumLocationLength = 5;

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

}  // namespace

QelSession::QelSession() : sdkWrapper(new QelHaldoSdkWrapperImpl) {}

QelSession::QelSession(std::unique_ptr<QelHaldoSdkWrapperInterface> wrapper) : sdkWrapper(std::move(wrapper)) {}

QelSession::~QelSession() = default;

QelStatus QelSession::Initialize(std::wstring requestedRelease) {
  if (ambrel::ReadEnvironmentVariable(L"QEL_INITIALIZE_BYPASSED")) {
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

  // The override's own refusal (NoPathOverride or PathNotFound) is not reported: the registry decides then.
  QelStatus result = GetPathOverride(release);
  if (result != Success) result = ReadInstallLocation(release);

  location = installLocation;
  bool usable = result == Success;
  if (usable && location.size() < kMinimumLocationLength) {
    std::ostringstream message = NewSessionMessage();
    message << "The Install Location Path is Incorrect" << WideToUtf8(location);
    DeliverSessionMessage("ERROR", message);
    location.clear();
    usable = false;
  }

  if (!IsUsableSdkStatus(sdkStatus) || !usable) {
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
  // Unlocked whether or not a lock was taken; an empty location gives a lone backslash.
  const std::int32_t unlockStatus = sdkWrapper->UnLockDirectory(LockPathOf(installLocation));
  if (unlockStatus != 0) {
    DeliverWithCode("WARN", "Failed to Unlock HALDO SDK wrapper status code:", unlockStatus);
  }
  const std::int32_t uninitializeStatus = sdkWrapper->Uninitialize();
  if (uninitializeStatus != 0) {
    DeliverWithCode("WARN", "Failed to Uninitialize HALDO SDK wrapper status code:", uninitializeStatus);
  }
  return Success;
}

QelStatus QelSession::GetPathOverride(const std::wstring& keyRelease) {
  // customRegistryKey does not apply to the override switch.
  const std::wstring keyPath = ambrel::SharedComponentsKeyPath(keyRelease);
  ambrel::UniqueRegKey key;
  if (::RegOpenKeyExW(registryRoot, keyPath.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS) {
    DeliverText("FATAL", "There is no custom path set");
    return NoPathOverride;
  }
  DWORD enabled = 0;
  if (ambrel::QueryPathOverrideSwitch(key.get(), enabled) != ERROR_SUCCESS) {
    DeliverText("FATAL", "There is no custom path set");
    return NoPathOverride;
  }
  if (enabled != 1) return NoPathOverride;

  DeliverText("INFO", "EnablePathOverride is set to 1");
  // The override is taken as it stands: no trimming, no existence check.
  if (std::optional<std::wstring> overridePath = ambrel::ReadEnvironmentVariable((L"QEL_PATH_" + release).c_str())) {
    installLocation = std::move(*overridePath);
    pathOverridden = true;
    return Success;
  }
  pathOverridden = false;
  return PathNotFound;
}

QelStatus QelSession::ReadInstallLocation(const std::wstring& keyRelease) {
  const std::wstring keyPath =
      customRegistryKey.empty() ? ambrel::SharedComponentsKeyPath(keyRelease) : customRegistryKey;
  ambrel::UniqueRegKey key;
  if (::RegOpenKeyExW(registryRoot, keyPath.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS) {
    DeliverText("FATAL", "Failed to open registry key");
    return RegistryReadFailed;
  }

  std::wstring installPath;
  if (ambrel::QuerySharedComponentsText(key.get(), L"InstallPath", installPath) != ERROR_SUCCESS) {
    DeliverText("FATAL", "Failed to read InstallPath registry entry");
    return RegistryReadFailed;
  }

  std::error_code error;
  if (!ambrel::PathExists(installPath, error)) {
    (void)key.release();  // deliberately left open on this path, as hosts have always had it; freed at process end
    DeliverMissingPath("The Install Location Path is Incorrect", installPath, error);
    return PathNotFound;
  }

  if (pathOverridden) {
    // The override already named the folder; InstallPath stands in without a version.
    installLocation = installPath;
    return Success;
  }

  std::wstring version;
  if (ambrel::QuerySharedComponentsText(key.get(), L"Version", version) != ERROR_SUCCESS) {
    DeliverText("FATAL", "Failed to read Version from registry entry");
    return RegistryReadFailed;
  }
  if (version.empty()) {
    (void)key.release();  // deliberately left open on this path, as hosts have always had it; freed at process end
    DeliverText("FATAL", "Entry for Version in Registry is Empty.");
    return VersionEmpty;
  }

  // One backslash, without looking at how InstallPath ends.
  installLocation = installPath + L"\\" + version;
  if (!ambrel::PathExists(installLocation, error)) {
    // Names only the Version text, not the folder that was tested.
    (void)key.release();  // deliberately left open on this path, as hosts have always had it; freed at process end
    DeliverMissingPath("The Version for the Install Path Does Not Exist.", version, error);
    return PathNotFound;
  }
  return Success;
}
