# Part of the install script (cmake/AmbrelSigning.cmake sets the variables):
# signs each installed image, SHA-256, when a key is given: a PFX file, or a
# key on a PKCS#11 token (a hardware token or HSM, through OpenSSL's PKCS#11
# engine).
#   AMBREL_SIGN_IMAGES    "<build-tree image>|<install-relative path>" items
#   AMBREL_SIGN_PFX, AMBREL_SIGN_PKCS11_MODULE, AMBREL_SIGN_PKCS11_KEY,
#   AMBREL_SIGN_CERTS, AMBREL_SIGN_PASSWORD_FILE, AMBREL_TIMESTAMP_URL
#                         configured values; the install's environment
#                         supplies them when empty
#   AMBREL_REQUIRE_TIMESTAMP  ON (configured or in the environment): signing
#                         without a time-stamp server fails
#   AMBREL_SIGN_OSSLSIGNCODE, AMBREL_SIGN_SIGNTOOL, AMBREL_SIGN_PKCS11_ENGINE
#                         the tools found
# The password (or the token's PIN) comes from AMBREL_SIGN_PASSWORD_FILE, or
# from AMBREL_SIGN_PASSWORD in the environment, and reaches osslsigncode
# through a file (-readpass), never on a command line, where every process of
# the machine could read it.

# A configured value, else the install's environment.
macro(_ambrel_sign_setting var)
  set(_${var} "${${var}}")
  if(NOT _${var} AND DEFINED ENV{${var}})
    set(_${var} "$ENV{${var}}")
  endif()
endmacro()
foreach(_var AMBREL_SIGN_PFX AMBREL_SIGN_PKCS11_MODULE AMBREL_SIGN_PKCS11_KEY AMBREL_SIGN_CERTS
        AMBREL_SIGN_PASSWORD_FILE AMBREL_TIMESTAMP_URL AMBREL_REQUIRE_TIMESTAMP)
  _ambrel_sign_setting(${_var})
endforeach()
if(NOT _AMBREL_SIGN_PFX AND NOT _AMBREL_SIGN_PKCS11_MODULE)
  return()
endif()
if(_AMBREL_SIGN_PFX AND _AMBREL_SIGN_PKCS11_MODULE)
  message(FATAL_ERROR "AMBREL_SIGN_PFX and AMBREL_SIGN_PKCS11_MODULE are both given: sign with one key")
endif()
foreach(_file _AMBREL_SIGN_PFX _AMBREL_SIGN_PKCS11_MODULE _AMBREL_SIGN_CERTS _AMBREL_SIGN_PASSWORD_FILE)
  if(${_file} AND NOT EXISTS "${${_file}}")
    string(SUBSTRING "${_file}" 1 -1 _name)
    message(FATAL_ERROR "${_name} names no file: ${${_file}}")
  endif()
endforeach()
if(_AMBREL_SIGN_PKCS11_MODULE AND (NOT _AMBREL_SIGN_PKCS11_KEY OR NOT _AMBREL_SIGN_CERTS))
  message(FATAL_ERROR "signing through AMBREL_SIGN_PKCS11_MODULE needs AMBREL_SIGN_PKCS11_KEY (the key's pkcs11: URI) "
                      "and AMBREL_SIGN_CERTS (its certificate chain, PEM)")
endif()
if(NOT _AMBREL_TIMESTAMP_URL)
  if(_AMBREL_REQUIRE_TIMESTAMP)
    message(FATAL_ERROR "AMBREL_REQUIRE_TIMESTAMP is ON but no AMBREL_TIMESTAMP_URL is given")
  endif()
  message(NOTICE "Signing without a time stamp (no AMBREL_TIMESTAMP_URL): the signatures stop verifying when the certificate expires")
endif()

