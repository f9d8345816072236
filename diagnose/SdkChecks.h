// The SDK half of the look at the machine: the wrapper's load walk, then the
// entry points it binds.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "diagnose/Checks.h"
#include "haldo_sdk/SdkModule.h"

namespace ambrel::diagnose {

// What the SDK half found: the walk (absent when the lock file's test
// threw), the exported names, and the first reason the installer would not
// lock the folder, in the wrapper's order.
struct SdkFindings {
  std::optional<SdkLoadCheck> load;
  std::string thrown;        // the lock file's test raised this out of InitializeQel
  std::string firstProblem;  // empty when nothing stands in the lock's way
};

// The checks sdk.selfUpdateLock to sdk.export.*, in the wrapper's order.
SdkFindings CheckSdk(std::vector<Check>& report);

}  // namespace ambrel::diagnose
