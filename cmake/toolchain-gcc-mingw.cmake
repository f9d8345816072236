# Cross build for 64-bit Windows from Debian with GCC 12's own mingw-w64
# compilers (posix threads flavour) and GNU ld throughout. Used for coverage
# (the coverage preset): clang-16 has no profile runtime for this target.
# GCC writes no CodeView, so no module of this build gets a PDB.
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw-common.cmake)

set(CMAKE_C_COMPILER ${AMBREL_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${AMBREL_MINGW_TRIPLE}-g++-posix)

# DWARF 4, which Wine's Debug Help reads for the call-stack frames (GCC 12
# writes DWARF 5 by default).
set(AMBREL_DEBUG_FORMATS -gdwarf-4)

set(CMAKE_EXE_LINKER_FLAGS_INIT "${AMBREL_MINGW_RUNTIME_LINK}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${AMBREL_MINGW_RUNTIME_LINK}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${AMBREL_MINGW_RUNTIME_LINK}")
