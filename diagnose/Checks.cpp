#include "diagnose/Checks.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <limits>
#include <optional>
#include <string_view>
#include <system_error>

#include "common/Environment.h"
#include "common/FileSystemStatus.h"
#include "common/ModuleHelpers.h"
#include "common/PathList.h"
#include "common/RegistryText.h"
#include "common/TextConvert.h"
#include "common/WinResource.h"
#include "diagnose/LibrarySignature.h"
#include "diagnose/SdkExports.h"
#include "haldo_sdk/SdkModule.h"
#include "haldo_sdk/SignatureCheck.h"
#include "haldo_sdk/WrapperStatus.h"
#include "qel_loader/Bootstrap.h"
#include "qel_loader/InstallQueries.h"

namespace ambrel::diagnose {
namespace {

// The entry points the wrapper binds by name.
constexpr std::array<const char*, 5> kSdkExports = {"Initialize", "ReleaseMemory", "Uninitialize", "LockDirectory",
                                                    "UnLockDirectory"};
// The session hands out no shorter folder.
constexpr std::size_t kMinimumLocationLength = 5;
// A process id is a DWORD: more decimal digits than it can hold name no process.
constexpr std::size_t kMaximumProcessIdDigits = std::numeric_limits<DWORD>::digits10 + 1;

std::string U8(const std::wstring& text) { return WideToUtf8(text); }
std::string Quoted(const std::wstring& text) { return "\"" + U8(text) + "\""; }
Value Text(const std::optional<std::wstring>& text) { return text ? Value(U8(*text)) : Value(nullptr); }

// "0x" and eight upper-case digits, as status codes are usually written.
std::string Hex(std::uint32_t value) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  constexpr auto kBase = static_cast<std::uint32_t>(kDigits.size());
  std::string digits(2 * sizeof value, '0');
  for (auto digit = digits.rbegin(); digit != digits.rend() && value != 0; ++digit, value /= kBase)
    *digit = kDigits[value % kBase];
  return "0x" + digits;
}

// The lock file's content as a process id, when it is nothing but digits.
std::optional<std::int64_t> ProcessIdIn(const std::string& content) {
  if (content.empty() || content.size() > kMaximumProcessIdDigits) return std::nullopt;
  if (!std::all_of(content.begin(), content.end(), [](unsigned char c) { return std::isdigit(c) != 0; }))
    return std::nullopt;
  return std::stoll(content);
}

const char* LocationReadText(SdkLocationRead read) {
  switch (read) {
    case SdkLocationRead::Read: return "read";
    case SdkLocationRead::NoBuffer: return "no memory for the value";
    case SdkLocationRead::KeyNotOpened: return "key missing or unreadable";
    case SdkLocationRead::BufferNotEnlarged: return "no memory for the value";
    case SdkLocationRead::ValueNotRead: return "value missing or unreadable";
  }
  return "unknown";
}

// Appends a check to the report; the caller adds its evidence.
Check& Add(std::vector<Check>& report, std::string id, Verdict verdict, std::string text) {
  report.push_back(Check{std::move(id), verdict, std::move(text), {}});
  return report.back();
}

// The first reason, in the order the wrapper meets them, why the installer
// would not lock the folder; empty when nothing here stands in its way.
struct SdkFindings {
  std::string firstProblem;
  bool throws = false;  // the lock file's test raises out of InitializeQel
  void Note(const std::string& problem) {
    if (firstProblem.empty()) firstProblem = problem;
  }
};

// The self-update lock: tested before anything else of the SDK.
void CheckSelfUpdateLock(std::vector<Check>& report, SdkFindings& sdk) {
  try {
    const SelfUpdateLock lock = InspectSelfUpdateLock();
    const auto pid = ProcessIdIn(lock.content);
    Verdict verdict = Verdict::Ok;
    std::string text = "absent: " + U8(lock.file.native());
    if (lock.running) {
      verdict = Verdict::Warn;
      text = "process " + lock.content + " is running: the installer is updating itself, the SDK would not load (code " +
             std::to_string(kWrapperSelfUpdateRunning) + ")";
      sdk.Note("the installer is updating itself (lock file names running process " + lock.content + ")");
    } else if (lock.present) {
      verdict = Verdict::Info;
      text = pid ? "stale: process " + lock.content + " is not running; ignored"
                 : "stale: holds no bare process id; ignored";
    }
    Check& check = Add(report, "sdk.selfUpdateLock", verdict, text);
    check.fields = {{"file", U8(lock.file.native())},
                    {"present", lock.present},
                    {"content", lock.present ? Value(lock.content) : Value(nullptr)},
                    {"processId", pid ? Value(*pid) : Value(nullptr)},
                    {"running", lock.running}};
  } catch (const std::filesystem::filesystem_error& error) {
    Check& check = Add(report, "sdk.selfUpdateLock", Verdict::Fail,
                       std::string("cannot be tested: ") + error.what() + " (InitializeQel would throw)");
    check.fields = {{"error", std::string(error.what())}};
    sdk.Note(std::string("the self-update lock file cannot be tested: ") + error.what());
    sdk.throws = true;
  }
}

// The registry value that names the SDK file.
void CheckSdkLocation(std::vector<Check>& report, SdkFindings& sdk, const SdkPathLookup& lookup) {
  const std::string key = "HKLM\\" + U8(kHaldoKeyPath) + U8(kSdkLocationValue);
  Verdict verdict = Verdict::Ok;
  std::string text = key + " = " + Quoted(lookup.value);
  if (lookup.outcome == SdkPathLookup::Outcome::RegistryUnreadable) {
    verdict = Verdict::Warn;
    text = key + ": " + LocationReadText(lookup.read);
    sdk.Note("the SDK location " + key + " is not set (" + LocationReadText(lookup.read) + ")");
  } else if (lookup.outcome == SdkPathLookup::Outcome::Empty) {
    verdict = Verdict::Warn;
    text = key + " is empty";
    sdk.Note("the SDK location " + key + " is empty");
  }
  Check& check = Add(report, "sdk.location", verdict, text);
  check.fields = {{"key", key},
                  {"read", std::string(LocationReadText(lookup.read))},
                  {"value", lookup.outcome == SdkPathLookup::Outcome::RegistryUnreadable ? Value(nullptr)
                                                                                        : Value(U8(lookup.value))}};
}

// The value with its environment references expanded.
void CheckSdkExpansion(std::vector<Check>& report, SdkFindings& sdk, const SdkPathLookup& lookup) {
  if (lookup.outcome == SdkPathLookup::Outcome::RegistryUnreadable || lookup.outcome == SdkPathLookup::Outcome::Empty) {
    Add(report, "sdk.expanded", Verdict::Skip, "no value to expand");
    return;
  }
  if (lookup.outcome == SdkPathLookup::Outcome::ExpansionFailed) {
    Add(report, "sdk.expanded", Verdict::Warn, "expansion failed").fields = {{"expanded", nullptr}};
    sdk.Note("the SDK location cannot be expanded");
    return;
  }
  const bool fits = !lookup.expanded.empty();
  Check& check = Add(report, "sdk.expanded", fits ? Verdict::Ok : Verdict::Warn,
                     fits ? Quoted(lookup.expanded) : "longer than 260 characters");
  check.fields = {{"expanded", fits ? Value(U8(lookup.expanded)) : Value(nullptr)}};
  if (!fits) sdk.Note("the expanded SDK location is longer than 260 characters");
}

// Whether the expanded path names an existing file.
void CheckSdkFile(std::vector<Check>& report, SdkFindings& sdk, const SdkPathLookup& lookup) {
  if (lookup.outcome == SdkPathLookup::Outcome::Missing && !lookup.expanded.empty()) {
    Add(report, "sdk.file", Verdict::Warn, Quoted(lookup.expanded) + " does not exist").fields = {{"exists", false}};
    sdk.Note("the SDK file " + Quoted(lookup.expanded) + " does not exist");
  } else if (lookup.outcome == SdkPathLookup::Outcome::Found) {
    std::error_code ec;
    const bool directory = QueryPathStatus(lookup.expanded, ec).isDirectory;
    Check& check = Add(report, "sdk.file", directory ? Verdict::Warn : Verdict::Ok,
                       directory ? "exists, but is a folder" : "exists");
    check.fields = {{"exists", true}, {"isDirectory", directory}};
    if (directory) sdk.Note("the SDK location names a folder, not a DLL");
  } else {
    Add(report, "sdk.file", Verdict::Skip, "no path to test");
  }
}

// The checks of the file itself, when there is no file.
void SkipSdkFileChecks(std::vector<Check>& report) {
  Add(report, "sdk.signature", Verdict::Skip, "no file to verify");
  Add(report, "sdk.publisher", Verdict::Skip, "no file to verify");
  for (const char* name : kSdkExports) Add(report, std::string("sdk.export.") + name, Verdict::Skip, "no file to read");
}

// WinVerifyTrust on the file; returns its status.
LONG CheckSignature(std::vector<Check>& report, SdkFindings& sdk, const std::wstring& file) {
  const LONG status = TrustStatus(file);
  const std::string code = std::to_string(status) + " (" + Hex(static_cast<std::uint32_t>(status)) + ")";
  Check& check = Add(report, "sdk.signature", status == 0 ? Verdict::Ok : Verdict::Warn,
                     status == 0 ? "Authenticode signature verifies (WinVerifyTrust 0)"
                                 : "Authenticode signature does not verify: WinVerifyTrust " + code);
  check.fields = {{"status", std::int64_t{status}}, {"statusHex", Hex(static_cast<std::uint32_t>(status))},
                  {"verified", status == 0}};
  if (status != 0) sdk.Note("the SDK file's signature does not verify (WinVerifyTrust " + code + ")");
  return status;
}

// The maker named by a certificate of the signature; as in the wrapper, only
// a verified signature gets this far.
void CheckPublisher(std::vector<Check>& report, SdkFindings& sdk, const std::wstring& file, LONG signatureStatus) {
  if (signatureStatus != 0) {
    Add(report, "sdk.publisher", Verdict::Skip, "not reached: the wrapper stops at the signature");
    return;
  }
  const std::string publisher = U8(kSdkPublisher);
  const PublisherSearch search = SearchPublisher(file, kSdkPublisher);
  const bool named = search.outcome == PublisherSearch::Outcome::Found;
  std::string text = "a certificate names \"" + publisher + "\"";
  if (search.outcome == PublisherSearch::Outcome::SignatureUnreadable) {
    text = "the embedded signature cannot be read (error " + std::to_string(search.error) + ")";
  } else if (!named) {
    text = "no certificate names \"" + publisher + "\" (error " + std::to_string(search.error) + ")";
  }
  Check& check = Add(report, "sdk.publisher", named ? Verdict::Ok : Verdict::Warn, text);
  check.fields = {{"publisher", publisher}, {"found", named}, {"error", std::int64_t{search.error}}};
  if (!named) sdk.Note("the SDK file is not signed by \"" + publisher + "\"");
}

// Each entry point the wrapper binds, read from the file's export table.
void CheckExports(std::vector<Check>& report, SdkFindings& sdk, const std::wstring& file) {
  const auto names = ReadExportNames(file);
  if (!names) {
    for (const char* name : kSdkExports) {
      Add(report, std::string("sdk.export.") + name, Verdict::Warn, "the file is not a readable DLL").fields = {
          {"present", false}};
      sdk.Note("the SDK file is not a readable DLL");
    }
    return;
  }
  for (const char* name : kSdkExports) {
    const bool present = names->count(name) > 0;
    Add(report, std::string("sdk.export.") + name, present ? Verdict::Ok : Verdict::Warn,
        present ? "exported" : "not exported")
        .fields = {{"present", present}};
    // Only these two stand between a started SDK and the lock.
    if (!present && (std::string(name) == "Initialize" || std::string(name) == "LockDirectory"))
      sdk.Note(std::string("the SDK file does not export ") + name);
  }
}

void CheckSdk(std::vector<Check>& report, SdkFindings& sdk) {
  CheckSelfUpdateLock(report, sdk);
  const SdkPathLookup lookup = LookUpSdkPath();
  CheckSdkLocation(report, sdk, lookup);
  CheckSdkExpansion(report, sdk, lookup);
  CheckSdkFile(report, sdk, lookup);
  if (lookup.outcome != SdkPathLookup::Outcome::Found) {
    SkipSdkFileChecks(report);
    return;
  }
  const LONG status = CheckSignature(report, sdk, lookup.expanded);
  CheckPublisher(report, sdk, lookup.expanded, status);
  CheckExports(report, sdk, lookup.expanded);
}

// The override switch and its variable, as the session weighs them.
struct PathOverride {
  std::optional<DWORD> enabled;  // EnablePathOverride, when it could be read
  std::wstring variableName;
  std::optional<std::wstring> variable;
  bool on = false;                   // the switch is 1
  std::optional<std::wstring> folder;  // the variable's folder, when the override is in force
};

// `key`: the open shared-components key, or null when it is missing.
PathOverride ReadPathOverride(HKEY key) {
  PathOverride result;
  // Any value whose data fits in four bytes is the number.
  if (key) {
    DWORD number = 0;
    if (QueryPathOverrideSwitch(key, number) == ERROR_SUCCESS) result.enabled = number;
  }
  result.variableName = L"QEL_PATH_" + QelRelease;
  result.variable = ReadEnvironmentVariable(result.variableName.c_str());
  result.on = result.enabled && *result.enabled == 1;
  if (result.on) result.folder = result.variable;
  return result;
}

void CheckPathOverride(std::vector<Check>& report, const PathOverride& pathOverride) {
  const std::optional<DWORD>& enabled = pathOverride.enabled;
  const std::string variableName = U8(pathOverride.variableName);
  Verdict verdict = Verdict::Ok;
  std::string text = enabled ? "EnablePathOverride = " + std::to_string(*enabled) + ": off" : "EnablePathOverride absent: off";
  if (pathOverride.folder) {
    verdict = Verdict::Info;
    text = "EnablePathOverride = 1 and " + variableName + " = " + Quoted(*pathOverride.folder) + ": that folder is used";
  } else if (pathOverride.on) {
    verdict = Verdict::Warn;
    text = "EnablePathOverride = 1 but " + variableName + " is not set: the registry's folder is used";
  }
  Add(report, "registry.override", verdict, text).fields = {
      {"enablePathOverride", enabled ? Value(std::int64_t{*enabled}) : Value(nullptr)},
      {"variable", variableName},
      {"variableValue", Text(pathOverride.variable)}};
}

// InstallPath and Version of the shared-components key, and whether the
// folders they name exist.
struct InstallEntry {
  std::wstring installPath;
  bool installRead = false;
  bool installExists = false;
  std::wstring version;
  bool versionRead = false;
  std::wstring versionFolder;  // InstallPath\Version
  bool versionExists = false;
};

InstallEntry ReadInstallEntry(HKEY key) {
  InstallEntry entry;
  entry.installRead =
      key != nullptr && QuerySharedComponentsText(key, L"InstallPath", entry.installPath) == ERROR_SUCCESS;
  std::error_code ec;
  entry.installExists = entry.installRead && PathExists(entry.installPath, ec);
  entry.versionRead = key != nullptr && QuerySharedComponentsText(key, L"Version", entry.version) == ERROR_SUCCESS;
  entry.versionFolder = entry.installPath + L"\\" + entry.version;
  entry.versionExists =
      entry.installExists && entry.versionRead && !entry.version.empty() && PathExists(entry.versionFolder, ec);
  return entry;
}

// Returns why the registry's folder cannot be had, or "".
std::string CheckInstallPath(std::vector<Check>& report, const InstallEntry& entry, const std::string& keyName,
                             Verdict unusedOr) {
  const std::string text = entry.installRead ? "InstallPath = " + Quoted(entry.installPath) +
                                                   (entry.installExists ? ", exists" : ", does not exist")
                                             : "InstallPath missing, unreadable or longer than 129 characters";
  Add(report, "registry.installPath", entry.installExists ? Verdict::Ok : unusedOr, text).fields = {
      {"value", entry.installRead ? Value(U8(entry.installPath)) : Value(nullptr)}, {"exists", entry.installExists}};
  if (!entry.installRead) return "InstallPath of " + keyName + " is missing or longer than 129 characters";
  if (!entry.installExists) return "the InstallPath folder " + Quoted(entry.installPath) + " does not exist";
  return {};
}

// Returns why the version folder cannot be had, or "" (also when not reached).
std::string CheckVersion(std::vector<Check>& report, const InstallEntry& entry, const std::string& keyName,
                         Verdict unusedOr) {
  if (!entry.installExists) {
    Add(report, "registry.version", Verdict::Skip, "not reached: no InstallPath folder");
    return {};
  }
  const std::string text = !entry.versionRead    ? "Version missing or unreadable"
                           : entry.version.empty() ? "Version is empty"
                                                   : "Version = " + Quoted(entry.version) + ", folder " +
                                                         Quoted(entry.versionFolder) +
                                                         (entry.versionExists ? " exists" : " does not exist");
  const bool named = entry.versionRead && !entry.version.empty();
  Add(report, "registry.version", entry.versionExists ? Verdict::Ok : unusedOr, text).fields = {
      {"value", entry.versionRead ? Value(U8(entry.version)) : Value(nullptr)},
      {"folder", named ? Value(U8(entry.versionFolder)) : Value(nullptr)},
      {"exists", entry.versionExists}};
  if (!entry.versionRead) return "Version of " + keyName + " is missing";
  if (entry.version.empty()) return "Version of " + keyName + " is empty";
  if (!entry.versionExists) return "the version folder " + Quoted(entry.versionFolder) + " does not exist";
  return {};
}

// Both values, or their skips when the key is missing; returns the first
// reason the registry's folder cannot be had, or "".
std::string CheckInstallEntry(std::vector<Check>& report, HKEY key, const std::string& keyName,
                              const InstallEntry& entry, Verdict unusedOr) {
  if (!key) {
    Add(report, "registry.installPath", Verdict::Skip, "no key to read");
    Add(report, "registry.version", Verdict::Skip, "no key to read");
    return "the shared-components entry " + keyName + " is missing";
  }
  const std::string installCause = CheckInstallPath(report, entry, keyName, unusedOr);
  const std::string versionCause = CheckVersion(report, entry, keyName, unusedOr);
  return installCause.empty() ? versionCause : installCause;
}

// The folder the session would hand out, checked as the bootstrap checks it;
// empty with `cause` set when it would fail.
struct Located {
  std::wstring folder;
  std::string cause;
};

// The folder the session would hand out: an existing folder, long enough.
void CheckLocation(std::vector<Check>& report, const PathOverride& pathOverride, Located& located) {
  if (!located.cause.empty()) {
    Add(report, "location", Verdict::Skip, "no folder: " + located.cause).fields = {{"folder", nullptr}};
    return;
  }
  const bool longEnough = located.folder.size() >= kMinimumLocationLength;
  const bool directory = longEnough && IsExistingDirectory(located.folder);
  Check& check = Add(report, "location", directory ? Verdict::Ok : Verdict::Fail,
                     Quoted(located.folder) + (!longEnough  ? " is too short to be a folder"
                                               : directory ? " is an existing folder"
                                                           : " is not an existing folder"));
  check.fields = {{"folder", U8(located.folder)}, {"isDirectory", directory}};
  const std::string variableName = U8(pathOverride.variableName);
  if (!longEnough) {
    located.cause = variableName + " = " + Quoted(located.folder) + " is too short to be a folder";
  } else if (!directory) {
    located.cause = (pathOverride.folder ? variableName + " names " : std::string("the folder ")) +
                    Quoted(located.folder) + ", which is not an existing folder";
  }
}

Located CheckInstallLocation(std::vector<Check>& report) {
  const std::wstring keyPath = SharedComponentsKeyPath(QelRelease);
  const std::string keyName = "HKLM\\" + U8(keyPath);
  UniqueRegKey registry;
  const bool keyOpen = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyPath.c_str(), 0, KEY_READ, registry.put()) == ERROR_SUCCESS;
  Add(report, "registry.key", keyOpen ? Verdict::Ok : Verdict::Fail, keyName + (keyOpen ? " present" : " missing"))
      .fields = {{"key", keyName}, {"present", keyOpen}};
  HKEY key = keyOpen ? registry.get() : nullptr;

