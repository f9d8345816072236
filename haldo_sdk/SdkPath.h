// From the registry value to a checked SDK file path: read, expand, test.
#pragma once

#include <string>

#include "haldo_sdk/SdkLocation.h"

namespace ambrel {

// Where the SDK location led, step by step; logs nothing.
struct SdkPathLookup {
  enum class Outcome { RegistryUnreadable, Empty, ExpansionFailed, Missing, Found };
  Outcome outcome = Outcome::RegistryUnreadable;
  SdkLocationRead read = SdkLocationRead::ValueNotRead;
  std::wstring value;     // the registry value up to its first NUL
  std::wstring expanded;  // its expansion, when it fits
};
SdkPathLookup LookUpSdkPath();

// GetDllPath: a lookup turned into the path to keep as the SDK file (empty
// when there is none), with the wrapper's log lines for it
// (ReadStringFromRegistry's, then GetDllPath's own).
std::wstring GetDllPath(const SdkPathLookup& lookup);

}  // namespace ambrel
