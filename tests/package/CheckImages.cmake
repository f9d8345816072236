# cmake -P script run by CTest: reads each shipped image and fails on a
# missing mitigation. What a PE's headers tell (address-space layout
# randomisation and its relocations, high-entropy addresses, NX, CET
# shadow-stack compatibility, control-flow guard, a signature, the imports)
# is read from them; stack protection is not in any header, so it is read
# from the image's PDB (the canary and the check routine) and its code (the
# calls to the check routine, and the canary in one function with a local
# array).
#   -DREADOBJ=llvm-readobj -DPDBUTIL=llvm-pdbutil -DOBJDUMP=llvm-objdump
#   -DIMAGES=<paths, separated by "|">
#   -DALLOWED_IMPORTS=<DLL names, any case, separated by "|">
#   -DCANARY_FUNCTION=<a function of every image with a local array>
#   -DNM=llvm-nm -DOBJECT_LISTS=<per image, a file naming the objects and
#    archives of the library's own code in it, separated by "|">
#   -DBASELINES=<per image, an image of the same kind linked the same way
#    with no code of the library's, separated by "|">
#   -DRUNTIME_ARCHIVES=<the C runtime's static archives, separated by "|">
#   -DFLAVOUR=mingw|msvc (mingw when unset)
#   -DMINGW_LIB=<mingw-w64's lib folder> -DEXPORT_LISTS=<export-lists.txt>
#   -DLOCAL_DLLS=<the package's own DLLs, separated by "|">
#   -DIMPORT_ONLY_IMAGES=<shipped images only the import check reads, "|">
# For both flavours, every imported name is checked against an export list of
# the DLL that it names (ImportCheck.cmake). The MSVC images (FLAVOUR msvc)
# have no GCC stack protector and no mingw-w64 runtime archives: their stack
# protection is /GS, read from the load config's cookie and the calls of
# __security_check_cookie, and control-flow guard is required of them.
# Every import must be accounted for: called by the library's own code, made
# by the toolchain's start-up code (the baseline image imports it too), or
# made by a C runtime function the library's code calls (found in the C
# runtime's archives, following their own calls). An import nothing of that
# explains came from an archive the library did not mean to call, as GCC's
# libssp brought CryptAcquireContextA. Crypto imports from ADVAPI32 fail
# whatever brought them: they load rsaenh.dll.
cmake_minimum_required(VERSION 3.25)
if(NOT DEFINED FLAVOUR)
  set(FLAVOUR mingw)
endif()
set(_required READOBJ PDBUTIL OBJDUMP IMAGES ALLOWED_IMPORTS NM MINGW_LIB EXPORT_LISTS LOCAL_DLLS)
if(FLAVOUR STREQUAL "mingw")
  list(APPEND _required CANARY_FUNCTION OBJECT_LISTS BASELINES RUNTIME_ARCHIVES)
endif()
foreach(var IN LISTS _required)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "CheckImages.cmake: ${var} is not set")
  endif()
endforeach()
string(REPLACE "|" ";" IMAGES "${IMAGES}")
string(REPLACE "|" ";" OBJECT_LISTS "${OBJECT_LISTS}")
string(REPLACE "|" ";" BASELINES "${BASELINES}")
string(REPLACE "|" ";" RUNTIME_ARCHIVES "${RUNTIME_ARCHIVES}")
string(REPLACE "|" ";" ALLOWED_IMPORTS "${ALLOWED_IMPORTS}")
string(TOLOWER "${ALLOWED_IMPORTS}" ALLOWED_IMPORTS)

include(${CMAKE_CURRENT_LIST_DIR}/ReadImage.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/ImportCheck.cmake)

# "<DLL> <function>" per import of an image, upper-case DLL names.
function(import_list image out)
  run(text "${READOBJ}" --coff-imports "${image}")
  set(result "")
  set(dll "")
  string(REGEX MATCHALL "(Name|Symbol): [^ \n]+" entries "${text}")
  foreach(entry IN LISTS entries)
    if(entry MATCHES "^Name: (.+)")
      string(TOUPPER "${CMAKE_MATCH_1}" dll)
    elseif(entry MATCHES "^Symbol: (.+)")
      list(APPEND result "${dll} ${CMAKE_MATCH_1}")
    endif()
  endforeach()
  set(${out} "${result}" PARENT_SCOPE)
