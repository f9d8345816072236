// The stack protector's runtime for every image the mingw-w64 build makes
// (Ambrel.dll, ambrel-diagnose.exe and the programs that test them): the
// canary the compiler's checks compare against, and the routine they call
// when a canary was overwritten.
//
// GCC's libssp has both, but seeds the canary with CryptGenRandom from a
// constructor, so every process that loads the library would load rsaenh.dll
// under the loader lock. Here the seed mixes what Windows hands out without
// loading anything (system time, process and thread ids, tick count,
// performance counter, a stack address), as MSVC's __security_init_cookie
// does. A failed check ends the process with __fastfail, which no exception
// handler can catch: the stack is known to be corrupt, so nothing may run on it.
#include <windows.h>

#include <stdint.h>

// The checks of code that runs before the seed (nothing of ours does) compare
// against this value; MSVC's default cookie, so a dump shows an unseeded one.
uintptr_t __stack_chk_guard = (uintptr_t)0x00002B992DDFA232ULL;

// Compiler-specific: clang provides __fastfail with -fms-extensions; GCC and
// mingw-w64 10 do not, so the same instruction is written out for it.
__declspec(noreturn) void __stack_chk_fail(void);
__declspec(noreturn) void __stack_chk_fail(void) {
#if defined(__clang__)
  __fastfail(FAST_FAIL_STACK_COOKIE_CHECK_FAILURE);
#else
  __asm__ __volatile__("int $0x29" : : "c"(FAST_FAIL_STACK_COOKIE_CHECK_FAILURE) : "memory");
  __builtin_unreachable();
#endif
}

// Runs before every other constructor of the image and before any code of ours
// (in a DLL: during DLL_PROCESS_ATTACH, before DllMain), and is not itself
// checked: the canary changes while it runs.
__attribute__((constructor(101), no_stack_protector)) static void SeedStackGuard(void) {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  LARGE_INTEGER counter;
  QueryPerformanceCounter(&counter);
  uintptr_t seed = ((uintptr_t)now.dwHighDateTime << 32) ^ now.dwLowDateTime;
  seed ^= (uintptr_t)GetCurrentProcessId() << 32;
  seed ^= GetCurrentThreadId();
  seed ^= (uintptr_t)GetTickCount64() << 16;
  seed ^= ((uintptr_t)counter.LowPart << 32) ^ (uintptr_t)counter.QuadPart;
  seed ^= (uintptr_t)&seed;  // the stack's randomised address
  // Like MSVC, keep the top 16 bits clear: a string copy that runs over the
  // canary then has a zero byte to stop at before the return address.
  seed &= 0x0000FFFFFFFFFFFFULL;
  if (seed == 0 || seed == __stack_chk_guard) seed ^= 0x0000A5A5A5A5A5A5ULL;
  __stack_chk_guard = seed;
}
