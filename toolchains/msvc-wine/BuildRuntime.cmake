# Included by MakeRuntime.cmake (run by .ci/setup msvc-wine): makes, in
# AMBREL_MSVC_RUNTIME/lib, what MSVC's installation would give the linker.
#   <name>.lib for each of Wine's system import archives (lib<name>.a);
#   import libraries of the C++ runtime DLLs from their export tables
#   (ImportLibraries.cmake);
#   ambrel_msvc_runtime.lib: the start-up unit and the stack probe (runtime/);
#   ambrel_msvc_stl.lib: the STL sources MSVC's static import library holds;
#   delayimp.lib: the delay-load helper (runtime/DelayLoadHelper.cpp).
# Each is remade only when what it is made from is newer.
set(_rt_lib "${AMBREL_MSVC_RUNTIME}/lib")
set(_rt_obj "${AMBREL_MSVC_RUNTIME}/obj")
file(MAKE_DIRECTORY "${_rt_lib}" "${_rt_obj}")

file(GLOB _wine_archives "${AMBREL_WINE_PE_DIR}/lib*.a")
foreach(archive IN LISTS _wine_archives)
  get_filename_component(name "${archive}" NAME_WE)
  string(REGEX REPLACE "^lib" "" name "${name}")
  if(NOT EXISTS "${_rt_lib}/${name}.lib")
    file(CREATE_LINK "${archive}" "${_rt_lib}/${name}.lib" SYMBOLIC)
  endif()
endforeach()

set(_runtime_dlls msvcp140 msvcp140_1 msvcp140_2 msvcp140_atomic_wait vcruntime140 vcruntime140_1 ucrtbase)
if("${AMBREL_MSVC_GLUE}/ImportLibraries.cmake" IS_NEWER_THAN "${_rt_lib}/ucrtbase.lib")
  string(JOIN "|" _names ${_runtime_dlls})
  execute_process(COMMAND ${CMAKE_COMMAND} -DDLL_DIR=${AMBREL_WINE_PE_DIR} -DOUT_DIR=${_rt_lib}
                          -DREADOBJ=/usr/bin/llvm-readobj-16 -DDLLTOOL=/usr/bin/llvm-dlltool-16 "-DNAMES=${_names}"
                          -P "${AMBREL_MSVC_GLUE}/ImportLibraries.cmake"
                  RESULT_VARIABLE _rc)
  if(NOT _rc EQUAL 0)
    message(FATAL_ERROR "msvc-wine: the runtime's import libraries could not be made")
  endif()
endif()

# ambrel_msvc_runtime_archive(<archive> <flags> <source>...): compiles the
# sources with clang-cl and archives them when any source or glue header is
# newer than the archive.
function(ambrel_msvc_runtime_archive archive flags)
  file(GLOB glue_headers "${AMBREL_MSVC_GLUE}/include/*.h")
  set(stale FALSE)
  foreach(input IN LISTS ARGN glue_headers)
    if("${input}" IS_NEWER_THAN "${_rt_lib}/${archive}")
      set(stale TRUE)
    endif()
  endforeach()
  if(NOT stale)
    return()
  endif()
  message(STATUS "msvc-wine: making ${archive}")
  separate_arguments(compile UNIX_COMMAND "${_ambrel_msvc_compile}")
  set(objects "")
  file(MAKE_DIRECTORY "${_rt_obj}/${archive}")
  foreach(source IN LISTS ARGN)
    get_filename_component(name "${source}" NAME_WE)
    set(object "${_rt_obj}/${archive}/${name}.obj")
    execute_process(COMMAND "${CMAKE_CXX_COMPILER}" ${compile} /nologo /c /std:c++20 /EHsc /MD /O2 /Z7 ${flags}
                            "/Fo${object}" -- "${source}"
                    RESULT_VARIABLE rc ERROR_VARIABLE errors OUTPUT_VARIABLE errors)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "msvc-wine: ${source} does not compile:\n${errors}")
    endif()
    list(APPEND objects "${object}")
  endforeach()
  execute_process(COMMAND "${CMAKE_AR}" /nologo "/out:${_rt_lib}/${archive}" ${objects} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "msvc-wine: ${archive} could not be archived")
  endif()
endfunction()

# What the start-up code provides must not call it: no cookie checks, no
# guard checks, no thread-safe statics of its own.
# (Flags and sources in variables: BuildDebugRuntime.cmake compiles the same
# with /MDd.)
set(_rt_startup_flags "/GS-;/guard:cf-;/Zc:threadSafeInit-;/W4")
set(_rt_startup_sources
  "${AMBREL_MSVC_GLUE}/runtime/Startup.cpp"
  "${AMBREL_MSVC_GLUE}/runtime/StackProbe.cpp"
  "${AMBREL_MSVC_GLUE}/runtime/ProgramEntry.cpp"
  "${AMBREL_MSVC_GLUE}/runtime/WideProgramEntry.cpp"
  "${AMBREL_MSVC_GLUE}/runtime/DefaultDllMain.cpp")
set(_rt_stl_flags "/D_ENFORCE_ONLY_CORE_HEADERS;-I${AMBREL_MSVC_STL}/src;/W0")
set(_rt_stl_sources
  "${AMBREL_MSVC_STL}/src/filesystem.cpp"
  "${AMBREL_MSVC_STL}/src/sharedmutex.cpp"
  "${AMBREL_MSVC_STL}/src/syserror_import_lib.cpp"
  "${AMBREL_MSVC_STL}/src/xcharconv_ryu_tables.cpp"
  "${AMBREL_MSVC_STL}/src/xcharconv_tables_double.cpp"
  "${AMBREL_MSVC_STL}/src/xcharconv_tables_float.cpp")
ambrel_msvc_runtime_archive(ambrel_msvc_runtime.lib "${_rt_startup_flags}" ${_rt_startup_sources})
ambrel_msvc_runtime_archive(ambrel_msvc_stl.lib "${_rt_stl_flags}" ${_rt_stl_sources})

ambrel_msvc_runtime_archive(delayimp.lib "/W4" "${AMBREL_MSVC_GLUE}/runtime/DelayLoadHelper.cpp")
