// The entry point of a program of the test build, as MSVC's static runtime
// has it: the C runtime's arguments and environment, the module's start
// (Startup.cpp), main, then exit() with its result. A separate object, so
// that DLLs need no main; WideProgramEntry.cpp compiles it again for wmain.
#include <windows.h>

#include <corecrt_startup.h>
#include <stdlib.h>

#if defined(AMBREL_WIDE_MAIN)
#define AMBREL_PICK(narrow, wide) wide
#else
#define AMBREL_PICK(narrow, wide) narrow
#endif

extern "C" {
void AmbrelStartProgram();
_ACRTIMP int* __cdecl __p___argc(void);
_ACRTIMP AMBREL_PICK(char, wchar_t) * **__cdecl AMBREL_PICK(__p___argv, __p___wargv)(void);
int __cdecl AMBREL_PICK(main, wmain)(int, AMBREL_PICK(char, wchar_t) **, AMBREL_PICK(char, wchar_t) **);

int __cdecl AMBREL_PICK(mainCRTStartup, wmainCRTStartup)(void) {
  AMBREL_PICK(_configure_narrow_argv, _configure_wide_argv)(_crt_argv_unexpanded_arguments);
  AMBREL_PICK(_initialize_narrow_environment, _initialize_wide_environment)();
  AmbrelStartProgram();
  exit(AMBREL_PICK(main, wmain)(*__p___argc(), *AMBREL_PICK(__p___argv, __p___wargv)(),
                                AMBREL_PICK(_get_initial_narrow_environment, _get_initial_wide_environment)()));
}
}  // extern "C"
