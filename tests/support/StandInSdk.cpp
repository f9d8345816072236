#include "tests/support/StandInSdk.h"

#include <shlobj.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace ambrel::test {
namespace {

constexpr wchar_t kUserShellFolders[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders";

std::wstring KnownProgramData() {
  PWSTR known = nullptr;
  const HRESULT result =
      ::SHGetKnownFolderPath(FOLDERID_ProgramData, KF_FLAG_DONT_VERIFY | KF_FLAG_NO_ALIAS, nullptr, &known);
  std::wstring path = SUCCEEDED(result) && known ? known : L"";
  ::CoTaskMemFree(known);
  return path;
}

}  // namespace

const std::string kLogSeparator(71, '=');

const char* StandInKindName(StandInKind kind) {
  switch (kind) {
    case StandInKind::Signed: return "signed";
    case StandInKind::Unsigned: return "unsigned";
    case StandInKind::Tampered: return "tampered";
    case StandInKind::OtherPublisher: return "other_publisher";
    case StandInKind::OtherCase: return "other_case";
    case StandInKind::LongerOrganisation: return "longer_org";
    case StandInKind::CommonName: return "common_name";
    case StandInKind::NoInitialize: return "no_Initialize";
    case StandInKind::NoReleaseMemory: return "no_ReleaseMemory";
    case StandInKind::NoUninitialize: return "no_Uninitialize";
    case StandInKind::NoLockDirectory: return "no_LockDirectory";
    case StandInKind::NoUnLockDirectory: return "no_UnLockDirectory";
    case StandInKind::ThirtyTwoBit: return "x86";
  }
  return "unknown";
}

std::wstring StandInSdkPath(StandInKind kind) {
  return TestBinDirectory() + L"\\standin_sdk\\" + Widen(StandInKindName(kind)) + L"\\StandInSdk.dll";
}

void SetSdkLocation(const std::wstring& value, DWORD type) {
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kHaldoKey, kSdkLocationName, value, type);
}

void SetSdkLocation(StandInKind kind) { SetSdkLocation(StandInSdkPath(kind)); }

// --- StandInSdk

StandInSdk::StandInSdk() {
  env_.Set(L"AMBREL_STANDIN_SDK_CONFIG", dir_ / L"config.txt");
  env_.Set(L"AMBREL_STANDIN_SDK_RECORD", dir_ / L"calls.txt");
  WriteConfig();
}

void StandInSdk::SetResult(const std::string& exportName, int result) {
  config_[exportName] = std::to_string(result);
  WriteConfig();
}

void StandInSdk::SetSessionId(const std::string& id) {
  config_["SessionId"] = id;
  WriteConfig();
}

void StandInSdk::SetRefuseLoad(bool refuse) {
  config_["FailAttach"] = refuse ? "1" : "0";
  WriteConfig();
}

void StandInSdk::CountHandles() {
  config_["HandleRecord"] = Narrow(dir_ / L"handles.txt");
  WriteConfig();
}

std::vector<std::pair<std::string, long>> StandInSdk::HandleCounts() const {
  std::vector<std::pair<std::string, long>> counts;
  for (const std::string& line : SplitLines(ReadFileBytes(dir_ / L"handles.txt"))) {
    const std::size_t tab = line.find('\t');
    counts.emplace_back(line.substr(0, tab), std::stol(line.substr(tab + 1)));
  }
  return counts;
}

void StandInSdk::ProbeHoldAtLoad() {
  config_["HoldProbe"] = Narrow(dir_ / L"hold.txt");
  WriteConfig();
}

std::string StandInSdk::HoldAtLoad() const { return ReadFileBytes(dir_ / L"hold.txt"); }

void StandInSdk::WriteConfig() const {
  std::string text;
  for (const auto& [key, value] : config_) text += key + "=" + value + "\n";
  dir_.WriteFile(L"config.txt", text);
}

