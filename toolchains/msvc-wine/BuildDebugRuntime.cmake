# Included by MakeRuntime.cmake after BuildRuntime.cmake:
# what a Debug configuration (/MDd, _DEBUG, _ITERATOR_DEBUG_LEVEL=2) links
# instead, made in AMBREL_MSVC_RUNTIME/lib beside the release pieces:
#   import libraries named after Visual C++'s debug runtime DLLs (msvcp140d,
#   vcruntime140d, vcruntime140_1d, ucrtbased, ...), made from the release
#   DLLs' export lists plus the debug-only entry points of ucrtbased and
#   msvcp140d that the STL and the C runtime headers call under _DEBUG;
#   ambrel_msvc_runtime_debug.lib and ambrel_msvc_stl_debug.lib: the start-up
#   unit and the STL sources compiled with /MDd (the STL records the runtime
#   and iterator level in every object, and the linker refuses a mix).
# Wine has none of these DLLs: an image linked so is checked here, not run.
set(_rt_debug_names
    "msvcp140=msvcp140d" "msvcp140_1=msvcp140_1d" "msvcp140_2=msvcp140_2d"
    "msvcp140_atomic_wait=msvcp140d_atomic_wait" "vcruntime140=vcruntime140d"
    "vcruntime140_1=vcruntime140_1d" "ucrtbase=ucrtbased")
# Debug-only exports of ucrtbased.dll (Microsoft's CRT debug routines) that
# the debug STL and CRT headers reach.
set(_rt_ucrtbased_extra _CrtDbgReport _CrtDbgReportW _invalid_parameter _malloc_dbg _calloc_dbg _realloc_dbg
    _free_dbg _msize_dbg _CrtSetReportMode _CrtSetReportFile _CrtSetDbgFlag _CrtIsValidHeapPointer)
# Debug-only exports of msvcp140d.dll the debug STL headers import: the
# operator new and delete of std::_Crt_new_delete (facets and other CRT blocks).
set(_rt_msvcp140d_extra "??2_Crt_new_delete@std@@SAPEAX_K@Z" "??3_Crt_new_delete@std@@SAXPEAX@Z")
foreach(pair IN LISTS _rt_debug_names)
  string(REPLACE "=" ";" pair "${pair}")
  list(GET pair 0 release)
  list(GET pair 1 debug)
  if(NOT EXISTS "${_rt_lib}/${debug}.lib" OR "${_rt_lib}/${release}.def" IS_NEWER_THAN "${_rt_lib}/${debug}.lib"
     OR "${CMAKE_CURRENT_LIST_FILE}" IS_NEWER_THAN "${_rt_lib}/${debug}.lib")
    file(READ "${_rt_lib}/${release}.def" def)
    string(REPLACE "LIBRARY ${release}.dll\n" "LIBRARY ${debug}.dll\n" def "${def}")
    if(release STREQUAL "ucrtbase")
      set(extras ${_rt_ucrtbased_extra})
    elseif(release STREQUAL "msvcp140")
      set(extras ${_rt_msvcp140d_extra})
    else()
      set(extras "")
    endif()
    foreach(extra IN LISTS extras)
      string(APPEND def "  \"${extra}\"\n")
    endforeach()
    file(WRITE "${_rt_lib}/${debug}.def" "${def}")
    execute_process(COMMAND /usr/bin/llvm-dlltool-16 -m i386:x86-64 -d "${_rt_lib}/${debug}.def" -l "${_rt_lib}/${debug}.lib"
                    RESULT_VARIABLE _rc)
    if(NOT _rc EQUAL 0)
      message(FATAL_ERROR "msvc-wine: ${debug}.lib could not be made")
    endif()
  endif()
endforeach()

ambrel_msvc_runtime_archive(ambrel_msvc_runtime_debug.lib "${_rt_startup_flags};/MDd" ${_rt_startup_sources})
ambrel_msvc_runtime_archive(ambrel_msvc_stl_debug.lib "${_rt_stl_flags};/MDd" ${_rt_stl_sources})
