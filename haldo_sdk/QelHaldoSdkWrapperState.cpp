#include "haldo_sdk/QelHaldoSdkWrapperState.h"

namespace ambrel {

QelHaldoSdkWrapperState& WrapperState() {
  static QelHaldoSdkWrapperState state;
  return state;
}

}  // namespace ambrel
