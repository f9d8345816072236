# cmake -P script run by CTest: installs the build tree's Ambrel package into a
# scratch prefix, configures and builds tests/consumer against it with the same
# generator and toolchain, and runs the consumer host (under the emulator when
# cross-compiling). Needs no network.
#   -DBUILD_DIR -DSOURCE_DIR -DWORK_DIR -DGENERATOR -DTOOLCHAIN_FILE -DCONFIG -DEMULATOR
foreach(var BUILD_DIR SOURCE_DIR WORK_DIR GENERATOR CONFIG)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "RunConsumer.cmake: ${var} is not set")
  endif()
endforeach()

file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")
set(consumer_build "${WORK_DIR}/build")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    string(REPLACE ";" " " line "${ARGN}")
    message(FATAL_ERROR "failed (${rc}): ${line}")
  endif()
endfunction()

message(STATUS "== installing the package into ${prefix}")
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}" --config "${CONFIG}")

message(STATUS "== configuring the consumer project")
set(configure_args -S "${SOURCE_DIR}/tests/consumer" -B "${consumer_build}" -G "${GENERATOR}"
    "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_BUILD_TYPE=${CONFIG}")
if(TOOLCHAIN_FILE)
  list(APPEND configure_args "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE}")
endif()
run(${CMAKE_COMMAND} ${configure_args})

message(STATUS "== building the consumer host")
run(${CMAKE_COMMAND} --build "${consumer_build}" --config "${CONFIG}")

file(GLOB_RECURSE host "${consumer_build}/consumer_host.exe")
if(NOT host)
  message(FATAL_ERROR "consumer_host.exe was not built")
endif()
list(GET host 0 host)
foreach(shipped Ambrel.dll)
  get_filename_component(host_dir "${host}" DIRECTORY)
  if(NOT EXISTS "${host_dir}/${shipped}")
    message(FATAL_ERROR "${shipped} was not copied beside the host")
  endif()
endforeach()

message(STATUS "== running ${host}")
run(${EMULATOR} "${host}")
