# cmake -P script run by CTest: installs the build tree's Ambrel package into a
# scratch prefix, configures and builds tests/consumer against it with the same
# generator and toolchain, and runs the consumer host (under the emulator when
# cross-compiling). Needs no network. The host runs from folders of its own
# outside the build trees, once with Ambrel.pdb beside the DLL and once without,
# so that only the shipped PDB can name Ambrel's frames.
#   -DBUILD_DIR -DSOURCE_DIR -DWORK_DIR -DGENERATOR -DTOOLCHAIN_FILE -DCONFIG -DEMULATOR
#   -DRUNTIME_NAMES=the shared C++ runtime DLLs bin/ must hold ('|'-separated; empty for MSVC)
#   [-DMSVC_RUNTIME=ON: the images may import Microsoft's redistributable runtime DLLs]
#   [-DNM=llvm-nm -DMINGW_LIB_DIR=<mingw-w64's import libraries>: check the Debug variant's
#    runtime imports against Microsoft's export lists]
#   [-DDEBUG_VARIANT=ON: the package holds Ambreld.dll too, which imports the debug
#    runtime DLLs; a Debug host is then configured and built against it too (not run:
#    Wine has no debug runtime)]
#   [-DREADOBJ=llvm-readobj: also check that the installed DLL names its PDB by file name only,
#    and what the shipped images import]
cmake_minimum_required(VERSION 3.25)
string(REPLACE "|" ";" RUNTIME_NAMES "${RUNTIME_NAMES}")
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

# Runs the consumer host and shows what it printed. Under Wine a process
# copied a moment before into a fresh folder now and then never starts (Wine
# cannot map its shared user data: see docs/testing.md); the host then prints
# nothing at all. Such a start is said in one line and made once more, so it
# stays visible; a host that ran and failed is not run again.
function(run_host)
  foreach(attempt 1 2)
    execute_process(COMMAND ${EMULATOR} ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out
                    WORKING_DIRECTORY "${RUN_DIR}")
    message("${out}")
    if(rc EQUAL 0)
      return()
    endif()
    string(REPLACE ";" " " line "${ARGN}")
    if(NOT out STREQUAL "" OR attempt EQUAL 2)
      message(FATAL_ERROR "failed (${rc}): ${line}")
    endif()
    message(STATUS "consumer host did not start (exit ${rc}, no output): started once more")
  endforeach()
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

# bin/ of the package: the library, the support tool, their PDBs and the
# shared C++ runtime, nothing else.
set(expected_bin Ambrel.dll ambrel-diagnose.exe ${RUNTIME_NAMES})
if(DEBUG_VARIANT)
  list(APPEND expected_bin Ambreld.dll Ambreld.pdb)
endif()
foreach(pdb Ambrel.pdb ambrel-diagnose.pdb)
  if(EXISTS "${prefix}/bin/${pdb}")
    list(APPEND expected_bin ${pdb})
  endif()
endforeach()
file(GLOB installed_bin RELATIVE "${prefix}/bin" "${prefix}/bin/*")
list(SORT installed_bin)
list(SORT expected_bin)
if(NOT installed_bin STREQUAL expected_bin)
  message(FATAL_ERROR "bin/ of the package holds [${installed_bin}], expected [${expected_bin}]")
endif()
message(STATUS "bin/ of the package: ${installed_bin}")

# Sizes: what every host ships and maps. No image carries DWARF, which no
# Windows debugger reads (GCC's libstdc++-6.dll is 23.7 MB with it, 4.3 MB
# without), and the images together stay within the budget.
set(image_budget 6000000)
set(image_total 0)
foreach(name IN LISTS installed_bin)
  file(SIZE "${prefix}/bin/${name}" size)
  message(STATUS "  bin/${name}: ${size} bytes")
  if(NOT name MATCHES "\\.pdb$")
    math(EXPR image_total "${image_total} + ${size}")
    if(READOBJ)
      execute_process(COMMAND "${READOBJ}" --sections "${prefix}/bin/${name}" OUTPUT_VARIABLE sections RESULT_VARIABLE rc)
      if(NOT rc EQUAL 0 OR sections MATCHES "Name: \\.debug_")
        message(FATAL_ERROR "bin/${name} carries DWARF debug sections")
      endif()
    endif()
  endif()
