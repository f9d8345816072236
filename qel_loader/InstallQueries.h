// Where the shared components live and what kind of installation this library
// sits in.
#pragma once

#include <string>

namespace ambrel {

// The one shared-components release the library knows. A constant, not a
// std::wstring: nothing of the library is constructed when it loads.
inline constexpr const wchar_t* QelRelease = L"2026";

// The directory a successful bootstrap recorded; empty until then, never cleared.
std::wstring& SharedDllPath();

// True when a module file path lies on drive R: (drive-letter form only).
bool IsDevelopmentModulePath(const std::wstring& moduleFile);

// True when "ProductEdition" in "Kalvex.ini" beside this library is "KLXLITE".
bool IsLiteEdition();
// The same test for the "Kalvex.ini" in `directory`.
bool IsLiteEditionIn(const std::wstring& directory);

}  // namespace ambrel
