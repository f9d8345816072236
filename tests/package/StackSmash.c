// Helper process of StartupTest: overruns a local array by the number of
// bytes given, inside a __try that would take any exception, so that a check
// that raised one instead of ending the process would show. "guard" prints
// the canary this process was given.
#include <windows.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

extern uintptr_t __stack_chk_guard;

// noinline: clang's __try catches what a called function raises, not a fault
// of the __try block's own instructions.
__declspec(noinline) static int Overrun(int count) {
  char buffer[16];
  volatile char* bytes = buffer;
  for (int i = 0; i < count; ++i) bytes[i] = 'A';
  return bytes[0];
}

int wmain(int argc, wchar_t** argv) {
  if (argc == 2 && wcscmp(argv[1], L"guard") == 0) {
    printf("%llx\n", (unsigned long long)__stack_chk_guard);
    return 0;
  }
  const int count = argc == 2 ? _wtoi(argv[1]) : 0;
  __try {
    Overrun(count);
  } __except (EXCEPTION_EXECUTE_HANDLER) {
    printf("an exception handler took exception 0x%lx\n", (unsigned long)GetExceptionCode());
    return 3;
  }
  printf("returned\n");
  return 0;
}
