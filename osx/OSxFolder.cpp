#include <windows.h>
#include <shlobj.h>

#include <array>

#include "Ambrel.h"
#include "osx/ShellLink.h"
#include "osx/TruncatingCopy.h"
#include "qel_loader/Bootstrap.h"
#include "qel_loader/InstallQueries.h"
#include "common/WinResource.h"

bool OSxFolder::GetMyDocumentsDir(wchar_t* buffer, size_t size) {
  ambrel::UniqueItemList items;
  HRESULT result = ::SHGetSpecialFolderLocation(nullptr, CSIDL_PERSONAL, items.put());
  std::array<wchar_t, MAX_PATH> path{};
  if (SUCCEEDED(result) && ::SHGetPathFromIDListW(items.get(), path.data()) && size != 0) {
    ambrel::CopyTruncating(buffer, size, path.data());
  }
  if (items) {
    // The answer is the allocator lookup's once a list exists: a failed path
    // conversion still reports success, as hosts have always seen it. The
    // list goes back through that allocator; without one its owner frees it.
    ambrel::ComPtr<IMalloc> allocator;
    result = ::SHGetMalloc(allocator.put());
    if (allocator) allocator->Free(items.release());
  }
  return SUCCEEDED(result);
}

std::wstring OSxFolder::GetPathFromShortcut(const wchar_t* shortcutFile) {
  return ambrel::ReadShortcutTarget(ambrel::CreateShellLink, shortcutFile);
}

bool OSxFolder::UpdateShortcut(const wchar_t* shortcutFile, const wchar_t* newTarget) {
  return ambrel::RewriteShortcutTarget(ambrel::CreateShellLink, shortcutFile, newTarget);
}

const wchar_t* OSxFolder::GetSharedDllPath() { return ambrel::SharedDllPath().c_str(); }

bool OSxFolder::UpdateSharedDllPath(bool honourEdition) {
  return honourEdition ? ambrel::InitializeQelForEdition() : InitializeQel();
}
