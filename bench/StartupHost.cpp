// The hosts of bench_startup, built four times from this file: with
// AMBREL_HOST_LINKS the host imports Ambrel.dll (as Kalvex does) and calls
// one export, so the loader maps the library and its imports at start;
// without, it is the same program with no library. With AMBREL_HOST_DESKTOP
// it also uses what a desktop application loads anyway (USER32, GDI32,
// SHELL32, ole32); without, it is a console program that imports KERNEL32
// and the C runtime only. All link the shared C++ runtime, as a host does.
#include <windows.h>

#include <string>

#ifdef AMBREL_HOST_DESKTOP
#include <objbase.h>
#include <shlobj.h>
#endif

#ifdef AMBREL_HOST_LINKS
#include "Ambrel.h"
#endif

int main() {
  std::string text = "host";
#ifdef AMBREL_HOST_DESKTOP
  // What a desktop host does before it loads anything of its own.
  if (::GetDesktopWindow() == nullptr || ::GetStockObject(WHITE_BRUSH) == nullptr) return 1;
  if (FAILED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
  wchar_t documents[MAX_PATH];
  const bool found = SUCCEEDED(::SHGetFolderPathW(nullptr, CSIDL_PERSONAL, nullptr, 0, documents));
  ::CoUninitialize();
  if (!found) return 1;
#endif
#ifdef AMBREL_HOST_LINKS
  if (QelLoadHelper::IsDevelopment()) text += " on drive R:";
#endif
  return text.empty() ? 1 : 0;
}
