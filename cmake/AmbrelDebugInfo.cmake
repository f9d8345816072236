# ambrel_add_pdb(<target>)
# Gives a DLL or program a PDB of its own beside it, named in the image by file
# name only, so that the Debug Help library finds it beside the module (or on
# the symbol path) wherever the module is installed. Windows' dbghelp reads
# CodeView/PDB only, never DWARF.
#
# MSVC writes the PDB itself (RelWithDebInfo and Debug); only the recorded
# path changes. The clang/mingw cross build links the target with lld, which
# turns the objects' CodeView into a PDB (GNU ld cannot), then strips the DWARF
# that GCC's runtime archives bring along with llvm-strip: GNU strip would set
# IMAGE_FILE_DEBUG_STRIPPED, after which Debug Help ignores the PDB.
# Targets linked with dlltool's delay import libraries must stay on GNU ld.
function(ambrel_add_pdb target)
  if(MSVC)
    target_link_options(${target} PRIVATE "$<$<CONFIG:Debug,RelWithDebInfo>:/PDBALTPATH:%_PDB%>")
  elseif(AMBREL_LLD AND AMBREL_LLVM_STRIP)
    # An empty --pdb= names the PDB after the output file (Ambrel.pdb beside
    # Ambrel.dll); lld's own option -pdbaltpath records that name alone.
    # -Brepro: the image's time stamp is a hash of its contents rather than
    # the link time, so two links of the same objects give the same image and
    # the same symbol-store folder (lld's PDB GUID is a content hash anyway).
    target_link_options(${target} PRIVATE
      -fuse-ld=lld "--ld-path=${AMBREL_LLD}" "-Wl,--pdb=" "-Wl,--Xlink=-pdbaltpath:%_PDB%" "-Wl,--Xlink=-Brepro")
    add_custom_command(TARGET ${target} POST_BUILD
      COMMAND "${AMBREL_LLVM_STRIP}" --strip-debug "$<TARGET_FILE:${target}>"
      VERBATIM)
  endif()
endfunction()

# The PDB file ambrel_add_pdb gives a target (empty when it gives none).
function(ambrel_pdb_file target out)
  if(MSVC)
    set(${out} "$<TARGET_PDB_FILE:${target}>" PARENT_SCOPE)
  elseif(AMBREL_LLD AND AMBREL_LLVM_STRIP)
    set(${out} "$<TARGET_FILE_DIR:${target}>/$<TARGET_FILE_BASE_NAME:${target}>.pdb" PARENT_SCOPE)
  else()
    set(${out} "" PARENT_SCOPE)
  endif()
endfunction()
