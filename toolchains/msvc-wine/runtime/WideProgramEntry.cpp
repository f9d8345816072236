// The entry point of a program whose main function is wmain: ProgramEntry.cpp
// for wide arguments, a separate object so each program takes the one its
// main function needs.
#define AMBREL_WIDE_MAIN
#include "ProgramEntry.cpp"