endforeach()
if(image_total GREATER image_budget)
  message(FATAL_ERROR "the images of bin/ take ${image_total} bytes, more than the budget of ${image_budget}")
endif()
message(STATUS "the images of bin/ take ${image_total} bytes (budget ${image_budget}), none with DWARF")

# What the shipped images load at start: system DLLs, and of the shipped
# runtime exactly what they reach (dbghelp, MAPI32 and the SDK are loaded at
# run time, never imported).
if(READOBJ)
  set(system_dlls advapi32.dll crypt32.dll kernel32.dll msvcrt.dll ole32.dll oleaut32.dll shell32.dll user32.dll
      version.dll wintrust.dll)
  string(TOLOWER "${RUNTIME_NAMES}" runtime_lower)
  function(imports_of image out)
    execute_process(COMMAND "${READOBJ}" --coff-imports "${image}" OUTPUT_VARIABLE listing RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "llvm-readobj failed on ${image}")
    endif()
    string(REGEX MATCHALL "\n  Name: [^\n]+" lines "${listing}")
    set(names "")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "\n  Name: " "" name "${line}")
      string(TOLOWER "${name}" name)
      list(APPEND names "${name}")
    endforeach()
    set(${out} "${names}" PARENT_SCOPE)
  endfunction()
  foreach(image Ambrel.dll ambrel-diagnose.exe)
    imports_of("${prefix}/bin/${image}" direct)
    # The runtime DLLs reached from the image, through each other.
    set(reached "")
    set(pending ${direct})
    while(pending)
      list(POP_FRONT pending name)
      if(name IN_LIST system_dlls OR name IN_LIST reached)
        continue()
      endif()
      # MSVC: Microsoft's redistributable C++ runtime, which the host ships
      # as it always does (the Universal CRT comes with Windows).
      if(MSVC_RUNTIME AND name MATCHES "^(msvcp140(_1|_2|_atomic_wait)?|vcruntime140(_1)?|ucrtbase|api-ms-win-crt-[a-z0-9-]+)\\.dll$")
        continue()
      endif()
      if(NOT name IN_LIST runtime_lower)
        message(FATAL_ERROR "${image} loads ${name}, neither a system DLL nor one the package ships")
      endif()
      list(APPEND reached ${name})
      list(FIND runtime_lower ${name} index)
      list(GET RUNTIME_NAMES ${index} shipped)
      imports_of("${prefix}/bin/${shipped}" more)
      list(APPEND pending ${more})
    endwhile()
    list(SORT reached)
    set(shipped_sorted "${runtime_lower}")
    list(SORT shipped_sorted)
    # Quoted: with MSVC both lists are empty.
    if(NOT "${reached}" STREQUAL "${shipped_sorted}")
      message(FATAL_ERROR "${image} reaches the runtime DLLs [${reached}], the package ships [${shipped_sorted}]")
    endif()
    message(STATUS "${image} imports: ${direct}")
  endforeach()
endif()

