# Authenticode signing of the shipped images (Ambrel.dll, ambrel-diagnose.exe
# and the C++ runtime DLLs beside them) as they are installed or packed: `cmake --install` and cpack run the same
# install step, which writes a signed copy of each build-tree image over the
# installed one. The build tree's own images stay unsigned.
#
# The key is never in the tree. It is named by
#   AMBREL_SIGN_PFX       a PFX file (certificate, key, chain): cache variable,
#                         or the environment of the install / cpack run
# or, for a key on a hardware token or HSM (osslsigncode only),
#   AMBREL_SIGN_PKCS11_MODULE  the token's PKCS#11 module (a .so / .dll)
#   AMBREL_SIGN_PKCS11_KEY     the key's pkcs11: URI ("pkcs11:token=...;object=...")
#   AMBREL_SIGN_CERTS          the signing certificate and its chain, PEM
# (each a cache variable or the install's environment), and by
#   AMBREL_SIGN_PASSWORD_FILE  a file holding the PFX password or the token's
#                         PIN (cache variable or environment), or
#   AMBREL_SIGN_PASSWORD  the password itself, in the environment only, so it
#                         is never written into CMakeCache.txt or the install
#                         script. Either reaches the signing tool as a file,
#                         never on its command line
#   AMBREL_TIMESTAMP_URL  an RFC 3161 time-stamp server: cache variable or
#                         environment; without one the install says in one
#                         line that the signatures carry no time stamp, and
#   AMBREL_REQUIRE_TIMESTAMP   ON makes that an error (release builds)
# Without a key nothing is signed; configure says so once.
set(AMBREL_SIGN_PFX "" CACHE FILEPATH "PFX file to sign the shipped images with at install (or set AMBREL_SIGN_PFX in the install's environment)")
set(AMBREL_SIGN_PKCS11_MODULE "" CACHE FILEPATH "PKCS#11 module of the token that holds the signing key (or the install's environment)")
set(AMBREL_SIGN_PKCS11_KEY "" CACHE STRING "pkcs11: URI of the signing key on the token (or the install's environment)")
set(AMBREL_SIGN_CERTS "" CACHE FILEPATH "Signing certificate and chain (PEM) for a key on a token (or the install's environment)")
set(AMBREL_SIGN_PASSWORD_FILE "" CACHE FILEPATH "File holding the PFX password or the token's PIN (or the install's environment)")
set(AMBREL_TIMESTAMP_URL "" CACHE STRING "RFC 3161 time-stamp server for the signatures (or set AMBREL_TIMESTAMP_URL in the install's environment)")
option(AMBREL_REQUIRE_TIMESTAMP "Fail a signed install that has no time-stamp server" OFF)
# osslsigncode signs on any host; signtool (Windows SDK) where it is missing.
find_program(AMBREL_SIGN_OSSLSIGNCODE osslsigncode)
find_program(AMBREL_SIGN_SIGNTOOL signtool)
# OpenSSL's PKCS#11 engine, through which osslsigncode reaches a token.
find_file(AMBREL_SIGN_PKCS11_ENGINE pkcs11.so PATHS /usr/lib/x86_64-linux-gnu/engines-3 /usr/lib/engines-3
          /usr/lib64/engines-3 NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)

if(AMBREL_SIGN_PFX)
  message(STATUS "Code signing: install and cpack sign every image of bin/ with ${AMBREL_SIGN_PFX}")
elseif(AMBREL_SIGN_PKCS11_MODULE)
  message(STATUS "Code signing: install and cpack sign every image of bin/ with ${AMBREL_SIGN_PKCS11_KEY} through ${AMBREL_SIGN_PKCS11_MODULE}")
elseif(DEFINED ENV{AMBREL_SIGN_PFX} OR DEFINED ENV{AMBREL_SIGN_PKCS11_MODULE})
  message(STATUS "Code signing: install and cpack sign with the key named in their environment")
else()
  message(STATUS "Code signing: no key given (AMBREL_SIGN_PFX or AMBREL_SIGN_PKCS11_MODULE): install and cpack sign nothing")
endif()

# ambrel_sign_on_install(TARGETS <target>... FILES <file>...)
# After the images' install rules (all into bin/): replaces each installed
# image by a signed copy of the build tree's, when a certificate is given at
# install time.
function(ambrel_sign_on_install)
  cmake_parse_arguments(ARG "" "" "TARGETS;FILES" ${ARGN})
  set(images "")
  foreach(target IN LISTS ARG_TARGETS)
    list(APPEND images "$<TARGET_FILE:${target}>|${AMBREL_INSTALL_BINDIR}/$<TARGET_FILE_NAME:${target}>")
  endforeach()
  foreach(file IN LISTS ARG_FILES)
    get_filename_component(name "${file}" NAME)
    list(APPEND images "${file}|${AMBREL_INSTALL_BINDIR}/${name}")
  endforeach()
  install(CODE "
    set(AMBREL_SIGN_IMAGES \"${images}\")
    set(AMBREL_SIGN_PFX \"${AMBREL_SIGN_PFX}\")
    set(AMBREL_SIGN_PKCS11_MODULE \"${AMBREL_SIGN_PKCS11_MODULE}\")
    set(AMBREL_SIGN_PKCS11_KEY \"${AMBREL_SIGN_PKCS11_KEY}\")
    set(AMBREL_SIGN_CERTS \"${AMBREL_SIGN_CERTS}\")
    set(AMBREL_SIGN_PASSWORD_FILE \"${AMBREL_SIGN_PASSWORD_FILE}\")
    set(AMBREL_TIMESTAMP_URL \"${AMBREL_TIMESTAMP_URL}\")
    set(AMBREL_REQUIRE_TIMESTAMP \"${AMBREL_REQUIRE_TIMESTAMP}\")
    set(AMBREL_SIGN_OSSLSIGNCODE \"${AMBREL_SIGN_OSSLSIGNCODE}\")
    set(AMBREL_SIGN_SIGNTOOL \"${AMBREL_SIGN_SIGNTOOL}\")
    set(AMBREL_SIGN_PKCS11_ENGINE \"${AMBREL_SIGN_PKCS11_ENGINE}\")
    set(AMBREL_SIGN_DESCRIPTION \"${PROJECT_NAME} ${PROJECT_VERSION}\")
    include(\"${PROJECT_SOURCE_DIR}/cmake/AmbrelSignImages.cmake\")
  ")
endfunction()