  const PathOverride pathOverride = ReadPathOverride(key);
  CheckPathOverride(report, pathOverride);

  const InstallEntry entry = ReadInstallEntry(key);
  // With the override in force the session reads neither value.
  const Verdict unusedOr = pathOverride.folder ? Verdict::Info : Verdict::Fail;
  Located located;
  located.cause = CheckInstallEntry(report, key, keyName, entry, unusedOr);
  if (pathOverride.folder) {
    located.folder = *pathOverride.folder;
    located.cause.clear();
  } else if (located.cause.empty()) {
    located.folder = entry.versionFolder;
  }
  CheckLocation(report, pathOverride, located);
  return located;
}

// Returns whether the library is a development build (drive R:).
bool CheckLibrary(std::vector<Check>& report, const std::wstring& library) {
  std::error_code ec;
  const bool found = PathExists(library, ec);
  const bool development = IsDevelopmentModulePath(library);
  Add(report, "library", development ? Verdict::Info : found ? Verdict::Ok : Verdict::Warn,
      Quoted(library) + (found ? " found" : " not found") +
          (development ? "; a development build (drive R:): the bootstrap only sets the marker"
                       : "; not a development build"))
      .fields = {{"path", U8(library)}, {"found", found}, {"development", development}};
  return development;
}

