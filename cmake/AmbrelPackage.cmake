# Installation layout, CMake package and ZIP of Ambrel for host builds:
#   bin/Ambrel.dll and bin/Ambrel.pdb, its debug information (both toolchains),
#   bin/ambrel-diagnose.exe and bin/ambrel-diagnose.pdb, the support engineers'
#   look at a machine,
#   bin/ the shared C++ runtime DLLs of the mingw-w64 build,
#   lib/ import library, include/Ambrel.h,
#   lib/cmake/Ambrel/ package files (find_package(Ambrel CONFIG), Ambrel::Ambrel),
#   THIRD-PARTY-NOTICES.txt, the licences of what it ships or links in.
include(CMakePackageConfigHelpers)
include(${CMAKE_CURRENT_LIST_DIR}/AmbrelDebugInfo.cmake)

# Ambrel.pdb beside Ambrel.dll, named in the DLL by file name only; lld, which
# writes it, also marks the DLL CET-compatible. ambrel-diagnose gets the same
# in diagnose/CMakeLists.txt.
ambrel_add_pdb(Ambrel)
ambrel_pdb_file(Ambrel AMBREL_PDB_FILE)
ambrel_harden_image(Ambrel)
ambrel_pdb_file(ambrel_diagnose AMBREL_DIAGNOSE_PDB_FILE)

set(AMBREL_INSTALL_BINDIR bin)
set(AMBREL_INSTALL_LIBDIR lib)
set(AMBREL_INSTALL_INCLUDEDIR include)
set(AMBREL_INSTALL_CMAKEDIR lib/cmake/Ambrel)

# Version resources: company, product, description and the project's version,
# with the build number as its fourth field, so two builds of one version can
# be told apart (CI passes its run number; a build by hand is 0).
set(AMBREL_BUILD_NUMBER 0 CACHE STRING "Fourth field of the shipped images' file version (0 to 65535)")
if(NOT AMBREL_BUILD_NUMBER MATCHES "^[0-9]+$" OR AMBREL_BUILD_NUMBER GREATER 65535)
  message(FATAL_ERROR "AMBREL_BUILD_NUMBER must be a number from 0 to 65535, not '${AMBREL_BUILD_NUMBER}'")
endif()
set(AMBREL_PRODUCT_NAME "Ambrel")
# ambrel_add_version_resource(<target> <VFT_DLL|VFT_APP> <internal name> <file name> <description> [<manifest>])
# The manifest, when given, is configured beside the resource and embedded
# with it (MSVC's linker merges it into the one it writes).
function(ambrel_add_version_resource target filetype internal_name file_name description)
  set(AMBREL_RC_FILETYPE ${filetype})
  set(AMBREL_RC_INTERNAL_NAME "${internal_name}")
  set(AMBREL_RC_FILENAME "${file_name}")
  set(AMBREL_RC_DESCRIPTION "${description}")
  set(AMBREL_RC_EXTRA "")
  set(rc ${PROJECT_BINARY_DIR}/resources/${target}.rc)
  if(ARGC GREATER 5)
    set(manifest ${PROJECT_BINARY_DIR}/resources/${internal_name}.manifest)
    configure_file(${ARGV5} ${manifest} @ONLY)
    if(MSVC)
      target_sources(${target} PRIVATE ${manifest})
    else()
      set(AMBREL_RC_EXTRA "1 24 \"${manifest}\"  // RT_MANIFEST, the program's own")
    endif()
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/resources/VersionInfo.rc.in ${rc} @ONLY)
  target_sources(${target} PRIVATE ${rc})
endfunction()
ambrel_add_version_resource(Ambrel VFT_DLL Ambrel Ambrel.dll "${PROJECT_DESCRIPTION}")
ambrel_add_version_resource(ambrel_diagnose VFT_APP ambrel-diagnose ambrel-diagnose.exe
  "Ambrel support tool: what InitializeQel would meet on this machine"
  ${PROJECT_SOURCE_DIR}/resources/ambrel-diagnose.manifest.in)
if(TARGET ambrel_diagnose_sandboxed)
  ambrel_add_version_resource(ambrel_diagnose_sandboxed VFT_APP ambrel-diagnose-sandboxed ambrel-diagnose-sandboxed.exe
    "Ambrel support tool, test build (registry sandbox)" ${PROJECT_SOURCE_DIR}/resources/ambrel-diagnose.manifest.in)
endif()

# The package's flavour, named in its file name and checked by its CMake
# package against the host's compiler.
if(MSVC)
  set(AMBREL_FLAVOUR msvc)
  set(AMBREL_FLAVOUR_COMPILERS "MSVC|Clang")
  set(AMBREL_FLAVOUR_TEXT "the MSVC ABI (Microsoft's STL, /MD)")
else()
  set(AMBREL_FLAVOUR mingw)
  set(AMBREL_FLAVOUR_COMPILERS "GNU|Clang")
  set(AMBREL_FLAVOUR_TEXT "mingw-w64 (GCC 12's libstdc++-6.dll, shipped beside Ambrel.dll)")
endif()
set(AMBREL_RUNTIME_NAMES "")
foreach(runtime_dll IN LISTS AMBREL_RUNTIME_DLLS)
  get_filename_component(runtime_name ${runtime_dll} NAME)
  list(APPEND AMBREL_RUNTIME_NAMES ${runtime_name})
endforeach()