# The Debug variant imports the debug runtime DLLs and none of the release
# ones, and a Debug host configured and built against the package links it.
if(DEBUG_VARIANT AND READOBJ)
  imports_of("${prefix}/bin/Ambreld.dll" debug_imports)
  message(STATUS "Ambreld.dll imports: ${debug_imports}")
  foreach(name msvcp140d.dll vcruntime140d.dll ucrtbased.dll)
    if(NOT name IN_LIST debug_imports)
      message(FATAL_ERROR "Ambreld.dll does not import ${name}")
    endif()
  endforeach()
  foreach(name IN LISTS debug_imports)
    if(NOT name IN_LIST system_dlls AND NOT name MATCHES "^(msvcp140d|msvcp140_[12]d|msvcp140d_atomic_wait|vcruntime140d|vcruntime140_1d|ucrtbased)\\.dll$")
      message(FATAL_ERROR "Ambreld.dll imports ${name}, neither a system DLL nor a debug runtime DLL")
    endif()
  endforeach()
  # The functions it takes from ucrtbased and vcruntime140d are in
  # Microsoft's export lists of the release DLLs, as mingw-w64's import
  # libraries carry them, or are the debug CRT's own entry points; mingw-w64
  # has no list for msvcp140d.
  if(NM AND MINGW_LIB_DIR)
    execute_process(COMMAND "${READOBJ}" --coff-imports "${prefix}/bin/Ambreld.dll" OUTPUT_VARIABLE listing)
    string(REGEX MATCHALL "Import {\n  Name: [^\n]+\n[^}]*}" blocks "${listing}")
    foreach(pair "ucrtbased.dll=libucrtbase.a" "vcruntime140d.dll=libvcruntime140_app.a")
      string(REPLACE "=" ";" pair "${pair}")
      list(GET pair 0 dll)
      list(GET pair 1 archive)
      execute_process(COMMAND "${NM}" "${MINGW_LIB_DIR}/${archive}" OUTPUT_VARIABLE symbols ERROR_QUIET)
      string(REGEX MATCHALL " I __imp_[^\n]+" listed "${symbols}")
      list(TRANSFORM listed REPLACE "^ I __imp_" "")
      set(checked 0)
      foreach(block IN LISTS blocks)
        if(NOT block MATCHES "Name: ${dll}\n")
          continue()
        endif()
        string(REGEX MATCHALL "Symbol: [^ \n]+" imported "${block}")
        list(TRANSFORM imported REPLACE "^Symbol: " "")
        foreach(function IN LISTS imported)
          if(NOT function IN_LIST listed AND NOT function MATCHES "^(_invalid_parameter|_CrtDbgReportW?|_[a-z]+_dbg)$")
            message(FATAL_ERROR "Ambreld.dll imports ${function} from ${dll}, in neither Microsoft's list (${archive}) nor the debug CRT's own")
          endif()
          math(EXPR checked "${checked} + 1")
        endforeach()
      endforeach()
      message(STATUS "Ambreld.dll: the ${checked} functions it takes from ${dll} are Microsoft's (${archive} or the debug CRT's own)")
    endforeach()
  endif()
  set(debug_build "${WORK_DIR}/build-debug")
  message(STATUS "== configuring and building the consumer project with CMAKE_BUILD_TYPE=Debug")
  set(debug_args -S "${SOURCE_DIR}/tests/consumer" -B "${debug_build}" -G "${GENERATOR}"
      "-DCMAKE_PREFIX_PATH=${prefix}" -DCMAKE_BUILD_TYPE=Debug)
  if(TOOLCHAIN_FILE)
    list(APPEND debug_args "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE}")
  endif()
  run(${CMAKE_COMMAND} ${debug_args})
  run(${CMAKE_COMMAND} --build "${debug_build}" --config Debug)
  foreach(shipped consumer_host.exe Ambreld.dll Ambreld.pdb)
    if(NOT EXISTS "${debug_build}/${shipped}")
      message(FATAL_ERROR "the Debug host's folder lacks ${shipped}")
    endif()
  endforeach()
  imports_of("${debug_build}/consumer_host.exe" host_imports)
  message(STATUS "the Debug consumer_host.exe imports: ${host_imports}")
  if(NOT "ambreld.dll" IN_LIST host_imports OR "ambrel.dll" IN_LIST host_imports OR NOT "ucrtbased.dll" IN_LIST host_imports)
    message(FATAL_ERROR "the Debug host does not link Ambreld.dll and the debug runtime alone")
  endif()
endif()

# The host run from a copy of the package's bin/ alone, plus the host itself.
file(GLOB package_bin "${prefix}/bin/*")
file(GLOB host_files "${host_dir}/consumer_host.exe" "${host_dir}/consumer_host.pdb")
foreach(case with-pdb without-ambrel-pdb)
  set(RUN_DIR "${WORK_DIR}/run-${case}")
  file(MAKE_DIRECTORY "${RUN_DIR}")
  file(COPY ${package_bin} ${host_files} DESTINATION "${RUN_DIR}")
  set(args "")
  if(case STREQUAL "without-ambrel-pdb")
    file(REMOVE "${RUN_DIR}/Ambrel.pdb")
    set(args --without-ambrel-pdb)
  endif()
  message(STATUS "== running consumer_host.exe ${args} in ${RUN_DIR}")
  run_host("${RUN_DIR}/consumer_host.exe" ${args})
endforeach()
