# Test build of the MSVC ABI on Debian, run under Wine (preset msvc-wine):
# clang-16 in cl mode for x86_64-pc-windows-msvc, Microsoft's STL
# (third_party/microsoft-stl), Wine's C runtime and Windows SDK headers
# (libwine-dev) and runtime DLLs (msvcp140, vcruntime140, ucrtbase), lld-link.
# What MSVC's own headers and static libraries would add comes from
# toolchains/msvc-wine (its README says what each file stands in for); the
# runtime library, the import libraries and the clang-cl name are made once
# by `bash .ci/setup msvc-wine` (toolchains/msvc-wine/MakeRuntime.cmake) in
# the source tree's build/msvc-wine-runtime, and only read here, by every
# project that uses this file (the library, the package consumer). This file
# changes nothing on disk. The package Windows hosts use is still built with
# Visual Studio 2022 (preset msvc).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

get_filename_component(AMBREL_SOURCE_ROOT "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(AMBREL_MSVC_GLUE "${AMBREL_SOURCE_ROOT}/toolchains/msvc-wine")
set(AMBREL_MSVC_STL "${AMBREL_SOURCE_ROOT}/third_party/microsoft-stl/stl")
set(AMBREL_MSVC_RUNTIME "${AMBREL_SOURCE_ROOT}/build/msvc-wine-runtime")
set(AMBREL_WINE_INCLUDE /usr/include/wine/wine)
set(AMBREL_WINE_PE_DIR /usr/lib/x86_64-linux-gnu/wine/x86_64-windows)

# clang picks cl mode from its own name (a link MakeRuntime.cmake makes); CMake
# then treats it as clang-cl.
if(AMBREL_MAKING_MSVC_RUNTIME)
  file(MAKE_DIRECTORY "${AMBREL_MSVC_RUNTIME}/bin")
  file(CREATE_LINK /usr/bin/clang-16 "${AMBREL_MSVC_RUNTIME}/bin/clang-cl" SYMBOLIC)
elseif(NOT EXISTS "${AMBREL_MSVC_RUNTIME}/bin/clang-cl" OR NOT EXISTS "${AMBREL_MSVC_RUNTIME}/lib/ambrel_msvc_runtime.lib")
  message(FATAL_ERROR "The MSVC-ABI runtime is not made yet: run `bash .ci/setup msvc-wine`, or "
                      "`cmake -P ${AMBREL_MSVC_GLUE}/MakeRuntime.cmake` (again after changing ${AMBREL_MSVC_GLUE})")
endif()
set(CMAKE_C_COMPILER "${AMBREL_MSVC_RUNTIME}/bin/clang-cl")
set(CMAKE_CXX_COMPILER "${AMBREL_MSVC_RUNTIME}/bin/clang-cl")
set(CMAKE_LINKER /usr/bin/lld-link-16)
set(CMAKE_AR /usr/bin/llvm-lib-16)
set(CMAKE_RC_COMPILER /usr/bin/llvm-rc-16)
set(CMAKE_MT "${AMBREL_MSVC_GLUE}/mt.sh")
set(CMAKE_RC_FLAGS_INIT "/X /I ${AMBREL_WINE_INCLUDE}/windows /I ${AMBREL_WINE_INCLUDE}/msvcrt")

# The compilers' checks compile only: linking needs the runtime MakeRuntime.cmake makes.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

# /X: no include folders from the environment. The STL first, then the glue
# headers (they wrap Wine's with #include_next), then Wine's C runtime and SDK.
# The STL's vectorised algorithms live in MSVC's static import library, which
# this build does not have, so they are off.
set(_ambrel_msvc_compile
    "--target=x86_64-pc-windows-msvc -fms-compatibility-version=19.38 /X -imsvc${AMBREL_MSVC_STL}/inc -imsvc${AMBREL_MSVC_GLUE}/include -imsvc${AMBREL_WINE_INCLUDE}/msvcrt -imsvc${AMBREL_WINE_INCLUDE}/windows /D_USE_STD_VECTOR_ALGORITHMS=0")
set(CMAKE_C_FLAGS_INIT "${_ambrel_msvc_compile}")
set(CMAKE_CXX_FLAGS_INIT "${_ambrel_msvc_compile}")

# Every image links the start-up library and the runtime's import libraries
# instead of MSVC's default libraries; the system libraries are Wine's import
# archives under the names MSVC's linker looks for.
# A Debug tree (CMAKE_BUILD_TYPE=Debug: /MDd) links the debug runtime's
# pieces (toolchains/msvc-wine/BuildDebugRuntime.cmake).
if(CMAKE_BUILD_TYPE STREQUAL "Debug")
  set(_ambrel_d d)
  set(_ambrel_archive _debug)
else()
  set(_ambrel_d "")
  set(_ambrel_archive "")
endif()
set(AMBREL_LINKED_INTO_EVERY_IMAGE
    "${AMBREL_MSVC_RUNTIME}/lib/ambrel_msvc_runtime${_ambrel_archive}.lib"
    "${AMBREL_MSVC_RUNTIME}/lib/ambrel_msvc_stl${_ambrel_archive}.lib")
set(AMBREL_MSVC_RUNTIME_LIBS
    ${AMBREL_LINKED_INTO_EVERY_IMAGE}
    msvcp140${_ambrel_d}.lib msvcp140_1${_ambrel_d}.lib msvcp140_2${_ambrel_d}.lib msvcp140${_ambrel_d}_atomic_wait.lib
    vcruntime140${_ambrel_d}.lib vcruntime140_1${_ambrel_d}.lib ucrtbase${_ambrel_d}.lib kernel32.lib ntdll.lib)
# CMake's own default list follows; set in the cache, since CMake's MSVC
# platform code would otherwise put its default list alone there.
string(JOIN " " _ambrel_msvc_libs ${AMBREL_MSVC_RUNTIME_LIBS} kernel32.lib user32.lib gdi32.lib winspool.lib
       shell32.lib ole32.lib oleaut32.lib uuid.lib comdlg32.lib advapi32.lib)
set(CMAKE_C_STANDARD_LIBRARIES "${_ambrel_msvc_libs}" CACHE STRING "Libraries every C image links" FORCE)
set(CMAKE_CXX_STANDARD_LIBRARIES "${_ambrel_msvc_libs}" CACHE STRING "Libraries every C++ image links" FORCE)
set(_ambrel_msvc_link "/nodefaultlib /libpath:${AMBREL_MSVC_RUNTIME}/lib")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_ambrel_msvc_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_ambrel_msvc_link} /entry:_DllMainCRTStartup")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_ambrel_msvc_link} /entry:_DllMainCRTStartup")

# Every target program runs under Wine, in the build tree's own prefix.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh)