void CheckEdition(std::vector<Check>& report, const std::wstring& library) {
  const std::wstring folder = ParentPathOf(library);
  bool lite = false;
  try {
    lite = IsLiteEditionIn(folder);
  } catch (const std::filesystem::filesystem_error&) {
    // Kalvex.ini that cannot be tested counts as no edition here.
  }
  Add(report, "edition", Verdict::Info,
      lite ? "KLXLITE (Kalvex.ini): the edition-aware entry does nothing; InitializeQel itself still runs"
           : "not the lite edition")
      .fields = {{"iniFile", U8(folder + L"\\Kalvex.ini")}, {"lite", lite}};
}

// Returns whether the marker is set.
bool CheckMarker(std::vector<Check>& report) {
  const std::optional<std::wstring> marker = ReadEnvironmentVariable(kBypassMarker);
  Add(report, "marker", marker ? Verdict::Info : Verdict::Ok,
      marker ? U8(kBypassMarker) + " = " + Quoted(*marker) + ": the session is bypassed" : U8(kBypassMarker) + " absent")
      .fields = {{"variable", U8(kBypassMarker)}, {"present", marker.has_value()}, {"value", Text(marker)}};
  return marker.has_value();
}

// Returns whether PATH is set.
bool CheckPath(std::vector<Check>& report, const std::wstring& folder) {
  const std::optional<std::wstring> path = ReadEnvironmentVariable(L"PATH");
  const bool holds = path && !folder.empty() && PathListContains(*path, folder);
  Add(report, "path", path ? Verdict::Ok : Verdict::Fail,
      !path           ? "PATH is not set"
      : folder.empty() ? "PATH is set; no folder to look for"
      : holds          ? "PATH already holds the folder: left unchanged"
                       : "PATH does not hold the folder yet: it would be prepended")
      .fields = {{"present", path.has_value()}, {"holdsFolder", holds}};
  return path.has_value();
}

