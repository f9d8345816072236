# Included by the package tests' scripts: installs the build tree BUILD_DIR's
# package (configuration CONFIG) into WORK_DIR/prefix, which it empties first,
# and sets prefix to that folder.
file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}" --config "${CONFIG}"
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "installing the package failed (${rc})")
endif()
