// Replaces one import of a loaded module for the lifetime of an object: the
// module's import address table slot for `function` of `importedDll` points
// at `replacement` until the destructor puts the original back. Tests use it
// to reach what a real system call never shows (a failed FreeLibrary or
// allocation) and to see what the library hands a system call, with nothing
// in the shipped image made writable for them.
//
// Only calls made through that module's import table are redirected: code of
// other modules, and addresses taken with GetProcAddress, are not. Patches of
// one slot must be undone in the reverse order of their making (scopes do
// that). The replacement and the original have the same type; cast back with
// reinterpret_cast.
#pragma once

#include <windows.h>

namespace ambrel::test {

class ImportPatch {
 public:
  // Throws std::runtime_error when `module` does not import `function` from
  // `importedDll` (the DLL's name is matched without regard to case).
  ImportPatch(HMODULE module, const char* importedDll, const char* function, void* replacement);
  ~ImportPatch();  // restores the original
  ImportPatch(const ImportPatch&) = delete;
  ImportPatch& operator=(const ImportPatch&) = delete;
  ImportPatch(ImportPatch&&) = delete;
  ImportPatch& operator=(ImportPatch&&) = delete;

  // The address the slot held before the patch: call it to pass a call on.
  void* original() const { return original_; }

  // True when `module` imports `function` from `importedDll`.
  static bool Imports(HMODULE module, const char* importedDll, const char* function);

 private:
  void** slot_ = nullptr;
  void* original_ = nullptr;
};

// The module that holds the code at `address` (for example a function of the
// library, to patch the library's imports whichever module it was linked into).
HMODULE ModuleOf(const void* address);

}  // namespace ambrel::test
