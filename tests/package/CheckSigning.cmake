# cmake -P script run by CTest: the package signed with the suite's throw-away
# identity (tests/support/standin/make-test-pki.sh), as a release build is
# signed with its real one, and the package without any.
#   1. install and cpack with AMBREL_SIGN_PFX / AMBREL_SIGN_PASSWORD in their
#      environment: both images signed, in the prefix and in the ZIP;
#   2. osslsigncode verifies each signature and its chain up to the test root
#      (a root Wine's WinVerifyTrust does not insist on), and fails it against
#      the machine's own roots;
#   3. signing left each image's CodeView record alone: it still names its PDB
#      with the GUID and age the PDB itself carries;
#   4. the Windows side, under the emulator: WinVerifyTrust, the signer, the
#      chain with the test root trusted by the program's own engine only, the
#      version resource, loading (SignedPackageTest.cpp);
#   5. an install with no certificate signs nothing.
#   -DBUILD_DIR -DWORK_DIR -DCONFIG -DPKI -DOSSLSIGNCODE -DREADOBJ -DPDBUTIL
#   -DEMULATOR -DTEST_PROGRAM
cmake_minimum_required(VERSION 3.25)
foreach(var BUILD_DIR WORK_DIR CONFIG PKI OSSLSIGNCODE READOBJ PDBUTIL TEST_PROGRAM)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "CheckSigning.cmake: ${var} is not set")
  endif()
endforeach()
file(REMOVE_RECURSE "${WORK_DIR}")
set(images Ambrel.dll ambrel-diagnose.exe)
set(sign_env "AMBREL_SIGN_PFX=${PKI}/package_signing.pfx" "AMBREL_SIGN_PASSWORD=ambrel-test-only")

