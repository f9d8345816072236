# What the two cross toolchains for 64-bit Windows from Debian set alike
# (included by toolchain-clang-mingw.cmake and toolchain-gcc-mingw.cmake): the
# target, the mingw-w64 binutils, where target libraries are found, and Wine
# to run the programs. Each toolchain adds its compilers and link flags.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(AMBREL_MINGW_TRIPLE x86_64-w64-mingw32)
set(AMBREL_MINGW_GCC_DIR /usr/lib/gcc/${AMBREL_MINGW_TRIPLE}/12-posix)

set(CMAKE_RC_COMPILER ${AMBREL_MINGW_TRIPLE}-windres)
set(CMAKE_AR /usr/bin/${AMBREL_MINGW_TRIPLE}-ar)
set(CMAKE_RANLIB /usr/bin/${AMBREL_MINGW_TRIPLE}-ranlib)
set(CMAKE_DLLTOOL /usr/bin/${AMBREL_MINGW_TRIPLE}-dlltool)
# GNU binutils for the PE files GNU ld writes: llvm-strip, which CMake would
# pick otherwise, drops .text from them.
set(CMAKE_STRIP /usr/bin/${AMBREL_MINGW_TRIPLE}-strip)
set(CMAKE_OBJCOPY /usr/bin/${AMBREL_MINGW_TRIPLE}-objcopy)

# Every module links the shared GCC runtime, so that Ambrel.dll and its host
# share one C++ runtime (its std::locale global, its heap, its exception
# types): the library hands standard-library objects across its exports.
# -shared-libgcc keeps one unwinder for exceptions thrown across the boundary.
# Each toolchain puts its linker choice in front.
set(AMBREL_MINGW_RUNTIME_LINK "-shared-libgcc -pthread")
# The runtime DLLs those modules load, shipped beside Ambrel.dll.
set(AMBREL_RUNTIME_DLLS
    ${AMBREL_MINGW_GCC_DIR}/libstdc++-6.dll
    ${AMBREL_MINGW_GCC_DIR}/libgcc_s_seh-1.dll
    /usr/${AMBREL_MINGW_TRIPLE}/lib/libwinpthread-1.dll)

# Stack-buffer checks on functions with local arrays (cmake/AmbrelHardening.cmake
# applies them). mingw-w64 10's runtime has no __stack_chk_guard or
# __stack_chk_fail, and GCC's libssp seeds its canary with CryptGenRandom at
# load: the project links a runtime of its own (common/StackProtector.c).
set(AMBREL_STACK_PROTECTOR -fstack-protector-strong)

set(CMAKE_FIND_ROOT_PATH /usr/${AMBREL_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Every target program runs under Wine, in the build tree's own prefix.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh)
