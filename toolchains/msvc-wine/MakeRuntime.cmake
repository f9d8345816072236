# cmake -P toolchains/msvc-wine/MakeRuntime.cmake
# Makes, once, what the msvc-wine toolchain file (cmake/toolchain-clang-msvc-wine.cmake)
# reads and never writes: in the source tree's build/msvc-wine-runtime, the
# clang-cl name for clang-16 (bin/) and the runtime and import libraries
# (lib/, BuildRuntime.cmake). .ci/setup runs it before configuring the
# msvc-wine preset; run it again after changing this folder (each library is
# remade only when what it is made from is newer).
get_filename_component(AMBREL_MSVC_GLUE "${CMAKE_CURRENT_LIST_DIR}" ABSOLUTE)
get_filename_component(AMBREL_SOURCE_ROOT "${AMBREL_MSVC_GLUE}/../.." ABSOLUTE)
# The same settings the toolchain file gives a configure.
set(AMBREL_MAKING_MSVC_RUNTIME TRUE)
include("${AMBREL_SOURCE_ROOT}/cmake/toolchain-clang-msvc-wine.cmake")
include("${AMBREL_MSVC_GLUE}/BuildRuntime.cmake")
include("${AMBREL_MSVC_GLUE}/BuildDebugRuntime.cmake")
