# Authenticode signing of the shipped images (Ambrel.dll, ambrel-diagnose.exe)
# as they are installed or packed: `cmake --install` and cpack run the same
# install step, which writes a signed copy of each build-tree image over the
# installed one. The build tree's own images stay unsigned.
#
# The certificate is never in the tree. It is named by
#   AMBREL_SIGN_PFX       a PFX file (certificate, key, chain): cache variable,
#                         or the environment of the install / cpack run
#   AMBREL_SIGN_PASSWORD  its password: environment only, so that it is never
#                         written into CMakeCache.txt or the install script
#   AMBREL_TIMESTAMP_URL  an RFC 3161 time-stamp server (optional): cache
#                         variable or environment; none, no time stamp
# Without a PFX nothing is signed; configure says so once.
set(AMBREL_SIGN_PFX "" CACHE FILEPATH "PFX file to sign the shipped images with at install (or set AMBREL_SIGN_PFX in the install's environment)")
set(AMBREL_TIMESTAMP_URL "" CACHE STRING "RFC 3161 time-stamp server for the signatures (or set AMBREL_TIMESTAMP_URL in the install's environment)")
# osslsigncode signs on any host; signtool (Windows SDK) where it is missing.
find_program(AMBREL_SIGN_OSSLSIGNCODE osslsigncode)
find_program(AMBREL_SIGN_SIGNTOOL signtool)

if(AMBREL_SIGN_PFX)
  message(STATUS "Code signing: install and cpack sign Ambrel.dll and ambrel-diagnose.exe with ${AMBREL_SIGN_PFX}")
elseif(DEFINED ENV{AMBREL_SIGN_PFX})
  message(STATUS "Code signing: install and cpack sign with $ENV{AMBREL_SIGN_PFX} while AMBREL_SIGN_PFX is set in their environment")
else()
  message(STATUS "Code signing: no certificate given (AMBREL_SIGN_PFX): install and cpack sign nothing")
endif()

# ambrel_sign_on_install(<target>...)
# After the targets' install rules: replaces each installed image by a signed
# copy of the build tree's, when a certificate is given at install time.
function(ambrel_sign_on_install)
  set(images "")
  foreach(target IN LISTS ARGN)
    list(APPEND images "$<TARGET_FILE:${target}>|${AMBREL_INSTALL_BINDIR}/$<TARGET_FILE_NAME:${target}>")
  endforeach()
  install(CODE "
    set(AMBREL_SIGN_IMAGES \"${images}\")
    set(AMBREL_SIGN_PFX \"${AMBREL_SIGN_PFX}\")
    set(AMBREL_TIMESTAMP_URL \"${AMBREL_TIMESTAMP_URL}\")
    set(AMBREL_SIGN_OSSLSIGNCODE \"${AMBREL_SIGN_OSSLSIGNCODE}\")
    set(AMBREL_SIGN_SIGNTOOL \"${AMBREL_SIGN_SIGNTOOL}\")
    set(AMBREL_SIGN_DESCRIPTION \"${PROJECT_NAME} ${PROJECT_VERSION}\")
    include(\"${PROJECT_SOURCE_DIR}/cmake/AmbrelSignImages.cmake\")
  ")
endfunction()
