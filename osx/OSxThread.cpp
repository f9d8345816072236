#include <windows.h>

#include <array>

#include "Ambrel.h"
#include "common/ScopeExit.h"

namespace {

// The exception debuggers take as "name this thread".
constexpr DWORD kThreadNameException = 0x406D1388;
constexpr ULONG_PTR kThreadNameRecordType = 0x1000;
constexpr DWORD kRecordWords = 4;

#if !defined(__clang__) && !defined(_MSC_VER)
// Compiler-specific (GCC): no structured-exception guards. A vectored handler,
// present only around the raise, continues the naming exception of this
// thread; a debugger sees the exception before it.
thread_local bool t_namingThisThread = false;

// Not run in the coverage build: winpthreads' handler continues the exception first.
// GCOVR_EXCL_START
LONG CALLBACK ContinueAfterThreadName(EXCEPTION_POINTERS* pointers) {
  if (t_namingThisThread && pointers->ExceptionRecord->ExceptionCode == kThreadNameException)
    return EXCEPTION_CONTINUE_EXECUTION;
  return EXCEPTION_CONTINUE_SEARCH;
}
// GCOVR_EXCL_STOP

#endif

}  // namespace

void OSxThread::SetThreadName(const char* name, unsigned long threadId) {
  // Type, name (not copied), thread id zero-extended, flags.
  const std::array<ULONG_PTR, kRecordWords> record = {kThreadNameRecordType, reinterpret_cast<ULONG_PTR>(name),
                                                      static_cast<ULONG_PTR>(static_cast<DWORD>(threadId)), 0};
#if defined(__clang__) || defined(_MSC_VER)
  // Compiler-specific: structured exception handling (MSVC; clang with
  // -fms-extensions). Without a debugger the exception ends here.
  __try {
    ::RaiseException(kThreadNameException, 0, kRecordWords, record.data());
  } __except (EXCEPTION_EXECUTE_HANDLER) {
  }
#else
  // Compiler-specific (GCC): the handler is present only around the raise,
  // installed last in the chain, as a guard around the raise would come after
  // every vectored handler: the host's see the exception first. (winpthreads,
  // which this toolchain links into every module, continues the exception in
  // a handler of its own before this one; the handler is for builds without
  // it.) Without the handler the raise would end the process, so the name is
  // then left unset.
  void* const handler = ::AddVectoredExceptionHandler(0, ContinueAfterThreadName);
  t_namingThisThread = true;
  const ambrel::ScopeExit removeHandler([handler] {
    t_namingThisThread = false;
    if (handler) ::RemoveVectoredExceptionHandler(handler);
  });
  if (handler) ::RaiseException(kThreadNameException, 0, kRecordWords, record.data());
#endif
}
