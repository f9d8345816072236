# Included by cmake/AmbrelPackage.cmake. MSVC, single-config release tree:
# target ambrel_debug_variant (built with the tree) configures and builds the
# library in a Debug tree of its own, <tree>/debug-variant, with the same
# toolchain; installing this tree installs that one's ambrel_library
# component too (Ambreld.dll, Ambreld.lib, Ambreld.pdb and
# AmbrelTargets-debug.cmake), so the package holds both configurations.
# Sets AMBREL_DEBUG_VARIANT_IMAGES, the images it adds, which the package's
# signing signs with the rest.
option(AMBREL_DEBUG_VARIANT "MSVC: build and package the Debug variant Ambreld.dll beside Ambrel.dll" ${PROJECT_IS_TOP_LEVEL})
set(AMBREL_DEBUG_VARIANT_IMAGES "")
if(NOT MSVC OR NOT AMBREL_DEBUG_VARIANT OR CMAKE_CONFIGURATION_TYPES OR CMAKE_BUILD_TYPE STREQUAL "Debug")
  return()
endif()
set(AMBREL_DEBUG_VARIANT_DIR ${PROJECT_BINARY_DIR}/debug-variant)
set(AMBREL_DEBUG_VARIANT_IMAGES ${AMBREL_DEBUG_VARIANT_DIR}/bin/Ambreld.dll)
add_custom_command(OUTPUT ${AMBREL_DEBUG_VARIANT_DIR}/CMakeCache.txt
  COMMAND ${CMAKE_COMMAND} -S ${PROJECT_SOURCE_DIR} -B ${AMBREL_DEBUG_VARIANT_DIR} -G ${CMAKE_GENERATOR}
          -DCMAKE_TOOLCHAIN_FILE=${CMAKE_TOOLCHAIN_FILE} -DCMAKE_BUILD_TYPE=Debug
          -DAMBREL_BUILD_TESTS=OFF -DAMBREL_BUILD_EXAMPLES=OFF -DAMBREL_BUILD_BENCH=OFF -DAMBREL_DEBUG_VARIANT=OFF
          -DAMBREL_BUILD_NUMBER=${AMBREL_BUILD_NUMBER}
  COMMENT "Configuring the Debug variant (Ambreld.dll) in ${AMBREL_DEBUG_VARIANT_DIR}" VERBATIM)
add_custom_target(ambrel_debug_variant ALL
  COMMAND ${CMAKE_COMMAND} --build ${AMBREL_DEBUG_VARIANT_DIR} --target Ambrel
  DEPENDS ${AMBREL_DEBUG_VARIANT_DIR}/CMakeCache.txt
  COMMENT "Building the Debug variant (Ambreld.dll)" VERBATIM)
install(CODE "
  execute_process(COMMAND \"${CMAKE_COMMAND}\" --install \"${AMBREL_DEBUG_VARIANT_DIR}\" --component ambrel_library
                          --prefix \"\${CMAKE_INSTALL_PREFIX}\" RESULT_VARIABLE ambrel_debug_rc)
  if(NOT ambrel_debug_rc EQUAL 0)
    message(FATAL_ERROR \"installing the Debug variant from ${AMBREL_DEBUG_VARIANT_DIR} failed\")
  endif()" COMPONENT ambrel_library)
