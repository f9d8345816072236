#include "diagnose/LocationChecks.h"

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

}  // namespace

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

}  // namespace ambrel::diagnose
