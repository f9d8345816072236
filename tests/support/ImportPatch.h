// Swaps one import-address-table slot of a loaded module for the life of the
// object: every call the module makes through that import then reaches
// `replacement`. The test program patches the library's imports this way
// (an allocation that fails, a system call that answers otherwise) without
// any seam in the shipped image.
#pragma once

#include <windows.h>

namespace ambrel::test {

class ImportPatch {
 public:
  // Throws std::runtime_error when `module` does not import `function` (by
  // name) from `importedDll` (compared without regard to case).
  ImportPatch(HMODULE module, const char* importedDll, const char* function, void* replacement);
  // Puts the original address back.
  ~ImportPatch();
  ImportPatch(const ImportPatch&) = delete;
  ImportPatch& operator=(const ImportPatch&) = delete;

  // What the slot held before: the function the module called until now.
  void* original() const;

 private:
  void** slot_ = nullptr;
  void* original_ = nullptr;
};

}  // namespace ambrel::test
