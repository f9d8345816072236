// The bare Debug Help sequence that OSxMisc::GetCallStack is built on, for
// the benchmark (its floor) and the soak run (what Debug Help itself keeps):
// load dbghelp.dll, bind the functions, add the same symbol options,
// SymInitializeW with the same search path and invade TRUE, a context of this
// thread (RtlCaptureContext rather than a fault, taken two calls deep so the
// text has as many frames as the library's), the StackWalk64 loop with the
// same three look-ups per frame and the same text, SymCleanup, unload.
#pragma once

#include <string>

namespace ambrel::test {

// True with the text when the walk gave at least one frame. With `alsoName`,
// one more line names that address the same way, e.g. a function of a DLL
// whose symbols the floor should load as the library's walk through it does.
bool BareDbghelpCallStack(std::wstring& text, const void* alsoName = nullptr);

}  // namespace ambrel::test
