// OSxMisc::GetCallStack: the calling thread's context taken in the export
// itself, so the text starts with this routine and the host's caller follows.
#include <windows.h>
#include <string.h>

#include <memory>
#include <string>
#include <utility>

#include "Ambrel.h"
#include "osx/CallStackEngine.h"

namespace ambrel {
namespace {

// The engine of the call in progress, owned by the capture from BeginCapture
// to EndCapture; null between calls. A plain pointer, so that nothing is
// constructed or registered for exit when the DLL loads: an owning smart
// pointer here would add an initialiser and an exit routine to every
// process that loads the library.
CallStackEngine* g_engine = nullptr;

// Sets the engine of this call up; false (and no engine) when Debug Help is
// not usable.
bool BeginCapture() {
  auto engine = std::make_unique<CallStackEngine>();
  if (!engine->ready()) return false;
  g_engine = engine.release();
  return true;
}

// Exception filter of the capture: walks the stack from the faulting context
// into the engine's text and lets the guard handle the fault. Never throws:
// an exception of the walk is kept for EndCapture.
int CaptureFilter(const EXCEPTION_POINTERS* pointers) noexcept {
  CONTEXT context;
  const CONTEXT* record = pointers ? pointers->ContextRecord : nullptr;
  // Without a context record memcpy_s zero-fills the copy and reports EINVAL
  // through the runtime's invalid-parameter handler.
  memcpy_s(&context, sizeof(context), record, sizeof(context));
  if (g_engine) {
    try {
      std::wstring scratch;
      g_engine->WalkFrom(context, scratch);
    } catch (...) {
      g_engine->KeepError(std::current_exception());  // GCOVR_EXCL_LINE: see KeepError
    }
  }
  return EXCEPTION_EXECUTE_HANDLER;
}

// Hands the text over and tears the engine down (Debug Help cleaned up and
// unloaded) whatever the outcome; then rethrows what the walk raised.
bool EndCapture(std::wstring& text) {
  const std::unique_ptr<CallStackEngine> engine(std::exchange(g_engine, nullptr));
  engine->RethrowError();
  if (engine->text().empty()) return false;
  if (&engine->text() != &text) text = std::move(engine->text());
  engine->text().clear();
  return true;
}

}  // namespace
}  // namespace ambrel

// No object with a destructor lives in this function, as a structured-
// exception guard requires; the engine is reached through g_engine.
bool OSxMisc::GetCallStack(std::wstring& text) {
  if (!ambrel::BeginCapture()) return false;
#if defined(_MSC_VER) && !defined(__clang__)
  // Compiler-specific (MSVC): a write to address 0 inside the guard; the
  // filter walks from the faulting instruction of this very function.
  char* volatile address = nullptr;
  __try {
    *address = 0;
  } __except (ambrel::CaptureFilter(GetExceptionInformation())) {
    // The filter did the work; execution continues behind the guard.
  }
#else
  // Compiler-specific (clang, GCC): their guards catch a fault only inside a
  // called function, whose frame would then come first. The context of this
  // function is taken directly instead and walked by the same filter.
  CONTEXT context;
  ::RtlCaptureContext(&context);
  const EXCEPTION_POINTERS pointers = {nullptr, &context};
  static_cast<void>(ambrel::CaptureFilter(&pointers));
#endif
  return ambrel::EndCapture(text);
}
