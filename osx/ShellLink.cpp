#include "osx/ShellLink.h"

#include <shlguid.h>

#include <stdexcept>

#include "common/WinResource.h"

namespace ambrel {

HRESULT CreateShellLink(IShellLinkW** link) {
  return ::CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW,
                            reinterpret_cast<void**>(link));
}

std::wstring ReadShortcutTarget(const ShellLinkFactory& createLink, const wchar_t* shortcutFile) {
  ComPtr<IShellLinkW> link;
  if (FAILED(createLink(link.put())) || !link) return {};

  std::wstring target(MAX_PATH, L'\0');
  {
    ComPtr<IPersistFile> file;
    if (SUCCEEDED(link->QueryInterface(IID_IPersistFile, file.put_void())) && file) {
      // The link is not resolved: a moved target is not searched for.
      if (SUCCEEDED(file->Load(shortcutFile, STGM_READ)) &&
          FAILED(link->GetPath(target.data(), MAX_PATH, nullptr, 0))) {
        target.clear();
      }
    }
  }
  link.reset();

  // Cut at the first NUL. After a failed GetPath the string is empty and
  // find() gives npos: a resize to that length is the length error hosts
  // expect, raised here with the same words on every C++ runtime.
  const size_t end = target.find(L'\0');
  if (end > target.max_size()) throw std::length_error("string too long");
  target.resize(end);
  return target;
}

bool RewriteShortcutTarget(const ShellLinkFactory& createLink, const wchar_t* shortcutFile, const wchar_t* newTarget) {
  ComPtr<IShellLinkW> link;
  HRESULT result = createLink(link.put());
  if (FAILED(result) || !link) return SUCCEEDED(result);

  ComPtr<IPersistFile> file;
  if (FAILED(link->QueryInterface(IID_IPersistFile, file.put_void())) || !file) {
    // Returns creation's success as it always has, and keeps the link's
    // reference as it always has: hosts have never seen it released here.
    (void)link.release();
    return SUCCEEDED(result);
  }

  result = file->Load(shortcutFile, STGM_READ);
  // A refused target leaves Load's success as the answer and writes nothing.
  if (SUCCEEDED(result) && SUCCEEDED(link->SetPath(newTarget))) result = file->Save(shortcutFile, FALSE);

  file.reset();
  link.reset();
  return SUCCEEDED(result);
}

}  // namespace ambrel
