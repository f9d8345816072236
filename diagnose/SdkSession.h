// --with-sdk: one real session with the installer SDK, as the bootstrap runs
// it, reporting each SDK status code and the session's messages. The SDK is
// loaded and called, and the wrapper writes its log.
#pragma once

#include <string>
#include <vector>

namespace ambrel::diagnose {

// The lines of the run, each "sdk  ..." or "session  [LEVEL] ...".
std::vector<std::string> RunSdkSession();

}  // namespace ambrel::diagnose
