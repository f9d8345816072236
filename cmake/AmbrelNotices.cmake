# THIRD-PARTY-NOTICES.txt of the package: the licence text of every
# third-party piece the package ships (bin/) or its images link in, taken from
# the licence files the build uses: Debian's copyright file of the package
# that installed the piece (found with dpkg-query), the general licences that
# file refers to (/usr/share/common-licenses), and third_party/microsoft-stl.
# Sets AMBREL_NOTICES_FILE (empty when the licence files cannot be found).
#
# ambrel_notice(<title> COVERS <binaries...> [LINKED <text>] (FILE_OF <path> | TEXTS <files...>))
# adds one piece: the binaries of bin/ it covers, what it puts into the images,
# and where its licence text comes from.
set(_ambrel_notice_pieces "")
set(AMBREL_NOTICES_FILE "")

function(ambrel_notice title)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "LINKED;FILE_OF" "COVERS;TEXTS")
  set(texts ${arg_TEXTS})
  if(arg_FILE_OF)
    # Debian's copyright file of the package that installed the file.
    find_program(AMBREL_DPKG_QUERY dpkg-query)
    set(package "")
    if(AMBREL_DPKG_QUERY)
      get_filename_component(real "${arg_FILE_OF}" REALPATH)
      foreach(candidate "${arg_FILE_OF}" "${real}")
        execute_process(COMMAND ${AMBREL_DPKG_QUERY} -S "${candidate}" OUTPUT_VARIABLE owner ERROR_QUIET
                        RESULT_VARIABLE rc)
        if(rc EQUAL 0)
          string(REGEX REPLACE "[:,].*" "" package "${owner}")
          break()
        endif()
      endforeach()
    endif()
    if(package STREQUAL "" OR NOT EXISTS /usr/share/doc/${package}/copyright)
      message(WARNING "No licence file found for ${arg_FILE_OF}: the package's THIRD-PARTY-NOTICES.txt is left out")
      set(_ambrel_notice_failed TRUE PARENT_SCOPE)
      return()
    endif()
    list(APPEND texts /usr/share/doc/${package}/copyright)
  endif()
  set(index ${_ambrel_notice_count})
  math(EXPR index "${index} + 1")
  set(_ambrel_notice_count ${index} PARENT_SCOPE)
  set(_ambrel_notice_${index}_title "${title}" PARENT_SCOPE)
  set(_ambrel_notice_${index}_covers "${arg_COVERS}" PARENT_SCOPE)
  set(_ambrel_notice_${index}_linked "${arg_LINKED}" PARENT_SCOPE)
  set(_ambrel_notice_${index}_texts "${texts}" PARENT_SCOPE)
endfunction()

set(_ambrel_notice_count 0)
set(_ambrel_notice_failed FALSE)
if(MSVC)
  ambrel_notice("Microsoft C++ Standard Library (microsoft/STL)"
    LINKED "its header code in every image, and the sources Visual Studio's import library msvcprt.lib holds (filesystem.cpp and others) compiled into them; Apache License 2.0 with LLVM exception"
    TEXTS ${PROJECT_SOURCE_DIR}/third_party/microsoft-stl/LICENSE.txt ${PROJECT_SOURCE_DIR}/third_party/microsoft-stl/NOTICE.txt)
  if(AMBREL_MSVC_GLUE)
    # The test build here links Wine's import libraries and GUID definitions
    # (uuid.lib) where Visual Studio links the Windows SDK's.
    ambrel_notice("Wine's import libraries and GUID definitions (test build with msvc-wine only)"
      LINKED "import descriptors and GUID constants from Wine's development libraries (libwine-dev), in place of the Windows SDK's; LGPL 2.1 or later"
      FILE_OF ${AMBREL_WINE_PE_DIR}/libuuid.a)
  endif()
