# cmake -P script run by CTest: the package signed with the suite's throw-away
# identity (tests/support/standin/make-test-pki.sh), as a release build is
# signed with its real one, and the package without any.
#   1. install and cpack with AMBREL_SIGN_PFX / AMBREL_SIGN_PASSWORD in their
#      environment: every image of bin/ signed (the library, the support tool
#      and the three C++ runtime DLLs), in the prefix and in the ZIP; the
#      password reaches osslsigncode as a file, never on its command line, and
#      the install says in one line that there is no time stamp;
#   2. osslsigncode verifies each signature and its chain up to the test root
#      (a root Wine's WinVerifyTrust does not insist on), and fails it against
#      the machine's own roots;
#   3. signing left each image's CodeView record alone: it still names its PDB
#      with the GUID and age the PDB itself carries;
#   4. the Windows side, under the emulator: WinVerifyTrust, the signer, the
#      chain with the test root trusted by the program's own engine only, the
#      version resource, loading (SignedPackageTest.cpp);
#   5. an install with no certificate signs nothing;
#   6. the same identity's key on a SoftHSM2 token, standing in for a hardware
#      token: an install signs through the PKCS#11 module with the PIN from a
#      file, and steps 2 and 4 verify that package;
#   7. AMBREL_REQUIRE_TIMESTAMP=ON without a time-stamp server fails the install.
#   -DBUILD_DIR -DWORK_DIR -DCONFIG -DPKI -DOSSLSIGNCODE -DREADOBJ -DPDBUTIL
#   -DEMULATOR -DTEST_PROGRAM -DRUNTIME_NAMES ('|'-separated) [-DDEBUG_VARIANT=ON: Ambreld.dll, signed too]
#   -DSOFTHSM_UTIL -DSOFTHSM_MODULE (softhsm2-util and libsofthsm2.so)
cmake_minimum_required(VERSION 3.25)
foreach(var BUILD_DIR WORK_DIR CONFIG PKI OSSLSIGNCODE READOBJ PDBUTIL TEST_PROGRAM SOFTHSM_UTIL SOFTHSM_MODULE)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "CheckSigning.cmake: ${var} is not set")
  endif()
endforeach()
file(REMOVE_RECURSE "${WORK_DIR}")
string(REPLACE "|" ";" RUNTIME_NAMES "${RUNTIME_NAMES}")
# The images with a PDB, and every image the package ships.
set(pdb_images Ambrel.dll ambrel-diagnose.exe)
if(DEBUG_VARIANT)
  list(APPEND pdb_images Ambreld.dll)
endif()
set(images ${pdb_images} ${RUNTIME_NAMES})
set(password ambrel-test-only)
set(sign_env "AMBREL_SIGN_PFX=${PKI}/package_signing.pfx" "AMBREL_SIGN_PASSWORD=${password}"
    --unset=AMBREL_TIMESTAMP_URL --unset=AMBREL_REQUIRE_TIMESTAMP)

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

# The lines an install printed that say there is no time stamp.
function(expect_one_timestamp_line output)
  string(REGEX MATCHALL "[^\n]*without a time stamp[^\n]*" lines "${output}")
  list(LENGTH lines count)
  if(NOT count EQUAL 1)
    message(FATAL_ERROR "expected one line about the missing time stamp, found ${count}:\n${output}")
  endif()
  message(STATUS "the install said: ${lines}")
endfunction()

