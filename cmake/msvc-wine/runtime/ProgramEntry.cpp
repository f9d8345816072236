// The entry point of a program of the test build, as MSVC's static runtime
// has it: the C runtime's arguments and environment, the module's start
// (Startup.cpp), main, then exit() with its result. A separate object, so
// that DLLs need no main.
#include <windows.h>

#include <corecrt_startup.h>
#include <stdlib.h>

extern "C" {
void AmbrelStartProgram();
_ACRTIMP int* __cdecl __p___argc(void);
_ACRTIMP char*** __cdecl __p___argv(void);
int __cdecl main(int, char**, char**);

int __cdecl mainCRTStartup(void) {
  _configure_narrow_argv(_crt_argv_unexpanded_arguments);
  _initialize_narrow_environment();
  AmbrelStartProgram();
  exit(main(*__p___argc(), *__p___argv(), _get_initial_narrow_environment()));
}
}  // extern "C"
