# Cross build for 64-bit Windows from Debian: clang-16 front end, mingw-w64
# runtime, GCC 12's libstdc++ (posix threads flavour) and GNU ld.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(AMBREL_MINGW_TRIPLE x86_64-w64-mingw32)
set(AMBREL_MINGW_GCC_DIR /usr/lib/gcc/${AMBREL_MINGW_TRIPLE}/12-posix)

set(CMAKE_C_COMPILER clang-16)
set(CMAKE_CXX_COMPILER clang++-16)
set(CMAKE_C_COMPILER_TARGET ${AMBREL_MINGW_TRIPLE})
set(CMAKE_CXX_COMPILER_TARGET ${AMBREL_MINGW_TRIPLE})
set(CMAKE_RC_COMPILER ${AMBREL_MINGW_TRIPLE}-windres)
set(CMAKE_AR /usr/bin/${AMBREL_MINGW_TRIPLE}-ar)
set(CMAKE_RANLIB /usr/bin/${AMBREL_MINGW_TRIPLE}-ranlib)
set(CMAKE_DLLTOOL /usr/bin/${AMBREL_MINGW_TRIPLE}-dlltool)
# GNU binutils for the PE files GNU ld writes: llvm-strip, which CMake would
# pick otherwise, drops .text from them.
set(CMAKE_STRIP /usr/bin/${AMBREL_MINGW_TRIPLE}-strip)
set(CMAKE_OBJCOPY /usr/bin/${AMBREL_MINGW_TRIPLE}-objcopy)

# clang does not find Debian's "12-posix" C++ headers on its own.
set(CMAKE_CXX_FLAGS_INIT
    "-nostdinc++ -isystem ${AMBREL_MINGW_GCC_DIR}/include/c++ -isystem ${AMBREL_MINGW_GCC_DIR}/include/c++/${AMBREL_MINGW_TRIPLE} -fms-extensions -Wno-unused-command-line-argument")
set(CMAKE_C_FLAGS_INIT "-fms-extensions -Wno-unused-command-line-argument")
# lld rejects clang-16 objects and mislays the delay IAT; GNU ld works.
# -static keeps the imports to system DLLs; -pthread satisfies libstdc++'s pthread use.
set(_ambrel_link "-fuse-ld=bfd --ld-path=/usr/bin/${AMBREL_MINGW_TRIPLE}-ld -L${AMBREL_MINGW_GCC_DIR} -static -pthread")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_ambrel_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_ambrel_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_ambrel_link}")

set(CMAKE_FIND_ROOT_PATH /usr/${AMBREL_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Packages too: the build machine's own (Linux) GTest must not be taken.
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Every target program runs under Wine, in the build tree's own prefix.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh)