# Install rules, the CMake package and the ZIP only where Ambrel is the
# top-level project or asked for them: a host that adds Ambrel with
# add_subdirectory installs and packs what it chooses, and gets no
# CPackConfig.cmake of ours.
if(AMBREL_INSTALL)
  # Component ambrel_library: the DLL, its import library, its PDB and the
  # targets file, all a second configuration's tree adds to a package.
  install(TARGETS Ambrel EXPORT AmbrelTargets
    RUNTIME DESTINATION ${AMBREL_INSTALL_BINDIR} COMPONENT ambrel_library
    LIBRARY DESTINATION ${AMBREL_INSTALL_BINDIR} COMPONENT ambrel_library
    ARCHIVE DESTINATION ${AMBREL_INSTALL_LIBDIR} COMPONENT ambrel_library)
  install(FILES ${PROJECT_SOURCE_DIR}/include/Ambrel.h DESTINATION ${AMBREL_INSTALL_INCLUDEDIR})
  # The licence texts of the third-party pieces, at the package's top.
  include(${CMAKE_CURRENT_LIST_DIR}/AmbrelNotices.cmake)
  if(AMBREL_NOTICES_FILE)
    install(FILES ${AMBREL_NOTICES_FILE} DESTINATION .)
  endif()
  install(TARGETS ambrel_diagnose RUNTIME DESTINATION ${AMBREL_INSTALL_BINDIR})
  # The shared C++ runtime the library and its host share (mingw-w64 only; an
  # MSVC host ships Microsoft's redistributable runtime as it always does), as
  # the build copies it beside its programs: without DWARF.
  if(AMBREL_SHIPPED_RUNTIME_DLLS)
    install(FILES ${AMBREL_SHIPPED_RUNTIME_DLLS} DESTINATION ${AMBREL_INSTALL_BINDIR})
  endif()

  if(AMBREL_PDB_FILE)
    install(FILES "${AMBREL_PDB_FILE}" DESTINATION ${AMBREL_INSTALL_BINDIR} OPTIONAL COMPONENT ambrel_library)
  endif()
  if(AMBREL_DIAGNOSE_PDB_FILE)
    install(FILES "${AMBREL_DIAGNOSE_PDB_FILE}" DESTINATION ${AMBREL_INSTALL_BINDIR} OPTIONAL)
  endif()

  install(EXPORT AmbrelTargets NAMESPACE Ambrel:: DESTINATION ${AMBREL_INSTALL_CMAKEDIR} COMPONENT ambrel_library)
  if(NOT MSVC)
    # mingw-w64 hosts: delay-import libraries that __FUnloadDelayLoadedDLL2 can
    # unload from (dlltool's cannot); the package configuration includes it.
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/AmbrelDelayImport.cmake DESTINATION ${AMBREL_INSTALL_CMAKEDIR})
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/delayimport/DelayImportLibrary.c.in
            DESTINATION ${AMBREL_INSTALL_CMAKEDIR}/delayimport)
  endif()
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/AmbrelConfig.cmake.in
    ${PROJECT_BINARY_DIR}/cmake-package/AmbrelConfig.cmake
    INSTALL_DESTINATION ${AMBREL_INSTALL_CMAKEDIR}
    PATH_VARS AMBREL_INSTALL_BINDIR)
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake-package/AmbrelConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/cmake-package/AmbrelConfig.cmake ${PROJECT_BINARY_DIR}/cmake-package/AmbrelConfigVersion.cmake
    DESTINATION ${AMBREL_INSTALL_CMAKEDIR})

  # The MSVC package's Debug variant (Ambreld.dll: /MDd, _DEBUG,
  # _ITERATOR_DEBUG_LEVEL=2). A multi-config generator (Visual Studio) builds it
  # as this tree's Debug configuration: install that configuration too. A
  # single-config release tree builds it in a Debug tree of its own
  # (debug-variant/, the library alone) and installs it with its own files.
  include(${CMAKE_CURRENT_LIST_DIR}/AmbrelDebugVariant.cmake)

  # Signed copies over every installed image when a certificate is given, the
  # Debug variant's included: after every image's install rule.
  include(${CMAKE_CURRENT_LIST_DIR}/AmbrelSigning.cmake)
  ambrel_sign_on_install(TARGETS Ambrel ambrel_diagnose FILES ${AMBREL_SHIPPED_RUNTIME_DLLS} ${AMBREL_DEBUG_VARIANT_IMAGES})

  # cpack: a ZIP of the same tree.
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_NAME Ambrel)
  set(CPACK_PACKAGE_VENDOR "Tavrel, Inc")
  set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
  set(CPACK_SYSTEM_NAME win64)
  set(CPACK_PACKAGE_FILE_NAME "Ambrel-${PROJECT_VERSION}-win64-${AMBREL_FLAVOUR}")
  set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/package)
  include(CPack)
endif()

# Symbol store: `cmake --build <tree> --target symbol_store` lays out the
# shipped images and their PDBs in <tree>/symbols the way symbol-server paths
# read them (cmake/MakeSymbolStore.cmake; it also takes an installed or
# signed package's bin/ folder).
add_custom_target(symbol_store
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${PROJECT_BINARY_DIR}/symbols
  COMMAND ${CMAKE_COMMAND} -DSTORE=${PROJECT_BINARY_DIR}/symbols
          "-DIMAGES=$<TARGET_FILE:Ambrel>|$<TARGET_FILE:ambrel_diagnose>"
          -P ${CMAKE_CURRENT_LIST_DIR}/MakeSymbolStore.cmake
  DEPENDS Ambrel ambrel_diagnose
  COMMENT "Laying out the symbol store in ${PROJECT_BINARY_DIR}/symbols" VERBATIM)
