# cmake -P script run by CTest: installs the build tree's package into a
# scratch prefix, then configures tests/package/flavour against it with the
# other flavour's toolchain. The configure must fail with AmbrelConfig.cmake's
# message, which names this package's flavour and both packages.
#   -DBUILD_DIR -DSOURCE_DIR -DWORK_DIR -DGENERATOR -DCONFIG
#   -DOTHER_TOOLCHAIN=<toolchain file of the other flavour> -DFLAVOUR=<this package's flavour>
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/InstallPackage.cmake)
execute_process(COMMAND ${CMAKE_COMMAND} -S "${SOURCE_DIR}/tests/package/flavour" -B "${WORK_DIR}/host"
                        -G "${GENERATOR}" "-DCMAKE_TOOLCHAIN_FILE=${OTHER_TOOLCHAIN}" "-DCMAKE_PREFIX_PATH=${prefix}"
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(rc EQUAL 0)
  message(FATAL_ERROR "a host of the other flavour configured against the ${FLAVOUR} package:\n${out}")
endif()
# The message as CMake prints it, its lines joined.
string(REGEX MATCH "Ambrel: this is the [^\n]*(\n  [^\n]+)*" said "${out}")
string(REGEX REPLACE "\n  " " " said "${said}")
foreach(expected "this is the ${FLAVOUR} package of Ambrel" "Ambrel-[0-9.]+-win64-msvc" "Ambrel-[0-9.]+-win64-mingw"
                 "Point CMAKE_PREFIX_PATH at the package of the host's flavour")
  if(NOT said MATCHES "${expected}")
    message(FATAL_ERROR "the configure failed without \"${expected}\" in the package's message:\n${out}")
  endif()
endforeach()
message(STATUS "stopped as it should be: ${said}")
