#include "diagnose/SdkChecks.h"

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
#include "diagnose/CheckReport.h"

namespace ambrel::diagnose {
namespace {

// A process id is a DWORD: more decimal digits than it can hold name no process.
constexpr std::size_t kMaximumProcessIdDigits = std::numeric_limits<DWORD>::digits10 + 1;

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
    text = pid ? "stale: process " + lock.content + " is not running; ignored"
               : "stale: holds no bare process id; ignored";
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
        !names    ? "the file is not a readable DLL"
        : present ? "exported"
                  : "not exported")
        .fields = {{"present", present}};
    if (!names && problem.empty()) problem = "the SDK file is not a readable DLL";
    if (!present && entry.lockNeedsIt && problem.empty())
      problem = std::string("the SDK file does not export ") + entry.name;
  }
  return problem;
}

}  // namespace

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

}  // namespace ambrel::diagnose
