// The Debug Help library's symbol search path for the call stack.
#pragma once

#include <windows.h>

#include <string>

namespace ambrel {

// Drive and directory of the module's file, ending with a backslash; "" when
// GetModuleFileNameW fails. A null module gives the host executable's folder.
std::wstring SymbolSearchModuleDirectory(HMODULE module);

// The Debug Help library's symbol search path: ".", the module's folder, then
// _NT_SYMBOL_PATH, _NT_ALTERNATE_SYMBOL_PATH and SYSTEMROOT when set and not
// empty, each piece followed by ";". Values are used as they are.
std::wstring BuildSymbolSearchPath(HMODULE module);

}  // namespace ambrel
