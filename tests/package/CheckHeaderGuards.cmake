# cmake -DCOMPILER=<c++ compiler> "-DFLAGS=<its flags>" -DSYNTAX_ONLY=<flag> -DINCLUDE=<include dir>
#       [-DEND_OF_OPTIONS=--: clang-cl, which would read a path beginning /w as an option]
#       -DSOURCE=<guards folder> "-DCASES=<name>~<flags>~<expected text>|..." -P CheckHeaderGuards.cmake
# Compiles guards/Host.cpp, which includes Ambrel.h, once per case: a case
# with expected text "ok" must compile, every other one must fail with that
# text in the compiler's output (the header's #error).
cmake_minimum_required(VERSION 3.25)
separate_arguments(flags UNIX_COMMAND "${FLAGS}")
string(REPLACE "|" ";" CASES "${CASES}")
set(failed 0)
foreach(case IN LISTS CASES)
  string(REPLACE "~" ";" fields "${case}")
  list(GET fields 0 name)
  list(GET fields 1 case_flags)
  list(GET fields 2 expected)
  separate_arguments(case_flags UNIX_COMMAND "${case_flags}")
  list(TRANSFORM case_flags REPLACE "@GUARDS@" "${SOURCE}")
  execute_process(COMMAND "${COMPILER}" ${flags} ${case_flags} ${SYNTAX_ONLY} "-I${INCLUDE}" ${END_OF_OPTIONS}
                          "${SOURCE}/Host.cpp"
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(expected STREQUAL "ok")
    if(rc EQUAL 0)
      message(STATUS "${name}: compiles")
    else()
      message(SEND_ERROR "${name}: does not compile:\n${out}")
      set(failed 1)
    endif()
  elseif(rc EQUAL 0)
    message(SEND_ERROR "${name}: compiles, but Ambrel.h should stop it")
    set(failed 1)
  else()
    string(FIND "${out}" "${expected}" at)
    string(REGEX MATCH "Ambrel.h: [^\n\"]*" shown "${out}")
    if(at EQUAL -1)
      message(SEND_ERROR "${name}: fails without \"${expected}\":\n${out}")
      set(failed 1)
    else()
      message(STATUS "${name}: stopped: ${shown}")
    endif()
  endif()
endforeach()
if(failed)
  message(FATAL_ERROR "Ambrel.h's runtime guards do not hold")
endif()
