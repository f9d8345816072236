#include "tests/support/SdkSandbox.h"

#include <stdexcept>

namespace ambrel::test {

SdkSandbox::SdkSandbox(Contents contents, Record record) {
  env_.Unset(kMarker);
  env_.Unset(L"QEL_PATH_2026");
  if (record == Record::Calls) {
    sdk_.emplace();
  } else {
    // A stand-in that finds neither file steers nothing and writes nothing.
    env_.Unset(L"AMBREL_STANDIN_SDK_CONFIG");
    env_.Unset(L"AMBREL_STANDIN_SDK_RECORD");
  }
  if (contents == Contents::Installed) {
    // No EnablePathOverride: an installer that never offered the override.
    sharedDir_ = WriteCompleteInstall(scratch_, L"Shared Components", kSharedVersion, std::nullopt);
    SetSdkLocation(StandInKind::Signed);
  }
  // The unload of an SDK that an earlier case left loaded is not this case's call.
  ResetWrapperState();
  if (sdk_) sdk_->ClearCalls();
}

SdkSandbox::~SdkSandbox() { ResetWrapperState(); }

StandInSdk& SdkSandbox::sdk() {
  if (!sdk_) throw std::logic_error("this sandbox records no stand-in calls");
  return *sdk_;
}

const StandInSdk& SdkSandbox::sdk() const { return const_cast<SdkSandbox*>(this)->sdk(); }

std::vector<std::string> SdkSandbox::SdkCalls(bool all) const {
  std::vector<std::string> calls;
  for (const std::string& line : sdk().Calls(all)) {
    const std::string name = line.substr(0, line.find('\t'));
    if (all || name != "ReleaseMemory") calls.push_back(name);
  }
  return calls;
}

void SdkSandbox::OverrideLocation(const std::wstring& location) {
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 1);
  env_.Set(L"QEL_PATH_2026", location);
}

void SdkSandbox::SetVersion(const std::wstring& version) {
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"Version", version);
}

}  // namespace ambrel::test
