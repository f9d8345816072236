# cmake -DSOURCE_DIR=<ambrel> -DWORK_DIR=<scratch> -DGENERATOR=<generator>
#       -DTOOLCHAIN_FILE=<file> -P CheckEmbedded.cmake
# Configures tests/package/embed (a host that adds Ambrel with
# add_subdirectory) twice: as a host gets it, where Ambrel must add no
# install rule and no CPackConfig.cmake to the host's tree; and with
# AMBREL_INSTALL=ON, where both must be there.
set(failures 0)
foreach(case IN ITEMS default install)
  set(tree ${WORK_DIR}/${case})
  file(REMOVE_RECURSE ${tree})
  set(options "")
  if(case STREQUAL "install")
    list(APPEND options -DAMBREL_INSTALL=ON)
  endif()
  execute_process(
    COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/package/embed -B ${tree} -G ${GENERATOR}
            -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE} -DAMBREL_SOURCE_DIR=${SOURCE_DIR} ${options}
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(SEND_ERROR "${case}: the host tree does not configure:\n${output}")
    math(EXPR failures "${failures} + 1")
    continue()
  endif()
  set(cpack FALSE)
  if(EXISTS ${tree}/CPackConfig.cmake)
    set(cpack TRUE)
  endif()
  set(rules FALSE)
  file(READ ${tree}/ambrel/cmake_install.cmake install_script)
  if(install_script MATCHES "AmbrelTargets")
    set(rules TRUE)
  endif()
  message("${case}: CPackConfig.cmake in the host's tree: ${cpack}; Ambrel's install rules: ${rules}")
  set(expected FALSE)
  if(case STREQUAL "install")
    set(expected TRUE)
  endif()
  if(NOT cpack STREQUAL expected OR NOT rules STREQUAL expected)
    message(SEND_ERROR "${case}: expected CPackConfig.cmake and install rules ${expected}")
    math(EXPR failures "${failures} + 1")
  endif()
endforeach()
if(failures GREATER 0)
  message(FATAL_ERROR "${failures} case(s) of add_subdirectory failed")
endif()
