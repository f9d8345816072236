// Ambrel: Windows support library of the Kalvex host.
//
// The one header a host includes. Every export runs on the calling thread; the
// library starts no threads and takes no locks of its own, so each function is
// meant to be called from one thread at a time (in practice the host's start-up
// thread) unless its comment says otherwise.
#pragma once

#include <windows.h>

#if defined(AMBREL_BUILDING)
#define AMBREL_API __declspec(dllexport)
#else
#define AMBREL_API __declspec(dllimport)
#endif

namespace QelLoadHelper {

// True when the registry entry of shared-components release "2026" names an
// existing install folder that holds an existing version sub-folder. Reads the
// registry and file system afresh on each call. Throws
// std::filesystem::filesystem_error ("exists") on an unexpected file-system error.
AMBREL_API bool IsQELInstalled();

// True when this library's module file lies on drive R: (a development build).
AMBREL_API bool IsDevelopment();

}  // namespace QelLoadHelper
