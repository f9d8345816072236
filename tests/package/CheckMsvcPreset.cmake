# cmake -P script run by CTest: what this machine can check of the msvc
# preset, which only a Windows machine with Visual Studio 2022 runs. It reads
# CMakePresets.json and the CMake files a configure of the project reads:
#   - the preset: Visual Studio 2022's generator for x64, no toolchain file,
#     the toolset pinned as "v143,host=x64,version=14.NN", GoogleTest not
#     required, a build and a test preset for one configuration;
#   - the pinned toolset is the one the STL this repository tests against
#     (third_party/microsoft-stl, the MSVC-ABI leg) demands: its yvals_core.h
#     stops any MSVC older than 19.NN, which toolset 14.NN is;
#   - the README's Requirements and docs/design.md name that toolset;
#   - no CMake file of the project downloads anything (FetchContent,
#     ExternalProject, file(DOWNLOAD)), and the GoogleTest sources default to
#     a path only when the build requires them or finds them.
#   -DSOURCE_DIR=<the repository>
cmake_minimum_required(VERSION 3.25)
if(NOT DEFINED SOURCE_DIR)
  message(FATAL_ERROR "CheckMsvcPreset.cmake: SOURCE_DIR is not set")
endif()

set(failures "")
set(report "")
macro(expect condition what)
  if(${condition})
    string(APPEND report "  yes: ${what}\n")
  else()
    string(APPEND report "  NO:  ${what}\n")
    list(APPEND failures "${what}")
  endif()
endmacro()

file(READ "${SOURCE_DIR}/CMakePresets.json" presets)

# The configure preset named msvc, as JSON.
function(named_preset kind out)
  string(JSON count LENGTH "${presets}" ${kind})
  set(found "")
  math(EXPR last "${count} - 1")
  foreach(index RANGE ${last})
    string(JSON name GET "${presets}" ${kind} ${index} name)
    if(name STREQUAL "msvc")
      string(JSON found GET "${presets}" ${kind} ${index})
    endif()
  endforeach()
  set(${out} "${found}" PARENT_SCOPE)
endfunction()

# A member of a preset, "" when it has none; for architecture and toolset,
# the value of the object form.
function(member preset key out)
  string(JSON value ERROR_VARIABLE missing GET "${preset}" ${key})
  if(missing)
    set(value "")
  else()
    string(JSON type TYPE "${preset}" ${key})
    if(type STREQUAL "OBJECT")
      string(JSON value GET "${value}" value)
    endif()
  endif()
  set(${out} "${value}" PARENT_SCOPE)
endfunction()

named_preset(configurePresets configure)
named_preset(buildPresets build)
named_preset(testPresets test)
set(ok FALSE)
if(configure)
  set(ok TRUE)
endif()
expect(ok "CMakePresets.json has a configure preset msvc")
if(NOT configure)
  message(FATAL_ERROR "no msvc configure preset:\n${report}")
endif()

member("${configure}" generator generator)
set(ok FALSE)
if(generator STREQUAL "Visual Studio 17 2022")
  set(ok TRUE)
endif()
expect(ok "generator Visual Studio 17 2022 (${generator})")

member("${configure}" architecture architecture)
set(ok FALSE)
if(architecture STREQUAL "x64")
  set(ok TRUE)
endif()
expect(ok "architecture x64 (${architecture})")

member("${configure}" toolchainFile toolchain)
set(ok FALSE)
if(toolchain STREQUAL "")
  set(ok TRUE)
endif()
expect(ok "no toolchain file: Visual Studio's own compiler and SDK")

member("${configure}" toolset toolset)
set(ok FALSE)
set(toolset_version "")
if(toolset MATCHES "^v143,host=x64,version=(14\\.[0-9][0-9])$")
  set(ok TRUE)
  set(toolset_version ${CMAKE_MATCH_1})
endif()
expect(ok "toolset pinned as v143,host=x64,version=14.NN (${toolset})")

string(JSON gtest_required ERROR_VARIABLE missing GET "${configure}" cacheVariables AMBREL_GTEST_REQUIRED)
set(ok FALSE)
if(NOT missing AND gtest_required STREQUAL "OFF")
  set(ok TRUE)