message(STATUS "== 1. installing and packing with the test signing identity")
run(${CMAKE_COMMAND} -E env ${sign_env}
    ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/prefix" --config "${CONFIG}")
# Every signing command is printed as it runs: none names the password.
string(REGEX MATCHALL "Signing: [^\n]+" commands "${RUN_OUTPUT}")
list(LENGTH commands signed_count)
list(LENGTH images image_count)
if(NOT signed_count EQUAL image_count OR RUN_OUTPUT MATCHES "${password}" OR NOT RUN_OUTPUT MATCHES "-readpass ")
  message(FATAL_ERROR "expected ${image_count} signing commands, each with -readpass and none with the password:\n${RUN_OUTPUT}")
endif()
message(STATUS "${signed_count} images signed; the password went to osslsigncode as a file (-readpass), on no command line")
expect_one_timestamp_line("${RUN_OUTPUT}")
run(${CMAKE_COMMAND} -E env ${sign_env}
    cpack --config "${BUILD_DIR}/CPackConfig.cmake" -C "${CONFIG}" -B "${WORK_DIR}/cpack")
file(GLOB zip "${WORK_DIR}/cpack/*.zip")
file(MAKE_DIRECTORY "${WORK_DIR}/zip")
execute_process(COMMAND ${CMAKE_COMMAND} -E tar xf "${zip}" WORKING_DIRECTORY "${WORK_DIR}/zip" RESULT_VARIABLE rc)
file(GLOB zip_bin "${WORK_DIR}/zip/*/bin")
if(NOT rc EQUAL 0 OR NOT zip_bin)
  message(FATAL_ERROR "cannot unpack the ZIP ${zip}")
endif()

# Each image of the folder signed by the test identity, verifying up to the test root.
function(verify_signatures folder)
  foreach(image IN LISTS images)
    run("${OSSLSIGNCODE}" verify -CAfile "${PKI}/root.crt" -in "${folder}/${image}")
    if(NOT RUN_OUTPUT MATCHES "Subject: /CN=Ambrel Test Package Signing/O=Tavrel, Inc\n")
      message(FATAL_ERROR "${folder}/${image} is not signed by the test identity:\n${RUN_OUTPUT}")
    endif()
    message(STATUS "${folder}/${image}: SHA-256 signature by the test identity verifies up to the test root")
  endforeach()
endfunction()

message(STATUS "== 2. each signature and its chain up to the test root")
foreach(folder "${WORK_DIR}/prefix/bin" "${zip_bin}")
  verify_signatures("${folder}")
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
foreach(image IN LISTS pdb_images)
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

# The Windows side of the package in `prefix` (SignedPackageTest.cpp).
function(check_under_emulator prefix)
  set(package_bin "${prefix}/bin")
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
    message(FATAL_ERROR "the signed package's checks failed (${rc}): ${prefix}")
  endif()
endfunction()

message(STATUS "== 4. under the emulator: WinVerifyTrust, signer, chain, version resource")
check_under_emulator("${WORK_DIR}/prefix")

message(STATUS "== 5. an install with no certificate signs nothing")
run(${CMAKE_COMMAND} -E env --unset=AMBREL_SIGN_PFX --unset=AMBREL_SIGN_PASSWORD
    ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/unsigned" --config "${CONFIG}")
foreach(image IN LISTS images)
  certificate_table("${WORK_DIR}/unsigned/bin/${image}" size)
  if(NOT size EQUAL 0)
    message(FATAL_ERROR "${image} was signed with no certificate given")
  endif()
endforeach()
message(STATUS "without a certificate every image is installed unsigned")

message(STATUS "== 6. the key on a PKCS#11 token (SoftHSM2), the PIN from a file")
set(token_dir "${WORK_DIR}/token")
file(MAKE_DIRECTORY "${token_dir}/objects")
file(WRITE "${token_dir}/softhsm2.conf" "directories.tokendir = ${token_dir}/objects\nobjectstore.backend = file\nlog.level = ERROR\n")
set(pin_file "${token_dir}/pin")
file(TOUCH "${pin_file}")
file(CHMOD "${pin_file}" PERMISSIONS OWNER_READ OWNER_WRITE)
file(WRITE "${pin_file}" "24681357")
set(ENV{SOFTHSM2_CONF} "${token_dir}/softhsm2.conf")
run("${SOFTHSM_UTIL}" --init-token --free --label ambrel-test-token --so-pin 87654321 --pin 24681357)
# softhsm2-util imports PKCS#8; the test identity's key is written as openssl made it.
run(openssl pkcs8 -topk8 -nocrypt -in "${PKI}/package_signing.key" -out "${token_dir}/key.p8")
run("${SOFTHSM_UTIL}" --import "${token_dir}/key.p8" --token ambrel-test-token --label package-signing --id 01
    --pin 24681357)
file(REMOVE "${token_dir}/key.p8")
run(${CMAKE_COMMAND} -E env --unset=AMBREL_SIGN_PFX --unset=AMBREL_SIGN_PASSWORD --unset=AMBREL_TIMESTAMP_URL
    "AMBREL_SIGN_PKCS11_MODULE=${SOFTHSM_MODULE}"
    "AMBREL_SIGN_PKCS11_KEY=pkcs11:token=ambrel-test-token;object=package-signing;type=private"
    "AMBREL_SIGN_CERTS=${PKI}/package_signing.chain.pem" "AMBREL_SIGN_PASSWORD_FILE=${pin_file}"
    ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/token-prefix" --config "${CONFIG}")
if(RUN_OUTPUT MATCHES "24681357" OR NOT RUN_OUTPUT MATCHES "-pkcs11module ")
  message(FATAL_ERROR "the token install did not sign through the module, or showed the PIN:\n${RUN_OUTPUT}")
endif()
verify_signatures("${WORK_DIR}/token-prefix/bin")
check_under_emulator("${WORK_DIR}/token-prefix")
message(STATUS "the package signed through the token verifies as the PFX-signed one")

message(STATUS "== 7. AMBREL_REQUIRE_TIMESTAMP=ON and no time-stamp server")
execute_process(COMMAND ${CMAKE_COMMAND} -E env ${sign_env} AMBREL_REQUIRE_TIMESTAMP=ON
                ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/required" --config "${CONFIG}"
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(rc EQUAL 0 OR NOT out MATCHES "AMBREL_REQUIRE_TIMESTAMP is ON but no AMBREL_TIMESTAMP_URL is given")
  message(FATAL_ERROR "an install that requires a time stamp signed without one (${rc}):\n${out}")
endif()
message(STATUS "the install failed: AMBREL_REQUIRE_TIMESTAMP is ON but no AMBREL_TIMESTAMP_URL is given")
