# Where the project's programs and DLLs land, set on each target rather than
# through the global CMAKE_*_OUTPUT_DIRECTORY variables, so that a host tree
# that adds this project with add_subdirectory keeps its own layout.
#
# ambrel_place_outputs(<directory>)
# Every program and DLL defined in <directory> and below goes to
# ${PROJECT_BINARY_DIR}/bin (tests find Ambrel.dll and the stand-ins beside
# themselves), every static or import library to ${PROJECT_BINARY_DIR}/lib;
# a target that names its own output folder keeps it. Each program and DLL is
# also linked again when a start-up archive the toolchain links into every
# image changes (AMBREL_LINKED_INTO_EVERY_IMAGE: the MSVC-ABI test build's
# runtime, remade by toolchains/msvc-wine/MakeRuntime.cmake and otherwise
# unseen by the generator).
# Call it once, after the last target is defined.
function(ambrel_place_outputs directory)
  get_property(targets DIRECTORY ${directory} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type MATCHES "^(EXECUTABLE|SHARED_LIBRARY|MODULE_LIBRARY|STATIC_LIBRARY)$")
      foreach(kind RUNTIME LIBRARY ARCHIVE)
        get_target_property(folder ${target} ${kind}_OUTPUT_DIRECTORY)
        if(NOT folder)
          set(place ${PROJECT_BINARY_DIR}/bin)
          if(kind STREQUAL "ARCHIVE")
            set(place ${PROJECT_BINARY_DIR}/lib)
          endif()
          set_target_properties(${target} PROPERTIES ${kind}_OUTPUT_DIRECTORY ${place})
        endif()
      endforeach()
    endif()
    if(type MATCHES "^(EXECUTABLE|SHARED_LIBRARY|MODULE_LIBRARY)$" AND AMBREL_LINKED_INTO_EVERY_IMAGE)
      set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${AMBREL_LINKED_INTO_EVERY_IMAGE})
    endif()
  endforeach()
  get_property(subdirectories DIRECTORY ${directory} PROPERTY SUBDIRECTORIES)
  foreach(subdirectory IN LISTS subdirectories)
    ambrel_place_outputs(${subdirectory})
  endforeach()
endfunction()

# ambrel_copy_runtime_dlls(<target>)
# Copies the shared C++ runtime DLLs as the package ships them
# (AMBREL_SHIPPED_RUNTIME_DLLS: the toolchain's, without DWARF; none with
# MSVC's /MD) beside the target's file when it is built, so the programs
# beside it start.
function(ambrel_copy_runtime_dlls target)
  if(AMBREL_SHIPPED_RUNTIME_DLLS)
    add_custom_command(TARGET ${target} POST_BUILD
      COMMAND ${CMAKE_COMMAND} -E copy_if_different ${AMBREL_SHIPPED_RUNTIME_DLLS} $<TARGET_FILE_DIR:${target}>
      VERBATIM)
  endif()
endfunction()
