// The wrapper's own results. Any other value a wrapper operation returns is the
// SDK's code, passed through unchanged; 6 is never produced.
#pragma once

namespace ambrel {

enum WrapperStatus : int {
  kWrapperSuccess = 0,
  kWrapperUnloadFailed = 1,        // Uninitialize: the SDK was called, FreeLibrary failed
  kWrapperAlreadyInitialized = 2,  // Initialize: a session is held, nothing done
  kWrapperSdkNotLoaded = 3,        // no DLL path, or LoadLibraryW failed
  kWrapperExportMissing = 4,       // entry point not found, or the SDK not loaded
  kWrapperArgumentMissing = 5,     // a required argument is empty
  kWrapperNotInitialized = 7,      // Uninitialize: no session held
  kWrapperSelfUpdateRunning = 8,   // the installer is updating itself
  kWrapperSignatureRejected = 9,   // the DLL failed the publisher check
};

}  // namespace ambrel