// What InitializeQel does, in its order.
Conclusion Conclude(bool development, bool marked, const SdkFindings& sdk, const Located& located, bool pathSet) {
  Conclusion conclusion;
  if (development) {
    conclusion.initializeQel = true;
    conclusion.text = "InitializeQel would return true at once: a development build only sets " + U8(kBypassMarker);
  } else if (marked) {
    conclusion.initializeQel = true;
    conclusion.text = "InitializeQel would return true without the installer: " + U8(kBypassMarker) +
                      " is already set (usually inherited from a parent that bootstrapped)";
  } else if (sdk.throws) {
    conclusion.text = "InitializeQel would throw: " + sdk.firstProblem;
  } else if (!located.cause.empty()) {
    conclusion.text = "InitializeQel would return false: " + located.cause;
    if (!sdk.firstProblem.empty()) conclusion.text += "; also, " + sdk.firstProblem;
  } else if (!pathSet) {
    conclusion.text = "InitializeQel would return false: PATH is not set";
  } else {
    const std::string lockNote = sdk.firstProblem.empty()
                                     ? "the installer would lock it while the process is prepared"
                                     : "the installer would not lock it: " + sdk.firstProblem;
    conclusion.initializeQel = true;
    conclusion.sdkLock = sdk.firstProblem.empty();
    conclusion.location = U8(located.folder);
    conclusion.text = "InitializeQel would return true with " + Quoted(located.folder) + "; " + lockNote;
  }
  return conclusion;
}

}  // namespace

const char* VerdictName(Verdict verdict) {
  switch (verdict) {
    case Verdict::Ok: return "ok";
    case Verdict::Info: return "info";
    case Verdict::Warn: return "warn";
    case Verdict::Fail: return "fail";
    case Verdict::Skip: return "skip";
  }
  return "?";
}

Diagnosis Diagnose(const std::wstring& library) {
  Diagnosis diagnosis;
  std::vector<Check>& report = diagnosis.checks;
  const bool development = CheckLibrary(report, library);
  report.push_back(CheckLibrarySignature(library));
  CheckEdition(report, library);
  const bool marked = CheckMarker(report);
  SdkFindings sdk;
  CheckSdk(report, sdk);
  const Located located = CheckInstallLocation(report);
  const bool pathSet = CheckPath(report, located.folder);
  diagnosis.conclusion = Conclude(development, marked, sdk, located, pathSet);
  return diagnosis;
}

}  // namespace ambrel::diagnose
