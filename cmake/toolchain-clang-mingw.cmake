# Cross build for 64-bit Windows from Debian: clang-16 front end, mingw-w64
# runtime, GCC 12's libstdc++ (posix threads flavour) and GNU ld; Ambrel.dll
# itself is linked by lld-16, which writes its PDB (cmake/AmbrelDebugInfo.cmake).
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw-common.cmake)

set(CMAKE_C_COMPILER clang-16)
set(CMAKE_CXX_COMPILER clang++-16)
set(CMAKE_C_COMPILER_TARGET ${AMBREL_MINGW_TRIPLE})
set(CMAKE_CXX_COMPILER_TARGET ${AMBREL_MINGW_TRIPLE})

# The linker and strip tool of modules that carry a PDB: lld-16 (Debian's
# default lld-14 rejects clang-16's objects) and llvm-strip-16.
set(AMBREL_LLD /usr/bin/ld.lld-16)
set(AMBREL_LLVM_STRIP /usr/bin/llvm-strip-16)

# Debug information in both forms: CodeView, which lld turns into a PDB that
# Windows' dbghelp reads, and DWARF 4 for the programs GNU ld links (it drops
# CodeView, and fails on DWARF 5's .debug_line_str relocations). The project
# adds them as compile options rather than to the cached flags, so a build
# tree configured before keeps getting them.
set(AMBREL_DEBUG_FORMATS -gcodeview -gdwarf-4)
# clang does not find Debian's "12-posix" C++ headers on its own.
set(CMAKE_CXX_FLAGS_INIT
    "-nostdinc++ -isystem ${AMBREL_MINGW_GCC_DIR}/include/c++ -isystem ${AMBREL_MINGW_GCC_DIR}/include/c++/${AMBREL_MINGW_TRIPLE} -fms-extensions -Wno-unused-command-line-argument")
set(CMAKE_C_FLAGS_INIT "-fms-extensions -Wno-unused-command-line-argument")
# GNU ld by default: lld mislays the delay IAT of dlltool's delay import
# libraries, which the test hosts and the sample host use.
set(_ambrel_link "-fuse-ld=bfd --ld-path=/usr/bin/${AMBREL_MINGW_TRIPLE}-ld -L${AMBREL_MINGW_GCC_DIR} ${AMBREL_MINGW_RUNTIME_LINK}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_ambrel_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_ambrel_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_ambrel_link}")
