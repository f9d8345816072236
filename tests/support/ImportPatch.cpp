#include "tests/support/ImportPatch.h"

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace ambrel::test {
namespace {

bool SameName(const char* a, const char* b) { return ::lstrcmpiA(a, b) == 0; }

// The import descriptors of `module`, or null when it has none.
const IMAGE_IMPORT_DESCRIPTOR* ImportDescriptors(HMODULE module) {
  if (!module) return nullptr;
  auto* const base = reinterpret_cast<std::uint8_t*>(module);
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  if (dos->e_magic != IMAGE_DOS_SIGNATURE) return nullptr;
  const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  if (nt->Signature != IMAGE_NT_SIGNATURE) return nullptr;
  const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  if (imports.VirtualAddress == 0 || imports.Size == 0) return nullptr;
  return reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
}

// Calls visit(name, slot) for each import of `module` from `importedDll`
// that the lookup table names, until visit answers true; returns that slot.
template <typename Visit>
void** VisitNamedImports(HMODULE module, const char* importedDll, const Visit& visit) {
  auto* const base = reinterpret_cast<std::uint8_t*>(module);
  for (const IMAGE_IMPORT_DESCRIPTOR* descriptor = ImportDescriptors(module); descriptor && descriptor->Name != 0;
       ++descriptor) {
    if (!SameName(reinterpret_cast<const char*>(base + descriptor->Name), importedDll)) continue;
    if (descriptor->OriginalFirstThunk == 0) continue;
    // The names stand in the lookup table, parallel to the bound slots.
    auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + descriptor->FirstThunk);
    const auto* names = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + descriptor->OriginalFirstThunk);
    for (; names->u1.AddressOfData != 0; ++names, ++slots) {
      if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
      const auto* byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
      void** slot = reinterpret_cast<void**>(&slots->u1.Function);
      if (visit(reinterpret_cast<const char*>(byName->Name), slot)) return slot;
    }
  }
  return nullptr;
}

// The import address table slot through which `module` calls `function` of
// `importedDll`, or null.
void** FindSlot(HMODULE module, const char* importedDll, const char* function) {
  if (void **slot = VisitNamedImports(
          module, importedDll, [function](const char* name, void**) { return std::strcmp(name, function) == 0; }))
    return slot;
  // No lookup table: find the slot by the address the loader bound.
  const IMAGE_IMPORT_DESCRIPTOR* descriptor = ImportDescriptors(module);
  auto* const base = reinterpret_cast<std::uint8_t*>(module);
  for (; descriptor && descriptor->Name != 0; ++descriptor) {
    if (descriptor->OriginalFirstThunk != 0) continue;
    if (!SameName(reinterpret_cast<const char*>(base + descriptor->Name), importedDll)) continue;
    const HMODULE imported = ::GetModuleHandleA(importedDll);
    const FARPROC target = imported ? ::GetProcAddress(imported, function) : nullptr;
    for (auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + descriptor->FirstThunk);
         target && slots->u1.Function != 0; ++slots) {
      if (slots->u1.Function == reinterpret_cast<ULONG_PTR>(target))
        return reinterpret_cast<void**>(&slots->u1.Function);
    }
  }
  return nullptr;
}

// Writes `value` into the slot, which the loader may have left read-only.
void WriteSlot(void** slot, void* value) {
  DWORD previous = 0;
  if (!::VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &previous)) {
    throw std::runtime_error("VirtualProtect failed: " + std::to_string(::GetLastError()));
  }
  *slot = value;
  DWORD ignored = 0;
  ::VirtualProtect(slot, sizeof *slot, previous, &ignored);
}

}  // namespace

ImportPatch::ImportPatch(HMODULE module, const char* importedDll, const char* function, void* replacement)
    : slot_(FindSlot(module, importedDll, function)) {
  if (!slot_) {
    throw std::runtime_error(std::string("the module imports no ") + function + " from " + importedDll);
  }
  original_ = *slot_;
  WriteSlot(slot_, replacement);
}

ImportPatch::~ImportPatch() {
  try {
    WriteSlot(slot_, original_);
  } catch (...) {  // GCOVR_EXCL_LINE a slot that could be written once can be written again
  }
}

bool ImportPatch::Imports(HMODULE module, const char* importedDll, const char* function) {
  return FindSlot(module, importedDll, function) != nullptr;
}

std::vector<std::string> ImportPatch::NamedImports(HMODULE module, const char* importedDll) {
  std::vector<std::string> names;
  VisitNamedImports(module, importedDll, [&names](const char* name, void**) {
    names.emplace_back(name);
    return false;
  });
  return names;
}

RebindImports::RebindImports(HMODULE module, const char* importedDll, HMODULE target) {
  // Every replacement is looked up before the first slot is written, so a
  // missing export leaves the module as it was.
  std::vector<std::pair<void**, void*>> planned;
  std::string missing;
  VisitNamedImports(module, importedDll, [&](const char* name, void** slot) {
    void* const replacement = reinterpret_cast<void*>(::GetProcAddress(target, name));
    if (!replacement) missing = name;
    planned.emplace_back(slot, replacement);
    return !missing.empty();
  });
  if (!missing.empty()) throw std::runtime_error("the target module does not export " + missing);
  if (planned.empty()) throw std::runtime_error(std::string("the module imports nothing by name from ") + importedDll);
  rebound_.reserve(planned.size());
  for (const auto& [slot, replacement] : planned) {
    rebound_.emplace_back(slot, *slot);
    WriteSlot(slot, replacement);
  }
}

RebindImports::~RebindImports() {
  for (auto at = rebound_.rbegin(); at != rebound_.rend(); ++at) {
    try {
      WriteSlot(at->first, at->second);
    } catch (...) {  // GCOVR_EXCL_LINE a slot that could be written once can be written again
    }
  }
}

HMODULE ModuleOf(const void* address) {
  HMODULE module = nullptr;
  ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       static_cast<LPCWSTR>(address), &module);
  return module;
}

}  // namespace ambrel::test
