// The bootstrap entry's internal parts, for the folder utilities and tests.
#pragma once

#include <string>

namespace ambrel {

// The environment marker that makes later sessions, here and in child
// processes, skip the installer service.
inline constexpr wchar_t kBypassMarker[] = L"QEL_INITIALIZE_BYPASSED";

// True for a KLXLITE installation without doing anything; else InitializeQel().
bool InitializeQelForEdition();

// The new PATH value with `directory` in front of `oldPath`: the directory,
// one ';', then the old value unchanged.
std::wstring PrependToPathList(const std::wstring& directory, const std::wstring& oldPath);

}  // namespace ambrel
