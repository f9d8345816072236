# What the cmake -P scripts that read the built images share: running a tool,
# and finding the section of an image that holds a virtual address.
include(${CMAKE_CURRENT_LIST_DIR}/../../cmake/ReadobjField.cmake)

# run(<out> <command>...): the command's output; a fatal error when it fails.
function(run out)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE text ERROR_VARIABLE error RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    string(REPLACE ";" " " line "${ARGN}")
    message(FATAL_ERROR "failed (${rc}): ${line}\n${error}")
  endif()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# section_block(<address> <out>): llvm-readobj's block of the section that
# holds a virtual address, or "none". Reads the caller's `sections`
# (llvm-readobj --sections) and `image_base` (decimal).
function(section_block address out)
  set(found none)
  string(REGEX MATCHALL "Section {[^}]+}" blocks "${sections}")
  foreach(block IN LISTS blocks)
    readobj_field("${block}" VirtualAddress start)
    readobj_field("${block}" VirtualSize size)
    math(EXPR start "${image_base} + ${start}")
    math(EXPR stop "${start} + ${size}")
    if(address GREATER_EQUAL start AND address LESS stop)
      set(found "${block}")
    endif()
  endforeach()
  set(${out} "${found}" PARENT_SCOPE)
endfunction()

# section_of(<address> <name> <writable>): the name of that section ("none"
# where no section holds the address) and whether it is writable.
function(section_of address name_out writable_out)
  section_block(${address} block)
  set(name none)
  set(writable FALSE)
  if(NOT block STREQUAL "none" AND block MATCHES "Name: ([^ \n]+)")
    set(name "${CMAKE_MATCH_1}")
    if(block MATCHES "IMAGE_SCN_MEM_WRITE")
      set(writable TRUE)
    endif()
  endif()
  set(${name_out} "${name}" PARENT_SCOPE)
  set(${writable_out} ${writable} PARENT_SCOPE)
endfunction()

# read_word(<address> <out>): the 64-bit little-endian word at a virtual
# address of the caller's `image`, read from the file through the section
# that holds it, as a decimal number; "none" outside every section's data.
function(read_word address out)
  set(value none)
  section_block(${address} block)
  if(NOT block STREQUAL "none")
    readobj_field("${block}" VirtualAddress start)
    readobj_field("${block}" RawDataSize size)
    readobj_field("${block}" PointerToRawData raw)
    math(EXPR offset "${address} - ${image_base} - ${start}")
    if(offset LESS size)
      math(EXPR offset "${raw} + ${offset}")
      file(READ "${image}" bytes OFFSET ${offset} LIMIT 8 HEX)
      string(REGEX MATCHALL ".." pairs "${bytes}")
      list(REVERSE pairs)
      string(JOIN "" hex ${pairs})
      # CMake's integers are signed 64-bit and take no hex beyond them.
      if(hex STREQUAL "ffffffffffffffff")
        set(value -1)
      else()
        math(EXPR value "0x${hex}")
      endif()
    endif()
  endif()
  set(${out} "${value}" PARENT_SCOPE)
endfunction()
