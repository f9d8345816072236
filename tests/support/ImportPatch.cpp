#include "tests/support/ImportPatch.h"

#include <cstring>
#include <stdexcept>
#include <string>

namespace ambrel::test {
namespace {

void WriteSlot(void** slot, void* value) {
  DWORD previous = 0;
  if (!::VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &previous))
    throw std::runtime_error("ImportPatch: VirtualProtect failed: " + std::to_string(::GetLastError()));
  *slot = value;
  ::VirtualProtect(slot, sizeof(void*), previous, &previous);
  ::FlushInstructionCache(::GetCurrentProcess(), slot, sizeof(void*));
}

// The import-address-table slot through which `module` calls `function` of `dll`.
void** FindSlot(HMODULE module, const char* dll, const char* function) {
  auto* const base = reinterpret_cast<BYTE*>(module);
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  if (dos->e_magic != IMAGE_DOS_SIGNATURE) return nullptr;
  const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  if (imports.VirtualAddress == 0) return nullptr;
  for (auto* descriptor = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
       descriptor->Name != 0; ++descriptor) {
    if (::_stricmp(reinterpret_cast<const char*>(base + descriptor->Name), dll) != 0) continue;
    // The names come from the lookup table; a module bound without one keeps
    // them in the address table only until the loader fills it, so none is found.
    if (descriptor->OriginalFirstThunk == 0) continue;
    const auto* names = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + descriptor->OriginalFirstThunk);
    auto* const slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + descriptor->FirstThunk);
    for (size_t i = 0; names[i].u1.AddressOfData != 0; ++i) {
      if (IMAGE_SNAP_BY_ORDINAL(names[i].u1.Ordinal)) continue;
      const auto* byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names[i].u1.AddressOfData);
      if (std::strcmp(reinterpret_cast<const char*>(byName->Name), function) == 0)
        return reinterpret_cast<void**>(&slots[i].u1.Function);
    }
  }
  return nullptr;
}

}  // namespace

ImportPatch::ImportPatch(HMODULE module, const char* importedDll, const char* function, void* replacement) {
  if (module == nullptr) throw std::runtime_error("ImportPatch: no module");
  slot_ = FindSlot(module, importedDll, function);
  if (slot_ == nullptr)
    throw std::runtime_error(std::string("ImportPatch: the module imports no ") + function + " from " + importedDll);
  original_ = *slot_;
  WriteSlot(slot_, replacement);
}

ImportPatch::~ImportPatch() {
  try {
    WriteSlot(slot_, original_);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor cannot report; the slot stays patched
  }
}

void* ImportPatch::original() const { return original_; }

}  // namespace ambrel::test
