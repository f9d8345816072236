#include "tests/support/SessionSandbox.h"

namespace ambrel::test {
namespace {

constexpr wchar_t kSharedComponentsKey[] = L"SOFTWARE\\Tavrel\\SharedComponents\\2026";

}  // namespace

SessionSandbox::SessionSandbox() {
  for (const wchar_t* name : {L"QEL_INITIALIZE_BYPASSED", L"QEL_PATH_2026", L"AMBREL_STANDIN_SDK_CONFIG",
                              L"AMBREL_STANDIN_SDK_RECORD"})
    env_.Unset(name);
  install_.MakeDir(L"Shared\\1.0");
  versionFolder_ = install_ / L"Shared\\1.0";
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"InstallPath", install_ / L"Shared");
  SetVersion(L"1.0");
  RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 0);
  SetSdkLocation(StandInKind::Signed);
}

void SessionSandbox::SetVersion(const std::wstring& version) {
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"Version", version);
}

}  // namespace ambrel::test
