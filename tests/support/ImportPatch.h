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
//
// RebindImports points every named import of a module from one DLL at the
// exports of the same names of another loaded module (a second copy of that
// DLL, say), so the module's ordinary calls reach the other copy.
#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

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

  // The names `module` imports from `importedDll`, in the order of its import
  // table (imports by ordinal left out); empty when it imports none.
  static std::vector<std::string> NamedImports(HMODULE module, const char* importedDll);

 private:
  void** slot_ = nullptr;
  void* original_ = nullptr;
};

class RebindImports {
 public:
  // Throws std::runtime_error, with nothing changed, when `module` imports
  // nothing by name from `importedDll` or `target` lacks one of the names.
  RebindImports(HMODULE module, const char* importedDll, HMODULE target);
  ~RebindImports();  // every slot restored, in the reverse order
  RebindImports(const RebindImports&) = delete;
  RebindImports& operator=(const RebindImports&) = delete;
  RebindImports(RebindImports&&) = delete;
  RebindImports& operator=(RebindImports&&) = delete;

  size_t count() const { return rebound_.size(); }

 private:
  std::vector<std::pair<void**, void*>> rebound_;  // slot, original
};

// The module that holds the code at `address` (for example a function of the
// library, to patch the library's imports whichever module it was linked into).
HMODULE ModuleOf(const void* address);

}  // namespace ambrel::test
