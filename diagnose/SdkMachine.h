// The machine the installer SDK's file is built for, against the host's:
// LoadLibraryW refuses a DLL built for another machine (a 32-bit SDK in a
// 64-bit host fails with error 193), after every check of the wrapper passed.
#pragma once

#include <string>
#include <vector>

#include "diagnose/Checks.h"

namespace ambrel::diagnose {

// Appends the check "sdk.machine" for `file` (empty: no file). Returns why
// LoadLibraryW would refuse the file, or "" when it would not on this ground.
std::string CheckSdkMachine(std::vector<Check>& report, const std::wstring& file);

}  // namespace ambrel::diagnose