std::vector<std::string> StandInSdk::Calls(bool withLoading) const {
  std::vector<std::string> calls;
  for (auto& line : SplitLines(ReadFileBytes(dir_ / L"calls.txt"))) {
    if (!withLoading && (line == "Attach" || line == "Detach" || line == "AttachRefused")) continue;
    calls.push_back(line);
  }
  return calls;
}

void StandInSdk::ClearCalls() const { ::DeleteFileW((dir_ / L"calls.txt").c_str()); }

// --- WrapperLogFolder

WrapperLogFolder::WrapperLogFolder(bool createLogFolder) {
  env_.Set(L"LOCALAPPDATA", dir_.path());
  if (createLogFolder) dir_.MakeDir(L"Tavrel\\HALDO");
}

std::wstring WrapperLogFolder::LogFile() const { return dir_ / L"Tavrel\\HALDO\\HALDO_APIWrapper.log"; }

bool WrapperLogFolder::LogExists() const { return ::GetFileAttributesW(LogFile().c_str()) != INVALID_FILE_ATTRIBUTES; }

std::vector<std::string> WrapperLogFolder::Lines() const { return SplitLines(ReadFileBytes(LogFile())); }

std::vector<std::string> WrapperLogFolder::Messages() const {
  std::vector<std::string> messages;
  for (const auto& line : Lines()) {
    if (line == kLogSeparator) {
      messages.push_back(line);
    } else if (HasTimestampShape(line)) {
      messages.push_back(line.substr(22));
    } else {
      messages.push_back("<bad timestamp> " + line);
    }
  }
  return messages;
}

void WrapperLogFolder::Clear() const { ::DeleteFileW(LogFile().c_str()); }

std::vector<std::string> SuccessfulInitializeLog(const std::string& dllPath, const std::string& sessionId,
                                                 const std::string& plc, const std::string& release,
                                                 const std::string& language) {
  return {kLogSeparator,
          "[INFO] HALDOAPIWrapperImpl::Initialize: plc = \"" + plc + "\", release = \"" + release +
              "\", language = \"" + language + "\"",
          "[INFO] Load: HALDO SDK path = " + dllPath,
          "[INFO] HALDOAPIWrapperImpl::Initialize: HALDO SDK loaded successfully",
          "[INFO] HALDOAPIWrapperImpl::Initialize: session id = " + sessionId};
}

bool HasTimestampShape(const std::string& line) {
  // "[YYYY-MM-DDTHH:MM:SS] ": digits everywhere but at the fixed punctuation.
  static const std::string shape = "[dddd-dd-ddTdd:dd:dd] ";
  if (line.size() < shape.size()) return false;
  for (size_t i = 0; i < shape.size(); ++i) {
    const char c = line[i];
    if (shape[i] == 'd' ? !(c >= '0' && c <= '9') : c != shape[i]) return false;
  }
  return true;
}

// --- ProgramDataFolder

ProgramDataFolder::ProgramDataFolder() {
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kUserShellFolders, L"Common AppData", dir_.path(), REG_EXPAND_SZ);
  const std::wstring seen = KnownProgramData();
  if (_wcsicmp(seen.c_str(), dir_.path().c_str()) != 0)
    throw std::runtime_error("the program-data folder did not follow the sandbox: " + Narrow(seen));
}

ProgramDataFolder::~ProgramDataFolder() {
  RemoveLock();
  ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kUserShellFolders, L"Common AppData");
}

std::wstring ProgramDataFolder::LockFile() const { return dir_ / L"Tavrel\\HALDO\\TvHALDOInstaller.run.lock"; }

void ProgramDataFolder::WriteLock(const std::string& content) const {
  dir_.WriteFile(L"Tavrel\\HALDO\\TvHALDOInstaller.run.lock", content);
}

void ProgramDataFolder::RemoveLock() const { ::DeleteFileW(LockFile().c_str()); }

}  // namespace ambrel::test