include(${CMAKE_CURRENT_LIST_DIR}/../../cmake/ReadobjField.cmake)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    string(REPLACE ";" " " line "${ARGN}")
    message(FATAL_ERROR "failed (${rc}): ${line}\n${out}")
  endif()
  set(RUN_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

# The size of an image's certificate table (0: not signed).
function(certificate_table image out)
  run("${READOBJ}" --file-headers "${image}")
  readobj_field("${RUN_OUTPUT}" CertificateTableSize size)
  set(${out} ${size} PARENT_SCOPE)
endfunction()

message(STATUS "== 1. installing and packing with the test signing identity")
run(${CMAKE_COMMAND} -E env ${sign_env}
    ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/prefix" --config "${CONFIG}")
run(${CMAKE_COMMAND} -E env ${sign_env}
    cpack --config "${BUILD_DIR}/CPackConfig.cmake" -C "${CONFIG}" -B "${WORK_DIR}/cpack")
file(GLOB zip "${WORK_DIR}/cpack/*.zip")
file(MAKE_DIRECTORY "${WORK_DIR}/zip")
execute_process(COMMAND ${CMAKE_COMMAND} -E tar xf "${zip}" WORKING_DIRECTORY "${WORK_DIR}/zip" RESULT_VARIABLE rc)
file(GLOB zip_bin "${WORK_DIR}/zip/*/bin")
if(NOT rc EQUAL 0 OR NOT zip_bin)
  message(FATAL_ERROR "cannot unpack the ZIP ${zip}")
endif()

message(STATUS "== 2. each signature and its chain up to the test root")
foreach(folder "${WORK_DIR}/prefix/bin" "${zip_bin}")
  foreach(image IN LISTS images)
    run("${OSSLSIGNCODE}" verify -CAfile "${PKI}/root.crt" -in "${folder}/${image}")
    if(NOT RUN_OUTPUT MATCHES "Subject: /CN=Ambrel Test Package Signing/O=Tavrel, Inc\n")
      message(FATAL_ERROR "${folder}/${image} is not signed by the test identity:\n${RUN_OUTPUT}")
    endif()
    message(STATUS "${folder}/${image}: SHA-256 signature by the test identity verifies up to the test root")
  endforeach()
endforeach()
set(system_roots /etc/ssl/certs/ca-certificates.crt)
if(EXISTS ${system_roots})
  execute_process(COMMAND "${OSSLSIGNCODE}" verify -CAfile ${system_roots} -in "${WORK_DIR}/prefix/bin/Ambrel.dll"
                  RESULT_VARIABLE rc OUTPUT_QUIET ERROR_QUIET)
  if(rc EQUAL 0)
    message(FATAL_ERROR "the test signature verified against the machine's own roots")
  endif()
  message(STATUS "against the machine's own roots the chain does not verify, as on a machine without the test root")
endif()

message(STATUS "== 3. CodeView records against the PDBs")
foreach(image IN LISTS images)
  set(signed "${WORK_DIR}/prefix/bin/${image}")
  run("${READOBJ}" --coff-debug-directory "${signed}")
  if(NOT RUN_OUTPUT MATCHES "PDBGUID: \\(([0-9A-F ]+)\\)\n *PDBAge: ([0-9]+)\n *PDBFileName: ([^\n]+)\n")
    message(FATAL_ERROR "${signed} has no CodeView record:\n${RUN_OUTPUT}")
  endif()
  set(age ${CMAKE_MATCH_2})
  set(pdb_name "${CMAKE_MATCH_3}")
  # The record's bytes are the GUID as stored: Data1-3 little-endian.
  string(REPLACE " " ";" b "${CMAKE_MATCH_1}")
  set(guid "")
  foreach(i 3 2 1 0 - 5 4 - 7 6 - 8 9 - 10 11 12 13 14 15)
    if(i STREQUAL "-")
      string(APPEND guid "-")
    else()
      list(GET b ${i} byte)
      string(APPEND guid "${byte}")
    endif()
  endforeach()
  set(pdb "${WORK_DIR}/prefix/bin/${pdb_name}")
  if(NOT EXISTS "${pdb}")
    message(FATAL_ERROR "${image} names ${pdb_name}, which is not installed beside it")
  endif()
  run("${PDBUTIL}" dump --summary "${pdb}")
  if(NOT RUN_OUTPUT MATCHES "Age: ([0-9]+)\n *GUID: {([0-9A-F-]+)}")
    message(FATAL_ERROR "cannot read the GUID and age of ${pdb}:\n${RUN_OUTPUT}")
  endif()
  if(NOT CMAKE_MATCH_2 STREQUAL guid OR NOT CMAKE_MATCH_1 STREQUAL age)
    message(FATAL_ERROR "signed ${image} names {${guid}} age ${age}; ${pdb_name} is {${CMAKE_MATCH_2}} age ${CMAKE_MATCH_1}")
  endif()
  message(STATUS "signed ${image} names ${pdb_name} {${guid}} age ${age}, as the PDB beside it")
endforeach()

message(STATUS "== 4. under the emulator: WinVerifyTrust, signer, chain, version resource")
set(package_bin "${WORK_DIR}/prefix/bin")
set(root "${PKI}/root.crt")
if(EMULATOR)
  # Wine's Z: drive is the file system's root.
  set(package_bin "Z:${package_bin}")
  set(root "Z:${root}")
endif()
string(REPLACE "/" "\\" package_bin "${package_bin}")
string(REPLACE "/" "\\" root "${root}")
execute_process(COMMAND ${CMAKE_COMMAND} -E env "AMBREL_SIGNED_PACKAGE=${package_bin}" "AMBREL_TEST_ROOT=${root}"
                ${EMULATOR} "${TEST_PROGRAM}" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the signed package's checks failed (${rc})")
endif()

message(STATUS "== 5. an install with no certificate signs nothing")
run(${CMAKE_COMMAND} -E env --unset=AMBREL_SIGN_PFX --unset=AMBREL_SIGN_PASSWORD
    ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/unsigned" --config "${CONFIG}")
foreach(image IN LISTS images)
  certificate_table("${WORK_DIR}/unsigned/bin/${image}" size)
  if(NOT size EQUAL 0)
    message(FATAL_ERROR "${image} was signed with no certificate given")
  endif()
endforeach()
message(STATUS "without a certificate both images are installed unsigned")
