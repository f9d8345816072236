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

}  // namespace ambrel
