#include <windows.h>

#include "Ambrel.h"

namespace {

// The exception debuggers take as "name this thread".
constexpr DWORD kThreadNameException = 0x406D1388;
constexpr ULONG_PTR kThreadNameRecordType = 0x1000;

}  // namespace

void OSxThread::SetThreadName(const char* name, unsigned long threadId) {
  // Type, name (not copied), thread id zero-extended, flags.
  const ULONG_PTR record[4] = {kThreadNameRecordType, reinterpret_cast<ULONG_PTR>(name),
                               static_cast<ULONG_PTR>(static_cast<DWORD>(threadId)), 0};
  // Compiler-specific: structured exception handling (MSVC; clang with
  // -fms-extensions). Without a debugger the exception ends here.
  __try {
    ::RaiseException(kThreadNameException, 0, 4, record);
  } __except (EXCEPTION_EXECUTE_HANDLER) {
  }
}
