// The entry point of a program of the test build whose main function is
// wmain, as ProgramEntry.cpp is for main. A separate object, so that each
// program takes the one its main function needs.
#include <windows.h>

#include <corecrt_startup.h>
#include <stdlib.h>

extern "C" {
void AmbrelStartProgram();
_ACRTIMP int* __cdecl __p___argc(void);
_ACRTIMP wchar_t*** __cdecl __p___wargv(void);
int __cdecl wmain(int, wchar_t**, wchar_t**);

int __cdecl wmainCRTStartup(void) {
  _configure_wide_argv(_crt_argv_unexpanded_arguments);
  _initialize_wide_environment();
  AmbrelStartProgram();
  exit(wmain(*__p___argc(), *__p___wargv(), _get_initial_wide_environment()));
}
}  // extern "C"
