#include "haldo_sdk/SdkModule.h"

#include "haldo_sdk/QelHaldoSdkWrapperState.h"
#include "haldo_sdk/WrapperLog.h"
#include "haldo_sdk/WrapperStatus.h"

namespace ambrel {

SdkLoadCheck CheckSdkLoad(const std::wstring& knownPath, SdkLoadSteps* steps) {
  SdkLoadCheck check;
  check.selfUpdate = InspectSelfUpdateLock();
  if (check.selfUpdate.running) {
    check.refusal = kWrapperSelfUpdateRunning;
    if (steps) steps->SelfUpdateRunning();
    return check;
  }
  check.path = knownPath;
  if (check.path.empty()) {
    check.lookup = LookUpSdkPath();
    if (steps) steps->PathLookedUp(*check.lookup);
    if (check.lookup->outcome == SdkPathLookup::Outcome::Found) check.path = check.lookup->expanded;
  }
  if (check.path.empty()) {
    check.refusal = kWrapperSdkNotLoaded;
    if (steps) steps->NoPath();
    return check;
  }
  if (steps) steps->SignatureCheckNext(check.path);
  check.signature = InspectSignature(check.path, steps ? steps->signatureSteps() : nullptr);
  if (!check.signature->passed()) {
    check.refusal = kWrapperSignatureRejected;
    if (steps) steps->SignatureRejected(check.path);
  }
  return check;
}

UniqueFileHandle HoldAgainstChanges(const std::wstring& path) {
  return UniqueFileHandle(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
}

namespace {

// The wrapper's side of the load walk: its log lines, each written at its
// step, the SDK path it keeps, and the hold on the file from just before its
// check until the loader has it.
class LoadSteps final : public SdkLoadSteps {
 public:
  void SelfUpdateRunning() override { WriteWrapperLogLine(L"[INFO] Load: Self-update is running"); }
  void PathLookedUp(const SdkPathLookup& lookup) override { WrapperState().dllPath = GetDllPath(lookup); }
  void NoPath() override { WriteWrapperLogLine(L"[ERROR] Load: dll path empty!"); }
  void SignatureCheckNext(const std::wstring& path) override {
    WriteWrapperLogLine(L"[INFO] Load: HALDO SDK path = " + path);
    // Nobody may write, rename or delete the file between its check and its
    // load, or a file other than the checked one could load. The check and
    // the loader only read, so they share it with this reader. Without the
    // hold (a folder, no access, a writer already there) everything goes on
    // as before: the check and the load decide.
    hold_ = HoldAgainstChanges(path);
  }
  void SignatureRejected(const std::wstring& path) override {
    WriteWrapperLogLine(L"[ERROR] IsSignatureValid: Signature invalid at path = " + path);
  }
  SignatureSteps* signatureSteps() override { return &signatureLog_; }

  void ReleaseHold() { hold_.reset(); }

 private:
  SignatureLog signatureLog_;
  UniqueFileHandle hold_;
};

}  // namespace

bool LoadSdk(int& code) {
  code = kWrapperSdkNotLoaded;
  QelHaldoSdkWrapperState& state = WrapperState();
  if (state.module) return true;

  LoadSteps steps;
  const SdkLoadCheck check = CheckSdkLoad(state.dllPath, &steps);
  if (check.refusal != kWrapperSuccess) {
    code = check.refusal;
    return false;
  }

  state.module.reset(::LoadLibraryW(state.dllPath.c_str()));
  steps.ReleaseHold();
  if (!state.module) WriteWrapperLogLine(L"[ERROR] Load: LoadLibraryW failed to load " + state.dllPath);
  return state.module.valid();
}

}  // namespace ambrel
