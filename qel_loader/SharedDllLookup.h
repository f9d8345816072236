// Looking up the shared-components folder without preparing the process.
#pragma once

#include <string>

namespace ambrel {

// The install folder of release "2026" through a throw-away session whose
// lock is dropped again at once; "" on a development build, in a bypassed
// process, or when there is no existing folder. Leaves PATH, SharedDllPath and
// the environment marker alone. Throws std::filesystem::filesystem_error
// ("status") on an unexpected file-system error of the folder test.
std::wstring FindSharedDllPath();

}  // namespace ambrel
