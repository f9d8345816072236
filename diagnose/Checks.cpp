#include "diagnose/Checks.h"

#include <windows.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <limits>
#include <optional>
#include <string_view>
#include <system_error>

#include "common/Environment.h"
#include "common/FileSystemStatus.h"
#include "common/ModuleHelpers.h"
#include "common/RegistryText.h"
#include "common/TextConvert.h"
#include "common/WinResource.h"
#include "diagnose/Hex.h"
#include "diagnose/LibrarySignature.h"
#include "diagnose/SdkExports.h"
#include "diagnose/SdkMachine.h"
#include "diagnose/Versions.h"
#include "haldo_sdk/SdkEntryPoints.h"
#include "haldo_sdk/SdkModule.h"
#include "haldo_sdk/WrapperStatus.h"
#include "qel_loader/Bootstrap.h"
#include "qel_loader/InstallQueries.h"
#include "qel_session/InstallLocation.h"

namespace ambrel::diagnose {
namespace {

// A process id is a DWORD: more decimal digits than it can hold name no process.
constexpr std::size_t kMaximumProcessIdDigits = std::numeric_limits<DWORD>::digits10 + 1;

std::string U8(const std::wstring& text) { return WideToUtf8(text); }
std::string Quoted(const std::wstring& text) { return "\"" + U8(text) + "\""; }
Value Text(const std::optional<std::wstring>& text) { return text ? Value(U8(*text)) : Value(nullptr); }

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

// ---- the SDK: the wrapper's load walk, then the entry points it binds ----

// What the SDK half found: the walk (absent when the lock file's test
// threw), the exported names, and the first reason the installer would not
// lock the folder, in the wrapper's order.
struct SdkFindings {
  std::optional<SdkLoadCheck> load;
  std::string thrown;        // the lock file's test raised this out of InitializeQel
  std::string firstProblem;  // empty when nothing stands in the lock's way
};

std::string SdkLocationKey() { return "HKLM\\" + U8(kHaldoKeyPath) + U8(kSdkLocationValue); }

// Why the walk refused, in words.
std::string RefusalText(const SdkLoadCheck& load) {
  if (load.refusal == kWrapperSelfUpdateRunning)
    return "the installer is updating itself (lock file names running process " + load.selfUpdate.content + ")";
  if (load.refusal == kWrapperSdkNotLoaded && load.lookup) {
    const SdkPathLookup& lookup = *load.lookup;
    switch (lookup.outcome) {
      case SdkPathLookup::Outcome::RegistryUnreadable:
        return "the SDK location " + SdkLocationKey() + " is not set (" + LocationReadText(lookup.read) + ")";
      case SdkPathLookup::Outcome::Empty: return "the SDK location " + SdkLocationKey() + " is empty";
      case SdkPathLookup::Outcome::ExpansionFailed: return "the SDK location cannot be expanded";
      case SdkPathLookup::Outcome::Missing:
        return lookup.expanded.empty() ? "the expanded SDK location is longer than 260 characters"
                                       : "the SDK file " + Quoted(lookup.expanded) + " does not exist";
      case SdkPathLookup::Outcome::Found: break;
    }
  }
  if (load.refusal == kWrapperSignatureRejected && load.signature) {
    if (load.signature->trust != 0) {
      const LONG status = load.signature->trust;
      return "the SDK file's signature does not verify (WinVerifyTrust " + std::to_string(status) + " (" +
             Hex(static_cast<std::uint32_t>(status)) + "))";
    }
    return "the SDK file is not signed by \"" + U8(kSdkPublisher) + "\"";
  }
  return {};
}

void RenderSelfUpdateLock(std::vector<Check>& report, const SelfUpdateLock& lock) {
  const auto pid = ProcessIdIn(lock.content);
  Verdict verdict = Verdict::Ok;
  std::string text = "absent: " + U8(lock.file.native());
  if (lock.running) {
    verdict = Verdict::Warn;
    text = "process " + lock.content + " is running: the installer is updating itself, the SDK would not load (code " +
           std::to_string(kWrapperSelfUpdateRunning) + ")";
  } else if (lock.present) {
    verdict = Verdict::Info;
    text = pid ? "stale: process " + lock.content + " is not running; ignored" : "stale: holds no bare process id; ignored";
  }
  Add(report, "sdk.selfUpdateLock", verdict, text).fields = {
      {"file", U8(lock.file.native())},
      {"present", lock.present},
      {"content", lock.present ? Value(lock.content) : Value(nullptr)},
      {"processId", pid ? Value(*pid) : Value(nullptr)},
      {"running", lock.running}};
}

// The registry value, its expansion and the file it names.
void RenderSdkPath(std::vector<Check>& report, const SdkPathLookup& lookup) {
  using Outcome = SdkPathLookup::Outcome;
  const std::string key = SdkLocationKey();
  const bool unreadable = lookup.outcome == Outcome::RegistryUnreadable;
  const bool empty = lookup.outcome == Outcome::Empty;
  Add(report, "sdk.location", unreadable || empty ? Verdict::Warn : Verdict::Ok,
      unreadable ? key + ": " + LocationReadText(lookup.read)
      : empty    ? key + " is empty"
                 : key + " = " + Quoted(lookup.value))
      .fields = {{"key", key},
                 {"read", std::string(LocationReadText(lookup.read))},
                 {"value", unreadable ? Value(nullptr) : Value(U8(lookup.value))}};

  if (unreadable || empty) {
    Add(report, "sdk.expanded", Verdict::Skip, "no value to expand");
  } else if (lookup.outcome == Outcome::ExpansionFailed) {
    Add(report, "sdk.expanded", Verdict::Warn, "expansion failed").fields = {{"expanded", nullptr}};
  } else {
    const bool fits = !lookup.expanded.empty();
    Add(report, "sdk.expanded", fits ? Verdict::Ok : Verdict::Warn,
        fits ? Quoted(lookup.expanded) : "longer than 260 characters")
        .fields = {{"expanded", fits ? Value(U8(lookup.expanded)) : Value(nullptr)}};
  }

  if (lookup.outcome == Outcome::Missing && !lookup.expanded.empty()) {
    Add(report, "sdk.file", Verdict::Warn, Quoted(lookup.expanded) + " does not exist").fields = {{"exists", false}};
  } else if (lookup.outcome == Outcome::Found) {
    std::error_code ec;
    const bool directory = QueryPathStatus(lookup.expanded, ec).isDirectory;
    Add(report, "sdk.file", directory ? Verdict::Warn : Verdict::Ok, directory ? "exists, but is a folder" : "exists")
        .fields = {{"exists", true}, {"isDirectory", directory}};
  } else {
    Add(report, "sdk.file", Verdict::Skip, "no path to test");
  }
}

void RenderSignature(std::vector<Check>& report, const std::optional<SignatureFindings>& signature) {
  if (!signature) {
    Add(report, "sdk.signature", Verdict::Skip, "no file to verify");
    Add(report, "sdk.publisher", Verdict::Skip, "no file to verify");
    return;
  }
  const LONG status = signature->trust;
  const std::string code = std::to_string(status) + " (" + Hex(static_cast<std::uint32_t>(status)) + ")";
  Add(report, "sdk.signature", status == 0 ? Verdict::Ok : Verdict::Warn,
      status == 0 ? "Authenticode signature verifies (WinVerifyTrust 0)"
                  : "Authenticode signature does not verify: WinVerifyTrust " + code)
      .fields = {{"status", std::int64_t{status}},
                 {"statusHex", Hex(static_cast<std::uint32_t>(status))},
                 {"verified", status == 0}};
  if (!signature->publisher) {
    Add(report, "sdk.publisher", Verdict::Skip, "not reached: the wrapper stops at the signature");
    return;
  }
  const PublisherSearch& search = *signature->publisher;
  const std::string publisher = U8(kSdkPublisher);
  const bool named = search.outcome == PublisherSearch::Outcome::Found;
  std::string text = "a certificate names \"" + publisher + "\"";
  if (search.outcome == PublisherSearch::Outcome::SignatureUnreadable) {
    text = "the embedded signature cannot be read (error " + std::to_string(search.error) + ")";
  } else if (!named) {
    text = "no certificate names \"" + publisher + "\" (error " + std::to_string(search.error) + ")";
  }
  Add(report, "sdk.publisher", named ? Verdict::Ok : Verdict::Warn, text).fields = {
      {"publisher", publisher}, {"found", named}, {"error", std::int64_t{search.error}}};
}

// Each entry point the wrapper binds, read from the file's export table.
// Returns the first reason, in the order the wrapper binds them, that the lock
// would not be taken; "" when none.
std::string RenderExports(std::vector<Check>& report, const std::wstring& file) {
  if (file.empty()) {
    for (const SdkEntryPoint& entry : kSdkEntryPoints)
      Add(report, std::string("sdk.export.") + entry.name, Verdict::Skip, "no file to read");
    return {};
  }
  const auto names = ReadExportNames(file);
  std::string problem;
  for (const SdkEntryPoint& entry : kSdkEntryPoints) {
    const bool present = names && names->count(entry.name) > 0;
    Add(report, std::string("sdk.export.") + entry.name, present ? Verdict::Ok : Verdict::Warn,
        !names ? "the file is not a readable DLL" : present ? "exported" : "not exported")
        .fields = {{"present", present}};
    if (!names && problem.empty()) problem = "the SDK file is not a readable DLL";
    if (!present && entry.lockNeedsIt && problem.empty())
      problem = std::string("the SDK file does not export ") + entry.name;
  }
  return problem;
}

SdkFindings CheckSdk(std::vector<Check>& report) {
  SdkFindings sdk;
  try {
    sdk.load = CheckSdkLoad({});
    sdk.load->CloseHandles();  // the tool loads nothing: only what was found is kept
  } catch (const std::filesystem::filesystem_error& error) {
    sdk.thrown = error.what();
    sdk.firstProblem = std::string("the self-update lock file cannot be tested: ") + error.what();
    Add(report, "sdk.selfUpdateLock", Verdict::Fail,
        std::string("cannot be tested: ") + error.what() + " (InitializeQel would throw)")
        .fields = {{"error", sdk.thrown}};
    for (const char* id : {"sdk.location", "sdk.expanded", "sdk.file", "sdk.signature", "sdk.publisher"})
      Add(report, id, Verdict::Skip, "not reached: the lock file's test throws");
    CheckSdkMachine(report, {});
    RenderExports(report, {});
    return sdk;
  }
  const SdkLoadCheck& load = *sdk.load;
  RenderSelfUpdateLock(report, load.selfUpdate);
  if (load.lookup) {
    RenderSdkPath(report, *load.lookup);
  } else {
    for (const char* id : {"sdk.location", "sdk.expanded", "sdk.file"})
      Add(report, id, Verdict::Skip, "not reached: the wrapper stops at the self-update lock");
  }
  RenderSignature(report, load.signature);
  // Read whenever there is a file, also past a refusal: it is evidence. The
  // machine decides LoadLibraryW, which comes before the exports are bound.
  const std::string machineProblem = CheckSdkMachine(report, load.path);
  const std::string exportProblem = RenderExports(report, load.path);
  sdk.firstProblem = load.refusal != kWrapperSuccess ? RefusalText(load)
                     : machineProblem.empty()        ? exportProblem
                                                     : machineProblem;
  return sdk;
}

// ---- the install location: the session's lookup, then the bootstrap's look at the process ----

std::string KeyName() { return "HKLM\\" + U8(SharedComponentsKeyPath(QelRelease)); }

void RenderPathOverride(std::vector<Check>& report, const PathOverrideLookup& lookup) {
  const std::string variableName = U8(lookup.variableName);
  Verdict verdict = Verdict::Ok;
  std::string text = lookup.enabled ? "EnablePathOverride = " + std::to_string(*lookup.enabled) + ": off"
                                    : "EnablePathOverride absent: off";
  if (lookup.status == Success) {
    verdict = Verdict::Info;
    text = "EnablePathOverride = 1 and " + variableName + " = " + Quoted(lookup.variable.value_or(L"")) +
           ": that folder is used";
  } else if (lookup.switchedOn()) {
    verdict = Verdict::Warn;
    text = "EnablePathOverride = 1 but " + variableName + " is not set: the registry's folder is used";
  }
  Add(report, "registry.override", verdict, text).fields = {
      {"enablePathOverride", lookup.enabled ? Value(std::int64_t{*lookup.enabled}) : Value(nullptr)},
      {"variable", variableName},
      {"variableValue", Text(lookup.variable)}};
}

// InstallPath and Version as the registry step read them; returns why that
// step gives no folder, or "".
std::string RenderInstallEntry(std::vector<Check>& report, const InstallEntryLookup& entry) {
  using Stop = InstallEntryLookup::Stop;
  if (entry.stop == Stop::KeyNotOpened) {
    Add(report, "registry.installPath", Verdict::Skip, "no key to read");
    Add(report, "registry.version", Verdict::Skip, "no key to read");
    return "the shared-components entry " + KeyName() + " is missing";
  }
  const bool installRead = entry.stop != Stop::InstallPathNotRead;
  const bool installExists = installRead && entry.stop != Stop::InstallPathMissing;
  Add(report, "registry.installPath", installExists ? Verdict::Ok : Verdict::Fail,
      installRead ? "InstallPath = " + Quoted(entry.installPath) + (installExists ? ", exists" : ", does not exist")
                  : "InstallPath missing, unreadable or longer than 129 characters")
      .fields = {{"value", installRead ? Value(U8(entry.installPath)) : Value(nullptr)}, {"exists", installExists}};
  if (!installRead) return "InstallPath of " + KeyName() + " is missing or longer than 129 characters";
  if (!installExists) {
    Add(report, "registry.version", Verdict::Skip, "not reached: no InstallPath folder");
    return "the InstallPath folder " + Quoted(entry.installPath) + " does not exist";
  }
  if (entry.stop == Stop::InstallPathOnly) {
    Add(report, "registry.version", Verdict::Skip, "not read: the override named the folder");
    return {};
  }
  const bool versionRead = entry.stop != Stop::VersionNotRead;
  const bool named = versionRead && entry.stop != Stop::VersionEmpty;
  const bool found = entry.stop == Stop::Found;
  Add(report, "registry.version", found ? Verdict::Ok : Verdict::Fail,
      !versionRead ? "Version missing or unreadable"
      : !named     ? "Version is empty"
                   : "Version = " + Quoted(entry.version) + ", folder " + Quoted(entry.versionFolder) +
                     (found ? " exists" : " does not exist"))
      .fields = {{"value", versionRead ? Value(U8(entry.version)) : Value(nullptr)},
                 {"folder", named ? Value(U8(entry.versionFolder)) : Value(nullptr)},
                 {"exists", found}};
  if (!versionRead) return "Version of " + KeyName() + " is missing";
  if (!named) return "Version of " + KeyName() + " is empty";
  if (!found) return "the version folder " + Quoted(entry.versionFolder) + " does not exist";
  return {};
}

// The folder the bootstrap would take, and whether the process can be
// prepared for it; `cause` says why not.
struct Located {
  bool usable = false;  // found and long enough: the session asks the installer to lock it
  std::wstring folder;
  std::optional<ProcessPreparation> preparation;  // absent when no usable folder was found
  std::string cause;
};

Located CheckInstallLocation(std::vector<Check>& report) {
  const InstallLocationLookup lookup = LookUpInstallLocation(HKEY_LOCAL_MACHINE, QelRelease, {}, false);
  const bool keyOpen = lookup.pathOverride.keyOpened;
  Add(report, "registry.key", keyOpen ? Verdict::Ok : Verdict::Fail, KeyName() + (keyOpen ? " present" : " missing"))
      .fields = {{"key", KeyName()}, {"present", keyOpen}};
  RenderPathOverride(report, lookup.pathOverride);

  Located located;
  if (lookup.registry) {
    located.cause = RenderInstallEntry(report, *lookup.registry);
  } else {
    Add(report, "registry.installPath", Verdict::Skip, "not read: the override names the folder");
    Add(report, "registry.version", Verdict::Skip, "not read: the override names the folder");
  }
  if (!lookup.usable() && lookup.status != Success) {
    Add(report, "location", Verdict::Skip, "no folder: " + located.cause).fields = {{"folder", nullptr}};
    return located;
  }
  located.usable = lookup.usable();
  located.folder = lookup.location.value_or(L"");
  const std::string source = lookup.registry ? "the registry's folder " : U8(lookup.pathOverride.variableName) + " = ";
  if (lookup.tooShort) {
    located.cause = source + Quoted(located.folder) + " is too short to be a folder";
    Add(report, "location", Verdict::Fail, Quoted(located.folder) + " is too short to be a folder").fields = {
        {"folder", U8(located.folder)}, {"isDirectory", false}};
    return located;
  }
  located.preparation = InspectProcessPreparation(located.folder);
  const bool directory = located.preparation->existingDirectory;
  Add(report, "location", directory ? Verdict::Ok : Verdict::Fail,
      Quoted(located.folder) + (directory ? " is an existing folder" : " is not an existing folder"))
      .fields = {{"folder", U8(located.folder)}, {"isDirectory", directory}};
  if (!directory) {
    located.cause = (lookup.registry ? std::string("the folder ") : U8(lookup.pathOverride.variableName) + " names ") +
                    Quoted(located.folder) + ", which is not an existing folder";
  }
  return located;
}

void RenderPath(std::vector<Check>& report, const Located& located) {
  if (!located.preparation || !located.preparation->existingDirectory) {
    Add(report, "path", Verdict::Skip, "not reached: no folder to put on PATH");
    return;
  }
  const ProcessPreparation& preparation = *located.preparation;
  const bool set = preparation.pathSet;
  Add(report, "path", set ? Verdict::Ok : Verdict::Fail,
      !set                          ? "PATH is not set"
      : preparation.pathHoldsFolder ? "PATH already holds the folder: left unchanged"
                                    : "PATH does not hold the folder yet: it would be prepended")
      .fields = {{"present", set}, {"holdsFolder", preparation.pathHoldsFolder}};
}

// ---- the library itself and the marker ----

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

// What InitializeQel does with these findings, in its order.
Conclusion Conclude(bool development, bool marked, const SdkFindings& sdk, const Located& located) {
  Conclusion conclusion;
  // The session asks for the lock before the bootstrap looks at the folder,
  // so a folder that then fails the bootstrap may still have been locked.
  conclusion.sdkLock = !development && !marked && sdk.thrown.empty() && located.usable && sdk.firstProblem.empty();
  if (development) {
    conclusion.initializeQel = true;
    conclusion.text = "InitializeQel would return true at once: a development build only sets " + U8(kBypassMarker);
  } else if (marked) {
    conclusion.initializeQel = true;
    conclusion.text = "InitializeQel would return true without the installer: " + U8(kBypassMarker) +
                      " is already set (usually inherited from a parent that bootstrapped)";
  } else if (!sdk.thrown.empty()) {
    conclusion.text = "InitializeQel would throw: " + sdk.firstProblem;
  } else if (!located.cause.empty()) {
    conclusion.text = "InitializeQel would return false: " + located.cause;
    if (!sdk.firstProblem.empty()) conclusion.text += "; also, " + sdk.firstProblem;
  } else if (!located.preparation || !located.preparation->possible()) {
    conclusion.text = "InitializeQel would return false: PATH is not set";
  } else {
    const std::string lockNote = sdk.firstProblem.empty()
                                     ? "the installer would lock it while the process is prepared"
                                     : "the installer would not lock it: " + sdk.firstProblem;
    conclusion.initializeQel = true;
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
  const std::optional<std::string> toolVersion = ToolVersion();
  diagnosis.toolVersion = toolVersion.value_or("");
  report.push_back(CheckLibraryVersion(library, toolVersion));
  report.push_back(CheckLibrarySignature(library));
  CheckEdition(report, library);
  const bool marked = CheckMarker(report);
  const SdkFindings sdk = CheckSdk(report);
  const Located located = CheckInstallLocation(report);
  RenderPath(report, located);
  diagnosis.conclusion = Conclude(development, marked, sdk, located);
  return diagnosis;
}

}  // namespace ambrel::diagnose
