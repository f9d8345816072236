# The compilers' own checkers, for the test builds that ask for them.
#
# AMBREL_CHECKED (preset checked, clang for mingw-w64): every object of the
# tree, the library, ambrel-diagnose, the stand-ins and the tests alike, is
# built with clang's undefined-behaviour checks, each compiled to a trap (no
# run-time library exists for this target: a check that fires ends the
# program with an illegal instruction), with libstdc++'s container and string
# checks (_GLIBCXX_ASSERTIONS, which call abort), and with every automatic
# variable filled with a pattern, so a read before a write shows. Neither
# changes the layout of a standard type: the checked objects still meet the
# unchecked runtime DLLs and hosts.
#
# AMBREL_STL_CHECKS (preset msvc-wine): Microsoft's STL checks container
# bounds and preconditions in the release runtime too (_CONTAINER_DEBUG_LEVEL
# 1; this STL predates _MSVC_STL_HARDENING). A failed check calls the
# runtime's invalid-parameter handler, which ends the program. The iterator
# debug level, which Ambrel.h makes a host match, stays as it is.
option(AMBREL_CHECKED "Build with clang's trapping UB checks, _GLIBCXX_ASSERTIONS and pattern-filled locals" OFF)
option(AMBREL_STL_CHECKS "Build with Microsoft's STL container checks (_CONTAINER_DEBUG_LEVEL=1)" OFF)

if(AMBREL_CHECKED)
  if(MSVC OR NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "AMBREL_CHECKED needs clang for mingw-w64: use the checked preset")
  endif()
  add_compile_options(-fsanitize=undefined -fsanitize-trap=undefined -ftrivial-auto-var-init=pattern)
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
endif()

if(AMBREL_STL_CHECKS)
  if(NOT MSVC)
    message(FATAL_ERROR "AMBREL_STL_CHECKS is for Microsoft's STL: use it with the msvc-wine preset")
  endif()
  add_compile_definitions(_CONTAINER_DEBUG_LEVEL=1)
endif()
