#include "tests/qel_loader/BootstrapSandbox.h"

#include <filesystem>
#include <stdexcept>

namespace ambrel::test {

BootstrapSandbox::BootstrapSandbox() {
  sharedDir_ = scratch_.MakeDir(L"Shared Components\\2026.1");
  localAppData_ = scratch_.MakeDir(L"LocalAppData");
  recordFile_ = scratch_ / L"sdk-record.txt";
  configFile_ = scratch_.WriteFile(L"sdk-config.txt", "");
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedKey, L"InstallPath", scratch_ / L"Shared Components");
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedKey, L"Version", L"2026.1");
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tavrel\\HALDO", L"HALDOSDKLocation",
                             BinFile(L"standin_sdk\\signed\\StandInSdk.dll"));
  env_.Unset(kMarker);
  env_.Unset(L"QEL_PATH_2026");
  env_.Set(L"LOCALAPPDATA", localAppData_);
  env_.Set(L"AMBREL_STANDIN_SDK_CONFIG", configFile_);
  env_.Set(L"AMBREL_STANDIN_SDK_RECORD", recordFile_);
}

std::vector<std::string> BootstrapSandbox::SdkRecord() const { return SplitLines(ReadFileBytes(recordFile_)); }

std::vector<std::string> BootstrapSandbox::SdkCalls(bool all) const {
  std::vector<std::string> calls;
  for (const std::string& line : SdkRecord()) {
    const std::string name = line.substr(0, line.find('\t'));
    if (all || (name != "Attach" && name != "Detach" && name != "ReleaseMemory")) calls.push_back(name);
  }
  return calls;
}

void BootstrapSandbox::ClearSdkRecord() const { ::DeleteFileW(recordFile_.c_str()); }

void BootstrapSandbox::ConfigureSdk(const std::string& lines) const {
  scratch_.WriteFile(std::filesystem::path(configFile_).filename().wstring(), lines);
}

void BootstrapSandbox::OverrideLocation(const std::wstring& location) {
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedKey, L"EnablePathOverride", 1);
  env_.Set(L"QEL_PATH_2026", location);
}

std::string BootstrapSandbox::WrapperLog() const {
  return ReadFileBytes(localAppData_ + L"\\Tavrel\\HALDO\\HALDO_APIWrapper.log");
}

std::wstring BinFile(const std::wstring& name) { return TestBinDirectory() + L"\\" + name; }

void CopyFileTo(const std::wstring& from, const std::wstring& to) {
  std::filesystem::create_directories(std::filesystem::path(to).parent_path());
  std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
}

}  // namespace ambrel::test