endif()
expect(ok "GoogleTest not required: the tests are left out where it is not found")

set(ok FALSE)
if(build AND test)
  member("${build}" configuration build_config)
  member("${test}" configuration test_config)
  if(build_config AND build_config STREQUAL test_config)
    set(ok TRUE)
  endif()
endif()
expect(ok "build and test presets msvc for one configuration (${build_config})")

# The toolset the pinned STL demands: yvals_core.h's "_MSC_VER < 19NN" stop.
file(STRINGS "${SOURCE_DIR}/third_party/microsoft-stl/stl/inc/yvals_core.h" stl_guard REGEX "^#if _MSC_VER < 19[0-9][0-9]")
set(ok FALSE)
set(stl_toolset "unknown")
if(stl_guard MATCHES "_MSC_VER < 19([0-9][0-9])")
  set(stl_toolset "14.${CMAKE_MATCH_1}")
  if(toolset_version STREQUAL stl_toolset)
    set(ok TRUE)
  endif()
endif()
expect(ok "the pinned toolset (${toolset_version}) is the one the tested STL demands (MSVC 19.${CMAKE_MATCH_1}: toolset ${stl_toolset})")

# The README's Requirements section and the design notes name it.
file(READ "${SOURCE_DIR}/README.md" readme)
set(ok FALSE)
string(FIND "${readme}" "## Requirements" at)
if(at GREATER -1)
  string(SUBSTRING "${readme}" ${at} -1 requirements)
  string(FIND "${requirements}" "\n## " next)
  if(next GREATER -1)
    string(SUBSTRING "${requirements}" 0 ${next} requirements)
  endif()
  if(toolset_version AND requirements MATCHES "${toolset_version}" AND requirements MATCHES "redistributable")
    set(ok TRUE)
  endif()
endif()
expect(ok "README's Requirements name toolset ${toolset_version} and the redistributable")
file(READ "${SOURCE_DIR}/docs/design.md" design)
set(ok FALSE)
if(toolset_version AND design MATCHES "version=${toolset_version}")
  set(ok TRUE)
endif()
expect(ok "docs/design.md names the pinned toolset")

# The CMake files a configure reads: the project's own, not the scripts CTest
# runs (tests/package/Check*.cmake and the like take no part in a configure,
# but are read as well: none downloads either).
file(GLOB_RECURSE cmake_files "${SOURCE_DIR}/CMakeLists.txt" "${SOURCE_DIR}/*.cmake" "${SOURCE_DIR}/*.cmake.in")
list(FILTER cmake_files EXCLUDE REGEX "^${SOURCE_DIR}/(build|third_party)/")
list(LENGTH cmake_files file_count)
set(downloads "")
foreach(file IN LISTS cmake_files)
  file(STRINGS "${file}" lines REGEX "^[^#]*(FetchContent|ExternalProject_Add|file\\((DOWNLOAD|UPLOAD))")
  if(lines)
    file(RELATIVE_PATH relative "${SOURCE_DIR}" "${file}")
    list(APPEND downloads "${relative}")
  endif()
endforeach()
set(ok FALSE)
if(NOT downloads)
  set(ok TRUE)
endif()
expect(ok "none of the ${file_count} CMake files downloads anything ${downloads}")

# GoogleTest's sources are required only when the build requires them.
file(READ "${SOURCE_DIR}/CMakeLists.txt" top)
set(ok FALSE)
if(top MATCHES "if\\(AMBREL_BUILD_TESTS AND NOT AMBREL_GTEST_REQUIRED\\)"
   AND top MATCHES "set\\(AMBREL_BUILD_TESTS OFF\\)")
  set(ok TRUE)
endif()
expect(ok "the top-level CMakeLists.txt leaves the tests out without GoogleTest when it is not required")

message(STATUS "the msvc preset, as this machine can read it:\n${report}")
if(failures)
  string(REPLACE ";" "\n  " failures "${failures}")
  message(FATAL_ERROR "the msvc preset would not build as written:\n  ${failures}")
endif()
