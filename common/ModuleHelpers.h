// This library's own module: its instance handle, its file and its folder.
#pragma once

#include <windows.h>

#include <string>

namespace ambrel {

// Recorded by the entry point at process attach, cleared at detach.
extern HINSTANCE ModuleInstanceHandle;

// The module that holds this code; the reference count is not raised. Null on failure.
HMODULE GetThisModuleHandle() noexcept;

// GetModuleFileNameW into 260 characters; null gives the host executable's file.
std::wstring GetModuleFilePath(HMODULE module);

// Parent path in the standard file-system sense: the last component and the
// separators before it removed, the root kept.
std::wstring ParentPathOf(const std::wstring& path);

// Folder of this library's module file.
std::wstring GetThisModuleDirectory();

// A module's export by name, as the function type its maker documents; null
// when it is missing. GetProcAddress hands out one generic function type, and
// the detour through void* says the conversion is meant (GCC warns on a
// direct cast between function types).
template <typename Function>
Function GetExport(HMODULE module, const char* name) noexcept {
  return reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

}  // namespace ambrel
