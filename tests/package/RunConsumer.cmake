# cmake -P script run by CTest: installs the build tree's Ambrel package into a
# scratch prefix, configures and builds tests/consumer against it with the same
# generator and toolchain, and runs the consumer host (under the emulator when
# cross-compiling). Needs no network. The host runs from folders of its own
# outside the build trees, once with Ambrel.pdb beside the DLL and once without,
# so that only the shipped PDB can name Ambrel's frames.
#   -DBUILD_DIR -DSOURCE_DIR -DWORK_DIR -DGENERATOR -DTOOLCHAIN_FILE -DCONFIG -DEMULATOR
#   [-DREADOBJ=llvm-readobj: also check that the installed DLL names its PDB by file name only]
foreach(var BUILD_DIR SOURCE_DIR WORK_DIR GENERATOR CONFIG)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "RunConsumer.cmake: ${var} is not set")
  endif()
endforeach()

file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")
set(consumer_build "${WORK_DIR}/build")
# Where run() starts its commands; the consumer host gets folders of its own.
set(RUN_DIR "${CMAKE_CURRENT_BINARY_DIR}")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc WORKING_DIRECTORY "${RUN_DIR}")
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
get_filename_component(host_dir "${host}" DIRECTORY)
foreach(shipped Ambrel.dll Ambrel.pdb)
  if(NOT EXISTS "${host_dir}/${shipped}")
    message(FATAL_ERROR "${shipped} was not copied beside the host")
  endif()
endforeach()

if(READOBJ)
  execute_process(COMMAND "${READOBJ}" --coff-debug-directory "${prefix}/bin/Ambrel.dll"
                  OUTPUT_VARIABLE debug_directory RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0 OR NOT debug_directory MATCHES "PDBFileName: Ambrel\\.pdb\n")
    message(FATAL_ERROR "the installed Ambrel.dll does not name Ambrel.pdb alone:\n${debug_directory}")
  endif()
  message(STATUS "the installed Ambrel.dll names Ambrel.pdb by file name only")
endif()

# The host and what it ships, copied away from the build trees and run there.
file(GLOB runtime "${host_dir}/*.exe" "${host_dir}/*.dll" "${host_dir}/*.pdb")
foreach(case with-pdb without-ambrel-pdb)
  set(RUN_DIR "${WORK_DIR}/run-${case}")
  file(MAKE_DIRECTORY "${RUN_DIR}")
  file(COPY ${runtime} DESTINATION "${RUN_DIR}")
  set(args "")
  if(case STREQUAL "without-ambrel-pdb")
    file(REMOVE "${RUN_DIR}/Ambrel.pdb")
    set(args --without-ambrel-pdb)
  endif()
  message(STATUS "== running consumer_host.exe ${args} in ${RUN_DIR}")
  run(${EMULATOR} "${RUN_DIR}/consumer_host.exe" ${args})
endforeach()
