# The one reader of llvm-readobj's numeric fields, for the cmake -P scripts
# that check the shipped images.
# readobj_field(<text> <name> <out>): the value llvm-readobj printed on its
# own line as "<name>: 0x..." (hex) or "<name>: <digits>", into `out` in
# decimal; a fatal error naming the field when the text has none.
function(readobj_field text name out)
  if(NOT text MATCHES "(^|\n) *${name}: (0x[0-9A-Fa-f]+|[0-9]+)(\n|$)")
    message(FATAL_ERROR "llvm-readobj printed no ${name}")
  endif()
  math(EXPR value "${CMAKE_MATCH_2}")
  set(${out} ${value} PARENT_SCOPE)
endfunction()