endfunction()

# The C runtime's code members (mingw-w64 names them lib64_*; the other
# members are import stubs), as "<member> <symbol> <type>" lines.
set(runtime_symbols "")
foreach(archive IN LISTS RUNTIME_ARCHIVES)
  run(text "${NM}" -A -P "${archive}")
  string(REGEX MATCHALL "\\[lib64_[^]\n]+\\]: [^ \n]+ [A-Za-z]" lines "${text}")
  list(TRANSFORM lines REPLACE "^\\[([^]]+)\\]: " "\\1 ")
  list(JOIN lines "\n" lines)
  string(APPEND runtime_symbols "${lines}\n")
endforeach()

# A name as a regular expression that matches it alone.
function(literal_pattern text out)
  foreach(special "\\" "." "+" "*" "?" "$" "^" "(" ")" "[" "]" "|")
    string(REPLACE "${special}" "\\${special}" text "${text}")
  endforeach()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# Into `out`: the functions the objects and archives named in `list_file`
# call, and the imports of the C runtime functions among them (following
# the runtime's own calls), without the __imp_ prefix.
function(own_calls list_file out)
  file(STRINGS "${list_file}" files)
  run(text "${NM}" -j --undefined-only ${files})
  string(REPLACE "\n" ";" pending "${text}")
  list(FILTER pending EXCLUDE REGEX "^$|:$")
  set(called "")
  set(members "")
  while(pending)
    list(POP_FRONT pending symbol)
    # mingw-w64's runtime calls msvcrt's own X, where it replaces X, as __ms_X.
    string(REGEX REPLACE "^__imp_" "" name "${symbol}")
    string(REGEX REPLACE "^__ms_" "" name "${name}")
    if(name IN_LIST called)
      continue()
    endif()
    list(APPEND called "${name}")
    literal_pattern("${name}" pattern)
    # The runtime members that define it and have not been followed yet.
    string(REGEX MATCHALL "[^ \n]+ ${pattern} [TDRB]\n" definers "${runtime_symbols}")
    list(TRANSFORM definers REPLACE " .*" "")
    foreach(member IN LISTS members)
      list(REMOVE_ITEM definers "${member}")
    endforeach()
    foreach(member IN LISTS definers)
      list(APPEND members "${member}")
      literal_pattern("${member}" member_pattern)
      string(REGEX MATCHALL "\n${member_pattern} [^ \n]+ U" uses "\n${runtime_symbols}")
      list(TRANSFORM uses REPLACE "^\n[^ ]+ ([^ ]+) U$" "\\1")
      list(APPEND pending ${uses})
    endforeach()
  endwhile()
  set(${out} "${called}" PARENT_SCOPE)
endfunction()

set(failures "")
set(table "")
macro(verdict image rule ok evidence)
  if(${ok})
    string(APPEND table "  ${image}  ${rule}: yes (${evidence})\n")
  else()
    string(APPEND table "  ${image}  ${rule}: NO (${evidence})\n")
    list(APPEND failures "${image}: ${rule}")
  endif()
endmacro()

# A rule met when `text` names `flag`.
macro(flag_verdict image rule text flag evidence)
  set(ok FALSE)
  if("${text}" MATCHES "${flag}")
    set(ok TRUE)
  endif()
  verdict(${image} "${rule}" ok "${evidence}")
endmacro()

# "<section>:<offset>" of a PDB symbol as the address llvm-objdump prints
# (`section_addresses` and `image_base` are the caller's).
function(pdb_address where out)
  string(REPLACE ":" ";" where "${where}")
  list(GET where 0 section)
  list(GET where 1 offset)
  math(EXPR index "${section} - 1")
  list(GET section_addresses ${index} base)
  string(REPLACE "VirtualAddress: " "" base "${base}")
  math(EXPR address "${image_base} + ${base} + ${offset}" OUTPUT_FORMAT HEXADECIMAL)
  string(TOLOWER "${address}" address)
  string(REPLACE "0x" "" address "${address}")
  set(${out} ${address} PARENT_SCOPE)
endfunction()

