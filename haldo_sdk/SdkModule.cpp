#include "haldo_sdk/SdkModule.h"

#include "haldo_sdk/QelHaldoSdkWrapperState.h"
#include "haldo_sdk/WrapperLog.h"
#include "haldo_sdk/WrapperStatus.h"

namespace ambrel {

SdkLoadCheck CheckSdkLoad(const std::wstring& knownPath, SignatureSteps* signatureSteps) {
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
  // Nobody may write, rename or delete the file between its check and its
  // load, or a file other than the checked one could load. The check and the
  // loader only read, so they share it with this reader. Without the hold (a
  // folder, no access, a writer already there) everything goes on as before:
  // the check and the load decide.
  check.hold = HoldAgainstChanges(check.path);
  check.signature.emplace(InspectSignature(check.path, signatureSteps));
  if (!check.signature->passed()) check.refusal = kWrapperSignatureRejected;
  return check;
}

void SdkLoadCheck::CloseHandles() noexcept {
  hold.reset();
  if (signature && signature->publisher) {
    signature->publisher->store.reset();
    signature->publisher->message.reset();
  }
}

UniqueFileHandle HoldAgainstChanges(const std::wstring& path) {
  return UniqueFileHandle(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
}

namespace {

// The wrapper's line before the signature check, then the check's own.
class LoadLog final : public SignatureLog {
 public:
  void VerifyingNext(const std::wstring& path) override {
    WriteWrapperLogLine(L"[INFO] Load: HALDO SDK path = " + path);
  }
};

}  // namespace

bool LoadSdk(int& code) {
  code = kWrapperSdkNotLoaded;
  QelHaldoSdkWrapperState& state = WrapperState();
  if (state.module) return true;

  LoadLog log;
  // Holds the SDK file from its check until the loader has it, and the
  // publisher search's store and message until the lines about them are written.
  SdkLoadCheck check = CheckSdkLoad(state.dllPath, &log);
  if (check.refusal == kWrapperSelfUpdateRunning) {
    WriteWrapperLogLine(L"[INFO] Load: Self-update is running");
    code = check.refusal;
    return false;
  }
  // Read once per process: a path found is kept for every later load.
  if (check.lookup) state.dllPath = GetDllPath(*check.lookup);
  if (check.refusal == kWrapperSdkNotLoaded) {
    WriteWrapperLogLine(L"[ERROR] Load: dll path empty!");
    return false;
  }
  if (check.refusal == kWrapperSignatureRejected) {
    // A rejection always carries its findings.
    if (check.signature) LogSignatureFindings(*check.signature);
    check.signature.reset();  // the store and message closed after their line
    WriteWrapperLogLine(L"[ERROR] IsSignatureValid: Signature invalid at path = " + check.path);
    code = check.refusal;
    return false;
  }
  check.signature.reset();

  state.module.reset(::LoadLibraryW(state.dllPath.c_str()));
  check.hold.reset();  // the loader has the file now
  if (!state.module) WriteWrapperLogLine(L"[ERROR] Load: LoadLibraryW failed to load " + state.dllPath);
  return state.module.valid();
}

}  // namespace ambrel
