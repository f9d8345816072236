// ResetWrapperState, in a file of its own: it reaches into the library's
// objects, which a program that meets the library only through Ambrel.dll
// does not link, while the rest of the fixtures serve such programs too.
#include "haldo_sdk/QelHaldoSdkWrapperState.h"
#include "tests/support/StandInSdk.h"

namespace ambrel::test {

void ResetWrapperState() {
  QelHaldoSdkWrapperState& state = WrapperState();
  state.module.reset();
  state.dllPath.clear();
  state.logPath.clear();
  state.sessionId.clear();
}

}  // namespace ambrel::test
