#include "diagnose/Checks.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <optional>
#include <system_error>

#include "common/Environment.h"
#include "common/FileSystemStatus.h"
#include "common/ModuleHelpers.h"
#include "common/PathList.h"
#include "common/RegistryText.h"
#include "common/TextConvert.h"
#include "common/WinResource.h"
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

std::string U8(const std::wstring& text) { return WideToUtf8(text); }
std::string Quoted(const std::wstring& text) { return "\"" + U8(text) + "\""; }
Value Text(const std::optional<std::wstring>& text) { return text ? Value(U8(*text)) : Value(nullptr); }

std::string Hex(std::uint32_t value) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "0x%08X", static_cast<unsigned>(value));
  return buffer;
}

// The lock file's content as a process id, when it is nothing but digits.
std::optional<std::int64_t> ProcessIdIn(const std::string& content) {
  if (content.empty() || content.size() > 10) return std::nullopt;
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

class Report {
 public:
  explicit Report(Diagnosis& diagnosis) : diagnosis_(diagnosis) {}
  Check& Add(std::string id, Verdict verdict, std::string text) {
    diagnosis_.checks.push_back(Check{std::move(id), verdict, std::move(text), {}});
    return diagnosis_.checks.back();
  }

 private:
  Diagnosis& diagnosis_;
};

// The first reason, in the order the wrapper meets them, why the installer
// would not lock the folder; empty when nothing here stands in its way.
struct SdkFindings {
  std::string firstProblem;
  bool throws = false;  // the lock file's test raises out of InitializeQel
  void Note(const std::string& problem) {
    if (firstProblem.empty()) firstProblem = problem;
  }
};

void CheckSdk(Report& report, SdkFindings& sdk) {
  // The self-update lock: tested before anything else of the SDK.
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
    Check& check = report.Add("sdk.selfUpdateLock", verdict, text);
    check.fields = {{"file", U8(lock.file.native())},
                    {"present", lock.present},
                    {"content", lock.present ? Value(lock.content) : Value(nullptr)},
                    {"processId", pid ? Value(*pid) : Value(nullptr)},
                    {"running", lock.running}};
  } catch (const std::filesystem::filesystem_error& error) {
    Check& check = report.Add("sdk.selfUpdateLock", Verdict::Fail,
                              std::string("cannot be tested: ") + error.what() + " (InitializeQel would throw)");
    check.fields = {{"error", std::string(error.what())}};
    sdk.Note(std::string("the self-update lock file cannot be tested: ") + error.what());
    sdk.throws = true;
  }

  const SdkPathLookup lookup = LookUpSdkPath();
  const std::string key = "HKLM\\" + U8(kHaldoKeyPath) + U8(kSdkLocationValue);
  {
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
    Check& check = report.Add("sdk.location", verdict, text);
    check.fields = {{"key", key},
                    {"read", std::string(LocationReadText(lookup.read))},
                    {"value", lookup.outcome == SdkPathLookup::Outcome::RegistryUnreadable ? Value(nullptr)
                                                                                          : Value(U8(lookup.value))}};
  }

  const bool haveValue = lookup.outcome != SdkPathLookup::Outcome::RegistryUnreadable &&
                         lookup.outcome != SdkPathLookup::Outcome::Empty;
  if (!haveValue) {
    report.Add("sdk.expanded", Verdict::Skip, "no value to expand");
  } else if (lookup.outcome == SdkPathLookup::Outcome::ExpansionFailed) {
    report.Add("sdk.expanded", Verdict::Warn, "expansion failed").fields = {{"expanded", nullptr}};
    sdk.Note("the SDK location cannot be expanded");
  } else {
    const bool fits = !lookup.expanded.empty();
    Check& check = report.Add("sdk.expanded", fits ? Verdict::Ok : Verdict::Warn,
                              fits ? Quoted(lookup.expanded) : "longer than 260 characters");
    check.fields = {{"expanded", fits ? Value(U8(lookup.expanded)) : Value(nullptr)}};
    if (!fits) sdk.Note("the expanded SDK location is longer than 260 characters");
  }

  const bool found = lookup.outcome == SdkPathLookup::Outcome::Found;
  if (lookup.outcome == SdkPathLookup::Outcome::Missing && !lookup.expanded.empty()) {
    report.Add("sdk.file", Verdict::Warn, Quoted(lookup.expanded) + " does not exist").fields = {{"exists", false}};
    sdk.Note("the SDK file " + Quoted(lookup.expanded) + " does not exist");
  } else if (found) {
    std::error_code ec;
    const bool directory = QueryPathStatus(lookup.expanded, ec).isDirectory;
    Check& check = report.Add("sdk.file", directory ? Verdict::Warn : Verdict::Ok,
                              directory ? "exists, but is a folder" : "exists");
    check.fields = {{"exists", true}, {"isDirectory", directory}};
    if (directory) sdk.Note("the SDK location names a folder, not a DLL");
  } else {
    report.Add("sdk.file", Verdict::Skip, "no path to test");
  }

  if (!found) {
    report.Add("sdk.signature", Verdict::Skip, "no file to verify");
    report.Add("sdk.publisher", Verdict::Skip, "no file to verify");
    for (const char* name : kSdkExports) report.Add(std::string("sdk.export.") + name, Verdict::Skip, "no file to read");
    return;
  }

  const LONG status = TrustStatus(lookup.expanded);
  {
    const std::string code = std::to_string(status) + " (" + Hex(static_cast<std::uint32_t>(status)) + ")";
    Check& check = report.Add("sdk.signature", status == 0 ? Verdict::Ok : Verdict::Warn,
                              status == 0 ? "Authenticode signature verifies (WinVerifyTrust 0)"
                                          : "Authenticode signature does not verify: WinVerifyTrust " + code);
    check.fields = {{"status", std::int64_t{status}}, {"statusHex", Hex(static_cast<std::uint32_t>(status))},
                    {"verified", status == 0}};
    if (status != 0) sdk.Note("the SDK file's signature does not verify (WinVerifyTrust " + code + ")");
  }

  const std::string publisher = U8(kSdkPublisher);
  if (status != 0) {
    report.Add("sdk.publisher", Verdict::Skip, "not reached: the wrapper stops at the signature");
  } else {
    const PublisherSearch search = SearchPublisher(lookup.expanded, kSdkPublisher);
    const bool named = search.outcome == PublisherSearch::Outcome::Found;
    std::string text = "a certificate names \"" + publisher + "\"";
    if (search.outcome == PublisherSearch::Outcome::SignatureUnreadable) {
      text = "the embedded signature cannot be read (error " + std::to_string(search.error) + ")";
    } else if (!named) {
      text = "no certificate names \"" + publisher + "\" (error " + std::to_string(search.error) + ")";
    }
    Check& check = report.Add("sdk.publisher", named ? Verdict::Ok : Verdict::Warn, text);
    check.fields = {{"publisher", publisher}, {"found", named}, {"error", std::int64_t{search.error}}};
    if (!named) sdk.Note("the SDK file is not signed by \"" + publisher + "\"");
  }

  const auto names = ReadExportNames(lookup.expanded);
  for (const char* name : kSdkExports) {
    const std::string id = std::string("sdk.export.") + name;
    if (!names) {
      report.Add(id, Verdict::Warn, "the file is not a readable DLL").fields = {{"present", false}};
      sdk.Note("the SDK file is not a readable DLL");
      continue;
    }
    const bool present = names->count(name) > 0;
    report.Add(id, present ? Verdict::Ok : Verdict::Warn, present ? "exported" : "not exported").fields = {
        {"present", present}};
    // Only these two stand between a started SDK and the lock.
    if (!present && (std::string(name) == "Initialize" || std::string(name) == "LockDirectory"))
      sdk.Note(std::string("the SDK file does not export ") + name);
  }
}