foreach(image IN LISTS IMAGES)
  get_filename_component(name "${image}" NAME)
  list(FIND IMAGES "${image}" image_index)
  if(FLAVOUR STREQUAL "mingw")
    list(GET OBJECT_LISTS ${image_index} object_list)
    list(GET BASELINES ${image_index} baseline)
  endif()
  run(headers "${READOBJ}" --file-headers "${image}")
  run(debug "${READOBJ}" --coff-debug-directory "${image}")
  run(imports "${READOBJ}" --coff-imports "${image}")

  # The optional header's DllCharacteristics come after the file header's
  # Characteristics: the flags are named in the second list.
  string(FIND "${headers}" "ImageOptionalHeader" optional_at)
  string(SUBSTRING "${headers}" 0 ${optional_at} file_header)
  string(SUBSTRING "${headers}" ${optional_at} -1 optional_header)

  readobj_field("${headers}" BaseRelocationTableSize relocations)
  set(ok FALSE)
  if(optional_header MATCHES "IMAGE_DLL_CHARACTERISTICS_DYNAMIC_BASE" AND NOT file_header MATCHES "IMAGE_FILE_RELOCS_STRIPPED"
     AND relocations GREATER 0)
    set(ok TRUE)
  endif()
  verdict(${name} "ASLR (DYNAMIC_BASE, relocations kept)" ok "base relocation table of ${relocations} bytes")

  flag_verdict(${name} "high-entropy VA" "${optional_header}" IMAGE_DLL_CHARACTERISTICS_HIGH_ENTROPY_VA HIGH_ENTROPY_VA)
  flag_verdict(${name} "NX (DEP)" "${optional_header}" IMAGE_DLL_CHARACTERISTICS_NX_COMPAT NX_COMPAT)
  flag_verdict(${name} "CET shadow-stack compatible" "${debug}" IMAGE_DLL_CHARACTERISTICS_EX_CET_COMPAT
               "extended DLL characteristics debug entry")

  # Stack protection: the PDB's publics name the canary and the check
  # routine; the code calls the routine; one function with a local array
  # loads the canary (through its .refptr) and calls the routine.
  if(NOT debug MATCHES "PDBFileName: ([^\n]+)\n")
    message(FATAL_ERROR "${name} names no PDB: stack protection cannot be read from it")
  endif()
  # Beside the image, whatever path the record holds.
  get_filename_component(pdb_name "${CMAKE_MATCH_1}" NAME)
  get_filename_component(folder "${image}" DIRECTORY)
  set(pdb "${folder}/${pdb_name}")
  run(publics "${PDBUTIL}" dump --publics "${pdb}")
  run(sections "${READOBJ}" --sections "${image}")
  string(REGEX MATCHALL "VirtualAddress: 0x[0-9A-F]+" section_addresses "${sections}")
  readobj_field("${headers}" ImageBase image_base)
  if(FLAVOUR STREQUAL "msvc")
    # /GS: the load config names the cookie, whose file value is Microsoft's
    # default (the Windows loader seeds an image's cookie only when it holds
    # that value: "/GS (Buffer Security Check)", Microsoft Learn), in a
    # writable section; and the code calls __security_check_cookie.
    run(load_config "${READOBJ}" --coff-load-config "${image}")
    readobj_field("${load_config}" SecurityCookie cookie)
    section_of(${cookie} cookie_section cookie_writable)
    read_word(${cookie} cookie_value)
    if(NOT cookie_value STREQUAL "none")
      math(EXPR cookie_value "${cookie_value}" OUTPUT_FORMAT HEXADECIMAL)
    endif()
    set(call_count 0)
    if(publics MATCHES "`__security_check_cookie`\n *flags = function, addr = ([0-9]+:[0-9]+)")
      pdb_address(${CMAKE_MATCH_1} check_routine)
      run(code "${OBJDUMP}" -d --no-show-raw-insn "${image}")
      string(REGEX MATCHALL "call[q]?[ \t]+0x${check_routine}[ \t]" calls "${code}")
      list(LENGTH calls call_count)
    endif()
    set(ok FALSE)
    if(cookie_value STREQUAL "0x2b992ddfa232" AND cookie_writable AND call_count GREATER 0)
      set(ok TRUE)
    endif()
    set(evidence "cookie in ${cookie_section}, file value ${cookie_value} (Microsoft's default 0x2B992DDFA232); ${call_count} calls of __security_check_cookie")
  else()
    set(ok FALSE)
    set(evidence "no __stack_chk_fail or __stack_chk_guard in ${pdb_name}")
    if(publics MATCHES "`__stack_chk_fail`\n *flags = function, addr = ([0-9]+:[0-9]+)")
      pdb_address(${CMAKE_MATCH_1} check_routine)
      set(guard_ref "")
      if(publics MATCHES "`\\.refptr\\.__stack_chk_guard`\n *flags = none, addr = ([0-9]+:[0-9]+)")
        pdb_address(${CMAKE_MATCH_1} guard_ref)
      endif()
      run(code "${OBJDUMP}" -d --no-show-raw-insn "${image}")
      string(REGEX MATCHALL "call[q]?[ \t]+0x${check_routine}[ \t]" calls "${code}")
      list(LENGTH calls call_count)
      # The function with a local array, from the PDB's procedure records.
      run(symbols "${PDBUTIL}" dump --symbols "${pdb}")
      set(canary "not found in the PDB")
      string(FIND "${symbols}" "`${CANARY_FUNCTION}`" at)
      if(at GREATER -1)
        string(SUBSTRING "${symbols}" ${at} 300 record)
        if(record MATCHES "addr = ([0-9]+:[0-9]+), code size = ([0-9]+)")
          set(size ${CMAKE_MATCH_2})
          pdb_address(${CMAKE_MATCH_1} start)
          math(EXPR stop "0x${start} + ${size}" OUTPUT_FORMAT HEXADECIMAL)
          run(function_code "${OBJDUMP}" -d --no-show-raw-insn --start-address=0x${start} --stop-address=${stop} "${image}")
          set(canary "${CANARY_FUNCTION}: no canary")
          if(guard_ref AND function_code MATCHES "# 0x${guard_ref}\n" AND function_code MATCHES "call[q]?[ \t]+0x${check_routine}[ \t]")
            set(canary "${CANARY_FUNCTION} loads the canary and calls the check")
          endif()
        endif()
      endif()
      set(evidence "${call_count} calls of __stack_chk_fail; ${canary}")
      if(call_count GREATER 0 AND canary MATCHES "loads the canary")
        set(ok TRUE)
      endif()
    endif()
  endif()
  verdict(${name} "stack protection" ok "${evidence}")

  # The load-time imports: system DLLs and the GCC runtime only (no libssp-0.dll).
  string(REGEX MATCHALL "Name: [^\n]+\\.(dll|DLL)" import_names "${imports}")
  set(unexpected "")
  set(import_list "")
  foreach(entry IN LISTS import_names)
    string(REPLACE "Name: " "" dll "${entry}")
    string(TOLOWER "${dll}" lower)
    list(APPEND import_list ${dll})
    if(NOT lower IN_LIST ALLOWED_IMPORTS)
      list(APPEND unexpected ${dll})
    endif()
  endforeach()
  list(REMOVE_DUPLICATES import_list)
  set(ok TRUE)
  if(unexpected)
    set(ok FALSE)
  endif()
  string(REPLACE ";" " " import_text "${import_list}")
  verdict(${name} "imports only system DLLs and the C++ runtime" ok "${import_text}")

  # No crypto from ADVAPI32 (CryptAcquireContext loads rsaenh.dll), and no
  # import the library's own code does not account for.
  import_list("${image}" image_imports)
  set(crypto ${image_imports})
  list(FILTER crypto INCLUDE REGEX "^ADVAPI32\\.DLL (Crypt|SystemFunction036)")
  string(REPLACE ";" ", " crypto_text "${crypto}")
  set(ok TRUE)
  if(crypto)
    set(ok FALSE)
  else()
    set(crypto_text "none")
  endif()
  verdict(${name} "no crypto imports from ADVAPI32" ok "${crypto_text}")

  check_imports("${image}" ok evidence)
  verdict(${name} "every import exported by the DLL it names" ok "${evidence}")

  if(FLAVOUR STREQUAL "mingw")
    own_calls("${object_list}" called)
    import_list("${baseline}" baseline_imports)
    set(unaccounted "")
    set(own_count 0)
    set(startup_count 0)
    foreach(entry IN LISTS image_imports)
      string(REGEX REPLACE "^[^ ]+ " "" function "${entry}")
      if(function IN_LIST called)
        math(EXPR own_count "${own_count} + 1")
      elseif(entry IN_LIST baseline_imports)
        math(EXPR startup_count "${startup_count} + 1")
      else()
        list(APPEND unaccounted "${entry}")
      endif()
    endforeach()
    list(LENGTH image_imports import_count)
    set(ok TRUE)
    set(evidence "${import_count} imports: ${own_count} called by the library's code or the C runtime functions it calls, ${startup_count} by the start-up code alone")
    if(unaccounted)
      set(ok FALSE)
      string(REPLACE ";" ", " unaccounted "${unaccounted}")
      string(APPEND evidence "; not called: ${unaccounted}")
    endif()
    verdict(${name} "every import called by the library's code" ok "${evidence}")
  endif()

  # Control-flow guard: required of the MSVC images; of the mingw-w64 ones
  # not, but reported so the table is complete.
  readobj_field("${headers}" LoadConfigTableSize load_config)
  if(FLAVOUR STREQUAL "msvc")
    # /guard:cf: the flag, backed by a load config that says the code is
    # instrumented and carries a function table, and the check and dispatch
    # pointers in a read-only section, where Microsoft's start-up keeps them
    # ("PE Format": load configuration layout; "Control Flow Guard for
    # platform security", Microsoft Learn).
    run(load_config "${READOBJ}" --coff-load-config "${image}")
    readobj_field("${load_config}" GuardCFCheckFunction check_pointer)
    readobj_field("${load_config}" GuardCFCheckDispatch dispatch_pointer)
    readobj_field("${load_config}" GuardCFFunctionTable function_table)
    readobj_field("${load_config}" GuardCFFunctionCount function_count)
    section_of(${check_pointer} check_section check_writable)
    section_of(${dispatch_pointer} dispatch_section dispatch_writable)
    set(ok FALSE)
    if(optional_header MATCHES "IMAGE_DLL_CHARACTERISTICS_GUARD_CF" AND load_config MATCHES "CF_INSTRUMENTED"
       AND load_config MATCHES "CF_FUNCTION_TABLE_PRESENT" AND function_table GREATER 0 AND function_count GREATER 0
       AND NOT check_writable AND NOT dispatch_writable AND NOT check_section STREQUAL "none"
       AND NOT dispatch_section STREQUAL "none")
      set(ok TRUE)
    endif()
    string(REGEX MATCHALL "\n    CF_[A-Z_]+" guard_flags "${load_config}")
    list(TRANSFORM guard_flags STRIP)
    string(REPLACE ";" " " guard_flags "${guard_flags}")
    verdict(${name} "control-flow guard (GUARD_CF, load config)" ok
            "${guard_flags}; ${function_count} functions in the table; check pointer in ${check_section}, dispatch pointer in ${dispatch_section}")
  elseif(optional_header MATCHES "IMAGE_DLL_CHARACTERISTICS_GUARD_CF")
    string(APPEND table "  ${name}  control-flow guard: yes\n")
  else()
    string(APPEND table "  ${name}  control-flow guard: no (not required of the mingw-w64 10 build; load-config table of ${load_config} bytes)\n")
  endif()
  readobj_field("${headers}" CertificateTableSize certificates)
  if(certificates GREATER 0)
    string(APPEND table "  ${name}  Authenticode signature: present (${certificates} bytes)\n")
  else()
    string(APPEND table "  ${name}  Authenticode signature: none (the build tree is never signed; install signs)\n")
  endif()
endforeach()

# Shipped images the build does not make (the C++ runtime DLLs the mingw-w64
# package installs): their imports are checked all the same.
string(REPLACE "|" ";" IMPORT_ONLY_IMAGES "${IMPORT_ONLY_IMAGES}")
foreach(image IN LISTS IMPORT_ONLY_IMAGES)
  get_filename_component(name "${image}" NAME)
  check_imports("${image}" ok evidence)
  verdict(${name} "every import exported by the DLL it names" ok "${evidence}")
endforeach()

message(STATUS "image mitigations:\n${table}")
if(failures)
  string(REPLACE ";" "\n  " failures "${failures}")
  message(FATAL_ERROR "missing mitigations:\n  ${failures}")
endif()
message(STATUS "every shipped image carries every required mitigation")
