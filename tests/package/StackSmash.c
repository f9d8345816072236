// Helper process of StartupTest: overruns a local array by the number of
// bytes given, with a vectored exception handler in place that would take
// any exception first, so that a check that raised one instead of ending the
// process would show ("raise" shows the handler at work on an exception of
// the same code). "guard" prints the canary this process was given.
#include <windows.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

extern uintptr_t __stack_chk_guard;

static LONG CALLBACK TakeEverything(EXCEPTION_POINTERS* exception) {
  printf("an exception handler took exception 0x%lx\n", (unsigned long)exception->ExceptionRecord->ExceptionCode);
  fflush(stdout);
  ExitProcess(3);
}

// One memset, so that the overrun cannot change its own length on the way
// (an unoptimised loop keeps its bound in the parameter's home slot, above
// the canary).
__declspec(noinline) static int Overrun(size_t count) {
  char buffer[16];
  memset(buffer, 'A', count);
  return ((volatile char*)buffer)[0];
}

int wmain(int argc, wchar_t** argv) {
  if (argc == 2 && wcscmp(argv[1], L"guard") == 0) {
    printf("%llx\n", (unsigned long long)__stack_chk_guard);
    return 0;
  }
  AddVectoredExceptionHandler(1, TakeEverything);
  if (argc == 2 && wcscmp(argv[1], L"raise") == 0) {
    RaiseException(STATUS_STACK_BUFFER_OVERRUN, 0, 0, NULL);  // what the handler does with an exception
  }
  const size_t count = argc == 2 ? (size_t)_wtoi(argv[1]) : 0;
  Overrun(count);
  printf("returned\n");
  return 0;
}
