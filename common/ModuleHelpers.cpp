#include "common/ModuleHelpers.h"

#include <array>
#include <filesystem>

namespace ambrel {

HINSTANCE ModuleInstanceHandle = nullptr;

HMODULE GetThisModuleHandle() noexcept {
  HMODULE module = nullptr;
  if (!::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCWSTR>(&GetThisModuleHandle), &module)) {
    return nullptr;
  }
  return module;
}

std::wstring GetModuleFilePath(HMODULE module) {
  std::array<wchar_t, MAX_PATH> buffer{};
  const DWORD length = ::GetModuleFileNameW(module, buffer.data(), MAX_PATH);
  return {buffer.data(), length < MAX_PATH ? length : MAX_PATH - 1};
}

std::wstring ParentPathOf(const std::wstring& path) { return std::filesystem::path(path).parent_path().wstring(); }

std::wstring GetThisModuleDirectory() { return ParentPathOf(GetModuleFilePath(GetThisModuleHandle())); }

}  // namespace ambrel
