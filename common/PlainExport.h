#pragma once

// AMBREL_PLAIN_EXPORT(plain, msvcName, itaniumName), at namespace scope in the
// source that defines the function: exports a C++-linkage function of the
// library under its plain, undecorated name as well as its decorated one. The
// header gives the function C++ linkage so that a host's compiler knows it can
// throw; GetProcAddress callers still find it by the plain name. A decorated
// name that does not match the definition fails the link.
#if defined(_MSC_VER)
// Compiler-specific (MSVC, clang-cl): the linker's /EXPORT:entry=internal.
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): a linker directive, which no function can emit
#define AMBREL_PLAIN_EXPORT(plain, msvcName, itaniumName) __pragma(comment(linker, "/EXPORT:" #plain "=" msvcName))
#else
// Compiler-specific (clang and GCC for mingw): an assembler alias, exported
// through the object's linker directives, which GNU ld and lld both read.
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): an assembler alias, which no function can emit
#define AMBREL_PLAIN_EXPORT(plain, msvcName, itaniumName)    \
  __asm__(".globl " #plain "\n.set " #plain ", " itaniumName \
          "\n"                                               \
          ".section .drectve\n.ascii \" -export:" #plain "\"\n.text\n")
#endif
