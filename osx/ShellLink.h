// Reading and re-pointing shell shortcuts through a link object that a
// factory supplies: the exports pass CoCreateInstance of the shell link, tests
// may pass link objects of their own.
#pragma once

#include <windows.h>
#include <shobjidl.h>

#include <functional>
#include <string>

namespace ambrel {

// Fills *link (which starts null) and returns the creation's HRESULT.
using ShellLinkFactory = std::function<HRESULT(IShellLinkW** link)>;

// CoCreateInstance of CLSID_ShellLink (in-process server) for IShellLinkW.
HRESULT CreateShellLink(IShellLinkW** link);

// The target of the shortcut file, or "" when the link object cannot be made,
// the file cannot be loaded or it has no target. Throws std::length_error when
// the link's GetPath fails (the emptied result is cut at a NUL it no longer
// has); callers rely on that difference.
std::wstring ReadShortcutTarget(const ShellLinkFactory& createLink, const wchar_t* shortcutFile);

// Loads the shortcut, sets its target and saves it in place. False when
// creation, Load or Save fails; true otherwise, including when the link has no
// IPersistFile or refuses the new target (then nothing is written).
bool RewriteShortcutTarget(const ShellLinkFactory& createLink, const wchar_t* shortcutFile, const wchar_t* newTarget);

}  // namespace ambrel