// The folder the session would hand out, checked as the bootstrap checks it;
// empty with `cause` set when it would fail.
struct Located {
  std::wstring folder;
  std::string cause;
};

Located CheckInstallLocation(Report& report) {
  Located located;
  const std::wstring keyPath = SharedComponentsKeyPath(QelRelease);
  const std::string key = "HKLM\\" + U8(keyPath);
  UniqueRegKey registry;
  const bool keyOpen = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyPath.c_str(), 0, KEY_READ, registry.put()) == ERROR_SUCCESS;
  report.Add("registry.key", keyOpen ? Verdict::Ok : Verdict::Fail, key + (keyOpen ? " present" : " missing")).fields = {
      {"key", key}, {"present", keyOpen}};

  // The override switch: any value whose data fits in four bytes is the number.
  std::optional<DWORD> enabled;
  if (keyOpen) {
    DWORD number = 0;
    if (QueryPathOverrideSwitch(registry.get(), number) == ERROR_SUCCESS) enabled = number;
  }
  const std::wstring variableName = L"QEL_PATH_" + QelRelease;
  const std::optional<std::wstring> variable = ReadEnvironmentVariable(variableName.c_str());
  const bool overrideOn = enabled && *enabled == 1;
  const bool overridden = overrideOn && variable;
  {
    Verdict verdict = Verdict::Ok;
    std::string text = enabled ? "EnablePathOverride = " + std::to_string(*enabled) + ": off" : "EnablePathOverride absent: off";
    if (overridden) {
      verdict = Verdict::Info;
      text = "EnablePathOverride = 1 and " + U8(variableName) + " = " + Quoted(*variable) + ": that folder is used";
    } else if (overrideOn) {
      verdict = Verdict::Warn;
      text = "EnablePathOverride = 1 but " + U8(variableName) + " is not set: the registry's folder is used";
    }
    report.Add("registry.override", verdict, text).fields = {
        {"enablePathOverride", enabled ? Value(std::int64_t{*enabled}) : Value(nullptr)},
        {"variable", U8(variableName)},
        {"variableValue", Text(variable)}};
  }

  std::wstring installPath;
  const bool installRead = keyOpen && QuerySharedComponentsText(registry.get(), L"InstallPath", installPath) == ERROR_SUCCESS;
  std::error_code ec;
  const bool installExists = installRead && PathExists(installPath, ec);
  std::wstring version;
  const bool versionRead = keyOpen && QuerySharedComponentsText(registry.get(), L"Version", version) == ERROR_SUCCESS;
  const std::wstring versionFolder = installPath + L"\\" + version;
  const bool versionExists = installExists && versionRead && !version.empty() && PathExists(versionFolder, ec);

  // With the override in force the session reads neither value.
  const Verdict unusedOr = overridden ? Verdict::Info : Verdict::Fail;
  if (!keyOpen) {
    report.Add("registry.installPath", Verdict::Skip, "no key to read");
    report.Add("registry.version", Verdict::Skip, "no key to read");
    located.cause = "the shared-components entry " + key + " is missing";
  } else {
    std::string text = installRead ? "InstallPath = " + Quoted(installPath) + (installExists ? ", exists" : ", does not exist")
                                   : "InstallPath missing, unreadable or longer than 129 characters";
    report.Add("registry.installPath", installExists ? Verdict::Ok : unusedOr, text).fields = {
        {"value", installRead ? Value(U8(installPath)) : Value(nullptr)}, {"exists", installExists}};
    if (!installRead) {
      located.cause = "InstallPath of " + key + " is missing or longer than 129 characters";
    } else if (!installExists) {
      located.cause = "the InstallPath folder " + Quoted(installPath) + " does not exist";
    }

    if (!installExists) {
      report.Add("registry.version", Verdict::Skip, "not reached: no InstallPath folder");
    } else {
      std::string versionText = !versionRead    ? "Version missing or unreadable"
                                : version.empty() ? "Version is empty"
                                                  : "Version = " + Quoted(version) + ", folder " + Quoted(versionFolder) +
                                                        (versionExists ? " exists" : " does not exist");
      report.Add("registry.version", versionExists ? Verdict::Ok : unusedOr, versionText).fields = {
          {"value", versionRead ? Value(U8(version)) : Value(nullptr)},
          {"folder", versionRead && !version.empty() ? Value(U8(versionFolder)) : Value(nullptr)},
          {"exists", versionExists}};
      if (!versionRead) {
        located.cause = "Version of " + key + " is missing";
      } else if (version.empty()) {
        located.cause = "Version of " + key + " is empty";
      } else if (!versionExists) {
        located.cause = "the version folder " + Quoted(versionFolder) + " does not exist";
      }
    }
  }

  if (overridden) {
    located.folder = *variable;
    located.cause.clear();
  } else if (located.cause.empty()) {
    located.folder = versionFolder;
  }

  if (!located.cause.empty()) {
    report.Add("location", Verdict::Skip, "no folder: " + located.cause).fields = {{"folder", nullptr}};
    return located;
  }
  const bool longEnough = located.folder.size() >= kMinimumLocationLength;
  const bool directory = longEnough && IsExistingDirectory(located.folder);
  Check& check = report.Add("location", directory ? Verdict::Ok : Verdict::Fail,
                            Quoted(located.folder) + (!longEnough  ? " is too short to be a folder"
                                                      : directory ? " is an existing folder"
                                                                  : " is not an existing folder"));
  check.fields = {{"folder", U8(located.folder)}, {"isDirectory", directory}};
  if (!longEnough) {
    located.cause = U8(variableName) + " = " + Quoted(located.folder) + " is too short to be a folder";
  } else if (!directory) {
    located.cause = (overridden ? U8(variableName) + " names " : std::string("the folder ")) + Quoted(located.folder) +
                    ", which is not an existing folder";
  }
  return located;
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
  Report report(diagnosis);
  Conclusion& conclusion = diagnosis.conclusion;

  std::error_code ec;
  const bool libraryFound = PathExists(library, ec);
  const bool development = IsDevelopmentModulePath(library);
  report.Add("library", development ? Verdict::Info : libraryFound ? Verdict::Ok : Verdict::Warn,
             Quoted(library) + (libraryFound ? " found" : " not found") +
                 (development ? "; a development build (drive R:): the bootstrap only sets the marker"
                              : "; not a development build"))
      .fields = {{"path", U8(library)}, {"found", libraryFound}, {"development", development}};

  const std::wstring folder = ParentPathOf(library);
  bool lite = false;
  try {
    lite = IsLiteEditionIn(folder);
  } catch (const std::filesystem::filesystem_error&) {
    // Kalvex.ini that cannot be tested counts as no edition here.
  }
  report.Add("edition", Verdict::Info,
             lite ? "KLXLITE (Kalvex.ini): the edition-aware entry does nothing; InitializeQel itself still runs"
                  : "not the lite edition")
      .fields = {{"iniFile", U8(folder + L"\\Kalvex.ini")}, {"lite", lite}};

  const std::optional<std::wstring> marker = ReadEnvironmentVariable(kBypassMarker);
  report.Add("marker", marker ? Verdict::Info : Verdict::Ok,
             marker ? U8(kBypassMarker) + " = " + Quoted(*marker) + ": the session is bypassed"
                    : U8(kBypassMarker) + " absent")
      .fields = {{"variable", U8(kBypassMarker)}, {"present", marker.has_value()}, {"value", Text(marker)}};

  SdkFindings sdk;
  CheckSdk(report, sdk);
  const Located located = CheckInstallLocation(report);

  const std::optional<std::wstring> path = ReadEnvironmentVariable(L"PATH");
  const bool holds = path && !located.folder.empty() && PathListContains(*path, located.folder);
  report.Add("path", path ? Verdict::Ok : Verdict::Fail,
             !path                  ? "PATH is not set"
             : located.folder.empty() ? "PATH is set; no folder to look for"
             : holds                  ? "PATH already holds the folder: left unchanged"
                                      : "PATH does not hold the folder yet: it would be prepended")
      .fields = {{"present", path.has_value()}, {"holdsFolder", holds}};

  // What InitializeQel does, in its order.
  const std::string lockNote = sdk.firstProblem.empty() ? "the installer would lock it while the process is prepared"
                                                        : "the installer would not lock it: " + sdk.firstProblem;
  if (development) {
    conclusion.initializeQel = true;
    conclusion.text = "InitializeQel would return true at once: a development build only sets " + U8(kBypassMarker);
  } else if (marker) {
    conclusion.initializeQel = true;
    conclusion.text = "InitializeQel would return true without the installer: " + U8(kBypassMarker) +
                      " is already set (usually inherited from a parent that bootstrapped)";
  } else if (sdk.throws) {
    conclusion.text = "InitializeQel would throw: " + sdk.firstProblem;
  } else if (!located.cause.empty()) {
    conclusion.text = "InitializeQel would return false: " + located.cause;
    if (!sdk.firstProblem.empty()) conclusion.text += "; also, " + sdk.firstProblem;
  } else if (!path) {
    conclusion.text = "InitializeQel would return false: PATH is not set";
  } else {
    conclusion.initializeQel = true;
    conclusion.sdkLock = sdk.firstProblem.empty();
    conclusion.location = U8(located.folder);
    conclusion.text = "InitializeQel would return true with " + Quoted(located.folder) + "; " + lockNote;
  }
  return diagnosis;
}

}  // namespace ambrel::diagnose
