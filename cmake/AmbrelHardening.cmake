# The exploit mitigations every shipped image (Ambrel.dll, ambrel-diagnose.exe)
# carries; tests/package/CheckImages.cmake reads them back from the images.
#
# Both linkers of the mingw build set DYNAMIC_BASE, HIGH_ENTROPY_VA and
# NX_COMPAT on their own; what they do not do is added here. Control-flow guard
# needs runtime support (__guard_dispatch_icall_fptr, the load-config guard
# fields) that mingw-w64 10 lacks, so only the MSVC build has it.
if(MSVC)
  # /GS is on by default. /sdl adds its stricter checks, and makes some
  # warnings (deprecated CRT calls among them) errors: only for the code that
  # ships, the library's floors and ambrel-diagnose, not for the tests and
  # GoogleTest. Included after AmbrelFloors.cmake, which names the floors.
  set(_ambrel_shipped_code Ambrel ambrel_diagnose ambrel_diagnose_checks)
  foreach(floor IN LISTS AMBREL_FLOORS)
    list(APPEND _ambrel_shipped_code ambrel_${floor})
  endforeach()
  add_compile_options(/guard:cf "$<$<IN_LIST:$<TARGET_PROPERTY:NAME>,${_ambrel_shipped_code}>:/sdl>")
  add_link_options(/guard:cf /CETCOMPAT /DYNAMICBASE /HIGHENTROPYVA /NXCOMPAT)
elseif(AMBREL_STACK_PROTECTOR)
  # Every object, so the canaries are in the library's floors, in
  # ambrel-diagnose and in the programs that test them alike. The canary and
  # the check routine are the library's own (common/StackProtector.c), seeded
  # without loading anything; GCC's libssp would load rsaenh.dll at attach.
  add_library(ambrel_stack_protector STATIC ${PROJECT_SOURCE_DIR}/common/StackProtector.c)
  target_compile_options(ambrel_stack_protector PRIVATE ${AMBREL_WARNING_FLAGS})
  target_compile_definitions(ambrel_stack_protector PRIVATE WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0A00)
  add_compile_options(${AMBREL_STACK_PROTECTOR})
endif()

# ambrel_link_stack_protector(<directory>)
# Links the canary's runtime into every program and DLL defined in
# <directory> and below, target by target rather than through a
# directory-wide link_libraries, so a host tree that adds this project keeps
# its own link lines. From the build tree only: a host of the package links it
# into nothing. Call it once, after the last target is defined.
function(ambrel_link_stack_protector directory)
  if(NOT TARGET ambrel_stack_protector)
    return()
  endif()
  get_property(targets DIRECTORY ${directory} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    get_target_property(imported ${target} IMPORTED)
    if(type MATCHES "^(EXECUTABLE|SHARED_LIBRARY|MODULE_LIBRARY)$" AND NOT imported)
      target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:ambrel_stack_protector>)
    endif()
  endforeach()
  get_property(subdirectories DIRECTORY ${directory} PROPERTY SUBDIRECTORIES)
  foreach(subdirectory IN LISTS subdirectories)
    ambrel_link_stack_protector(${subdirectory})
  endforeach()
endfunction()

# ambrel_harden_image(<target>)
# What the target's linker can add beyond the defaults: CET shadow-stack
# compatibility, which lld records in the image (GNU ld 2.40 cannot). Call it
# after ambrel_add_pdb, which picks lld for the target.
function(ambrel_harden_image target)
  if(NOT MSVC AND AMBREL_LLD AND AMBREL_LLVM_STRIP)
    target_link_options(${target} PRIVATE "-Wl,--Xlink=-cetcompat")
  endif()
endfunction()
