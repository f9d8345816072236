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
#include "diagnose/LocationChecks.h"
#include "diagnose/SdkChecks.h"

namespace ambrel::diagnose {
namespace {

// Returns whether the library is a development build (drive R:).
bool CheckLibrary(std::vector<Check>& report, const std::wstring& library) {
  std::error_code ec;
  const bool found = PathExists(library, ec);
  const bool development = IsDevelopmentModulePath(library);
  Add(report, "library",
      development ? Verdict::Info
      : found     ? Verdict::Ok
                  : Verdict::Warn,
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
      marker ? U8(kBypassMarker) + " = " + Quoted(*marker) + ": the session is bypassed"
             : U8(kBypassMarker) + " absent")
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
    const std::string lockNote = sdk.firstProblem.empty() ? "the installer would lock it while the process is prepared"
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
