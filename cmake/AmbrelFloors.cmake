# The library is built floor by floor, bottom to top:
#   common <- haldo_sdk <- qel_session <- qel_loader <- osx
# Each floor is an object library. Its headers are reached as "<floor>/Name.h"
# through a header view that only the floor itself and the floors above it
# have on their include path, so an include that reaches up a floor fails to
# compile, and a call that reaches up fails to link in the lower floor's tests.
set(AMBREL_FLOORS common haldo_sdk qel_session qel_loader osx)

# The library's own code builds without a warning. A compiler newer than the
# ones it is checked with (clang-16, GCC 12) may add warnings: then configure
# with -DAMBREL_WARNINGS_AS_ERRORS=OFF rather than edit this.
option(AMBREL_WARNINGS_AS_ERRORS "Treat warnings in the library's own sources as errors" ON)
if(MSVC)
  set(AMBREL_WARNING_FLAGS /W4)
  if(AMBREL_WARNINGS_AS_ERRORS)
    list(APPEND AMBREL_WARNING_FLAGS /WX)
  endif()
else()
  set(AMBREL_WARNING_FLAGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
  if(AMBREL_WARNINGS_AS_ERRORS)
    list(APPEND AMBREL_WARNING_FLAGS -Werror)
  endif()
endif()

# ambrel_add_floor(<folder> sources...)
# Object library ambrel_<folder> over the given sources of that folder,
# linked to the floor right below it.
function(ambrel_add_floor folder)
  set(target ambrel_${folder})
  add_library(${target} OBJECT ${ARGN})

  # The view: one forwarding header per header of the folder. Generated files
  # rather than a link to the folder, so it works on any host without rights
  # to make symbolic links.
  set(source_dir ${PROJECT_SOURCE_DIR}/${folder})
  set(view ${PROJECT_BINARY_DIR}/floors/${folder})
  file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${source_dir} ${source_dir}/*.h)
  file(GLOB stale RELATIVE ${view}/${folder} ${view}/${folder}/*.h)
  list(REMOVE_ITEM stale ${headers})
  foreach(header IN LISTS stale)
    file(REMOVE ${view}/${folder}/${header})
  endforeach()
  foreach(header IN LISTS headers)
    file(CONFIGURE OUTPUT ${view}/${folder}/${header}
         CONTENT "// Generated: ${folder}/${header} as the floors from ${folder} up see it.\n#include \"${source_dir}/${header}\"\n")
  endforeach()
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${view}>)

  # The objects are the DLL's: they carry its exports.
  target_compile_definitions(${target} PRIVATE AMBREL_BUILDING)
  target_compile_options(${target} PRIVATE ${AMBREL_WARNING_FLAGS})
  if(MSVC)
    target_compile_options(${target} PRIVATE /utf-8)
  endif()
  # Coverage counts the library's own code only: its objects are instrumented,
  # and every module linking them (Ambrel.dll, the programs over the floors)
  # links the profile runtime that writes the counts.
  if(AMBREL_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage)
    target_link_options(${target} INTERFACE --coverage)
  endif()

  list(FIND AMBREL_FLOORS ${folder} index)
  if(index GREATER 0)
    math(EXPR below "${index} - 1")
    list(GET AMBREL_FLOORS ${below} below_folder)
    target_link_libraries(${target} PUBLIC ambrel_${below_folder})
  else()
    # The ground floor carries what every floor needs: the exported header,
    # the Windows target and the system libraries.
    target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
    target_compile_definitions(${target} PUBLIC UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0A00)
    target_link_libraries(${target} PUBLIC
      advapi32 shell32 ole32 oleaut32 uuid user32 wintrust crypt32 version)
  endif()
endfunction()

# ambrel_link_floors(<target> <folder>)
# Links the objects of <folder> and of every floor below it into <target>
# (object libraries hand their objects only to targets that link them
# directly). The target then calls the library's functions in its own image,
# not through Ambrel.dll, so the exported header must not ask for imports.
function(ambrel_link_floors target folder)
  list(FIND AMBREL_FLOORS ${folder} top)
  if(top LESS 0)
    message(FATAL_ERROR "ambrel_link_floors: ${folder} is not a floor of the library")
  endif()
  foreach(index RANGE ${top})
    list(GET AMBREL_FLOORS ${index} floor)
    target_link_libraries(${target} PRIVATE ambrel_${floor})
  endforeach()
  target_compile_definitions(${target} PRIVATE AMBREL_LINKED_IN)
endfunction()