else()
  set(_ambrel_gcc_dlls "")
  set(_ambrel_mingw_dlls "")
  foreach(runtime_dll IN LISTS AMBREL_RUNTIME_DLLS)
    get_filename_component(name ${runtime_dll} NAME)
    if(name MATCHES "^libwinpthread")
      list(APPEND _ambrel_mingw_dlls ${name})
      set(_ambrel_mingw_file ${runtime_dll})
    else()
      list(APPEND _ambrel_gcc_dlls ${name})
      set(_ambrel_gcc_file ${runtime_dll})
    endif()
  endforeach()
  if(_ambrel_gcc_dlls)
    ambrel_notice("GCC 12 runtime libraries (libstdc++, libgcc)"
      COVERS ${_ambrel_gcc_dlls}
      LINKED "libgcc's helper routines and start-up objects linked into every image; GPL 3 or later with the GCC Runtime Library Exception 3.1"
      FILE_OF ${_ambrel_gcc_file})
  endif()
  ambrel_notice("mingw-w64 runtime (start-up code, libmingwex, libmingw32, import libraries, winpthreads)"
    COVERS ${_ambrel_mingw_dlls}
    LINKED "mingw-w64's start-up code (crt2.o, dllcrt2.o), parts of libmingwex and libmingw32 and the import libraries' stubs linked into every image; ZPL 2.1 and the licences the file lists (winpthreads: MIT and BSD)"
    FILE_OF ${CMAKE_FIND_ROOT_PATH}/lib/libmingwex.a)
endif()

if(NOT _ambrel_notice_failed AND _ambrel_notice_count GREATER 0)
  set(AMBREL_NOTICES_FILE ${PROJECT_BINARY_DIR}/cmake-package/THIRD-PARTY-NOTICES.txt)
  set(rule "==============================================================================")
  if(MSVC)
    set(flavour msvc)
  else()
    set(flavour mingw)
  endif()
  set(contents "Ambrel ${PROJECT_VERSION} (${flavour} package): third-party notices\n\n")
  string(APPEND contents "The images Ambrel builds (Ambrel.dll, Ambreld.dll where the package has it,\n"
    "ambrel-diagnose.exe) are Tavrel's own work. The package also\n"
    "ships, or has linked into those images, the third-party pieces below, each\n"
    "under its own licence; their licence texts follow in full, then the general\n"
    "licences those texts refer to.\n\nContents\n\n")
  set(body "")
  set(general "")
  foreach(index RANGE 1 ${_ambrel_notice_count})
    set(title "${_ambrel_notice_${index}_title}")
    string(APPEND contents "  ${index}. ${title}\n")
    if(_ambrel_notice_${index}_covers)
      string(JOIN ", " covers ${_ambrel_notice_${index}_covers})
      string(APPEND contents "     shipped in bin/: ${covers}\n")
    endif()
    string(APPEND contents "     linked in: ${_ambrel_notice_${index}_linked}\n")
    string(APPEND body "\n${rule}\n${index}. ${title}\n${rule}\n")
    foreach(text IN LISTS _ambrel_notice_${index}_texts)
      file(READ ${text} content)
      string(APPEND body "\n---- ${text}\n\n${content}")
      # The general licences a Debian copyright file refers to.
      string(REGEX MATCHALL "/usr/share/common-licenses/[A-Za-z0-9.-]*[A-Za-z0-9]" refs "${content}")
      foreach(ref IN LISTS refs)
        get_filename_component(ref "${ref}" REALPATH)
        if(EXISTS "${ref}" AND NOT ref IN_LIST general)
          list(APPEND general "${ref}")
        endif()
      endforeach()
    endforeach()
  endforeach()
  list(SORT general)
  set(letter 0)
  foreach(ref IN LISTS general)
    math(EXPR letter "${letter} + 1")
    get_filename_component(name "${ref}" NAME)
    string(APPEND contents "  G${letter}. General licence ${name} (${ref})\n")
    file(READ ${ref} content)
    string(APPEND body "\n${rule}\nG${letter}. General licence ${name} (${ref})\n${rule}\n\n${content}")
  endforeach()
  # Written only when it changes, so the package's files keep their times.
  file(WRITE ${AMBREL_NOTICES_FILE}.new "${contents}${body}")
  file(COPY_FILE ${AMBREL_NOTICES_FILE}.new ${AMBREL_NOTICES_FILE} ONLY_IF_DIFFERENT)
  file(REMOVE ${AMBREL_NOTICES_FILE}.new)
endif()
