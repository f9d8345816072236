# cmake -P script run by CTest: installs the build tree's package into a
# scratch prefix and checks its THIRD-PARTY-NOTICES.txt: every binary of bin/
# that is not the project's own is named in the notices' contents, each piece
# of the contents has its section, and the licence texts the flavour's
# pieces need are there in full.
#   -DBUILD_DIR -DWORK_DIR -DCONFIG -DFLAVOUR=<msvc|mingw>
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/InstallPackage.cmake)
set(notices "${prefix}/THIRD-PARTY-NOTICES.txt")
if(NOT EXISTS "${notices}")
  message(FATAL_ERROR "the package has no THIRD-PARTY-NOTICES.txt")
endif()
file(READ "${notices}" text)
string(FIND "${text}" "\n=====" body_start)
string(SUBSTRING "${text}" 0 ${body_start} contents)
message(STATUS "THIRD-PARTY-NOTICES.txt, table of contents:\n${contents}")

# Third-party binaries of bin/: all but the project's own images and PDBs.
file(GLOB shipped RELATIVE "${prefix}/bin" "${prefix}/bin/*")
set(failed FALSE)
foreach(name IN LISTS shipped)
  if(name MATCHES "^(Ambrel|Ambreld|ambrel-diagnose)\\.(dll|exe|pdb)$")
    continue()
  endif()
  string(FIND "${contents}" " ${name}" at)
  if(at EQUAL -1)
    message(SEND_ERROR "bin/${name} is a third-party binary with no notice in THIRD-PARTY-NOTICES.txt")
    set(failed TRUE)
  else()
    message(STATUS "bin/${name}: has its notice")
  endif()
endforeach()

# Each numbered piece of the contents has its section.
string(REGEX MATCHALL "\n  (G?[0-9]+)\\. [^\n]+" pieces "${contents}")
if(NOT pieces)
  message(FATAL_ERROR "THIRD-PARTY-NOTICES.txt lists no piece")
endif()
foreach(piece IN LISTS pieces)
  string(REGEX REPLACE "^\n  " "" piece "${piece}")
  string(FIND "${text}" "=\n${piece}\n=" at)
  if(at EQUAL -1)
    message(SEND_ERROR "no section for \"${piece}\"")
    set(failed TRUE)
  endif()
endforeach()

# The licence texts the flavour's pieces are under.
if(FLAVOUR STREQUAL "mingw")
  set(required "GCC RUNTIME LIBRARY EXCEPTION" "GNU GENERAL PUBLIC LICENSE\n                       Version 3"
      "mingw-w64-libraries/winpthreads" "Redistributions in binary form must reproduce")
else()
  set(required "Apache License\n                           Version 2.0" "LLVM Exceptions to the Apache 2.0 License"
      "Microsoft C++ Standard Library")
endif()
foreach(phrase IN LISTS required)
  string(FIND "${text}" "${phrase}" at)
  if(at EQUAL -1)
    message(SEND_ERROR "THIRD-PARTY-NOTICES.txt lacks \"${phrase}\"")
    set(failed TRUE)
  endif()
endforeach()
if(failed)
  message(FATAL_ERROR "the package's notices are incomplete")
endif()
file(SIZE "${notices}" size)
message(STATUS "THIRD-PARTY-NOTICES.txt: ${size} bytes, every third-party binary of bin/ named")
