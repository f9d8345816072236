#include "haldo_sdk/SdkModule.h"

#include "haldo_sdk/QelHaldoSdkWrapperState.h"
#include "haldo_sdk/WrapperLog.h"
#include "haldo_sdk/WrapperStatus.h"

namespace ambrel {

ModuleUnloadFunction& SdkModuleUnloader() {
  static ModuleUnloadFunction unload = &::FreeLibrary;
  return unload;
}

SdkLoadCheck CheckSdkLoad(const std::wstring& knownPath,
                          const std::function<void(const std::wstring&)>& beforeSignature) {
  SdkLoadCheck check;
  check.selfUpdate = InspectSelfUpdateLock();
  if (check.selfUpdate.running) {
    check.refusal = kWrapperSelfUpdateRunning;
    return check;
  }
  check.path = knownPath;
  if (check.path.empty()) {
    check.lookup = LookUpSdkPath();
    if (check.lookup->outcome == SdkPathLookup::Outcome::Found) check.path = check.lookup->expanded;
  }
  if (check.path.empty()) {
    check.refusal = kWrapperSdkNotLoaded;
    return check;
  }
  if (beforeSignature) beforeSignature(check.path);
  check.signature = InspectSignature(check.path);
  if (!check.signature->passed()) check.refusal = kWrapperSignatureRejected;
  return check;
}

UniqueFileHandle HoldAgainstChanges(const std::wstring& path) {
  return UniqueFileHandle(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool LoadSdk(int& code) {
  code = kWrapperSdkNotLoaded;
  QelHaldoSdkWrapperState& state = WrapperState();
  if (state.module) return true;

  // Nobody may write, rename or delete the file between its check and its
  // load, or a file other than the checked one could load. The check and the
  // loader only read, so they share it with this reader. Without the hold
  // (a folder, no access, a writer already there) everything goes on as
  // before: the check and the load decide.
  UniqueFileHandle hold;
  const SdkLoadCheck check =
      CheckSdkLoad(state.dllPath, [&hold](const std::wstring& path) { hold = HoldAgainstChanges(path); });

  if (check.selfUpdate.running) {
    WriteWrapperLogLine(L"[INFO] Load: Self-update is running");
    code = kWrapperSelfUpdateRunning;
    return false;
  }
  if (check.lookup) state.dllPath = GetDllPath(*check.lookup);
  if (state.dllPath.empty()) {
    WriteWrapperLogLine(L"[ERROR] Load: dll path empty!");
    return false;
  }
  WriteWrapperLogLine(L"[INFO] Load: HALDO SDK path = " + state.dllPath);

  if (check.signature) LogSignatureFindings(*check.signature);
  if (check.refusal == kWrapperSignatureRejected) {
    code = kWrapperSignatureRejected;
    WriteWrapperLogLine(L"[ERROR] IsSignatureValid: Signature invalid at path = " + state.dllPath);
    return false;
  }

  state.module.reset(::LoadLibraryW(state.dllPath.c_str()));
  hold.reset();
  if (!state.module) WriteWrapperLogLine(L"[ERROR] Load: LoadLibraryW failed to load " + state.dllPath);
  return state.module.valid();
}

}  // namespace ambrel