# The password as a file only its owner reads: the one given, or one written
# from the environment into a private folder, removed when signing ends.
set(_password_file "${_AMBREL_SIGN_PASSWORD_FILE}")
set(_private_dir "")
if(NOT _password_file AND DEFINED ENV{AMBREL_SIGN_PASSWORD})
  string(RANDOM LENGTH 16 _suffix)
  set(_private_dir "${CMAKE_CURRENT_BINARY_DIR}/.ambrel-sign-${_suffix}")
  if(DEFINED ENV{TMPDIR} AND IS_DIRECTORY "$ENV{TMPDIR}")
    set(_private_dir "$ENV{TMPDIR}/ambrel-sign-${_suffix}")
  elseif(IS_DIRECTORY /tmp)
    set(_private_dir "/tmp/ambrel-sign-${_suffix}")
  endif()
  file(MAKE_DIRECTORY "${_private_dir}")
  file(CHMOD "${_private_dir}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
  set(_password_file "${_private_dir}/password")
  file(TOUCH "${_password_file}")
  file(CHMOD "${_password_file}" PERMISSIONS OWNER_READ OWNER_WRITE)
  file(WRITE "${_password_file}" "$ENV{AMBREL_SIGN_PASSWORD}")
endif()
macro(_ambrel_sign_fail text)
  if(_private_dir)
    file(REMOVE_RECURSE "${_private_dir}")
  endif()
  message(FATAL_ERROR "${text}")
endmacro()

foreach(_item IN LISTS AMBREL_SIGN_IMAGES)
  string(REPLACE "|" ";" _item "${_item}")
  list(GET _item 0 _built)
  list(GET _item 1 _relative)
  set(_installed "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/${_relative}")
  if(AMBREL_SIGN_OSSLSIGNCODE)
    # Signed from the build tree's copy, so installing again never signs a
    # signed file; written beside the target, then moved over it.
    set(_command "${AMBREL_SIGN_OSSLSIGNCODE}" sign -h sha256 -n "${AMBREL_SIGN_DESCRIPTION}")
    if(_AMBREL_SIGN_PFX)
      list(APPEND _command -pkcs12 "${_AMBREL_SIGN_PFX}")
    else()
      if(NOT AMBREL_SIGN_PKCS11_ENGINE)
        _ambrel_sign_fail("signing through a PKCS#11 module needs OpenSSL's PKCS#11 engine (Debian: libengine-pkcs11-openssl), not found at configure time")
      endif()
      list(APPEND _command -pkcs11engine "${AMBREL_SIGN_PKCS11_ENGINE}" -pkcs11module "${_AMBREL_SIGN_PKCS11_MODULE}"
           -certs "${_AMBREL_SIGN_CERTS}" -key "${_AMBREL_SIGN_PKCS11_KEY}")
    endif()
    if(_password_file)
      list(APPEND _command -readpass "${_password_file}")
    endif()
    if(_AMBREL_TIMESTAMP_URL)
      list(APPEND _command -ts "${_AMBREL_TIMESTAMP_URL}")
    endif()
    list(APPEND _command -in "${_built}" -out "${_installed}.signing")
    string(REPLACE ";" " " _shown "${_command}")
    message(STATUS "Signing: ${_installed}: ${_shown}")
    file(REMOVE "${_installed}.signing")
    execute_process(COMMAND ${_command} RESULT_VARIABLE _rc OUTPUT_VARIABLE _out ERROR_VARIABLE _out)
    if(NOT _rc EQUAL 0 OR NOT _out MATCHES "Succeeded")
      file(REMOVE "${_installed}.signing")
      _ambrel_sign_fail("osslsigncode could not sign ${_built} (${_rc}):\n${_out}")
    endif()
    file(RENAME "${_installed}.signing" "${_installed}")
  elseif(AMBREL_SIGN_SIGNTOOL)
    # The Windows SDK's tool signs the installed copy in place. It takes a
    # PFX password only on its command line, and reaches tokens through their
    # CSP, not PKCS#11: import the PFX into the certificate store, or use
    # osslsigncode.
    if(_password_file OR _AMBREL_SIGN_PKCS11_MODULE)
      _ambrel_sign_fail("signtool would need the password on its command line, or a PKCS#11 module it cannot use: "
                        "use osslsigncode, or a certificate from the store")
    endif()
    set(_command "${AMBREL_SIGN_SIGNTOOL}" sign /fd SHA256 /f "${_AMBREL_SIGN_PFX}" /d "${AMBREL_SIGN_DESCRIPTION}")
    if(_AMBREL_TIMESTAMP_URL)
      list(APPEND _command /tr "${_AMBREL_TIMESTAMP_URL}" /td SHA256)
    endif()
    message(STATUS "Signing: ${_installed}")
    execute_process(COMMAND ${_command} "${_installed}" RESULT_VARIABLE _rc OUTPUT_VARIABLE _out ERROR_VARIABLE _out)
    if(NOT _rc EQUAL 0)
      _ambrel_sign_fail("signtool could not sign ${_installed} (${_rc}):\n${_out}")
    endif()
  else()
    _ambrel_sign_fail("a signing key is given but neither osslsigncode nor signtool was found at configure time")
  endif()
endforeach()
if(_private_dir)
  file(REMOVE_RECURSE "${_private_dir}")
endif()
