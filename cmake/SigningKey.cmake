# The public key that scripts are verified with, as two hexadecimal strings for plugin/sign/rsa_public_key.cpp.in.
#
# QXPMAINT_PUBLIC_KEY names a PEM file: an RSA public key of 1024 bits, exponent 65537. Without it a development key
# pair is made once in the build folder; its private half stays there and is never installed.

find_program(OPENSSL_PROGRAM openssl REQUIRED)

if(QXPMAINT_PUBLIC_KEY)
  cmake_path(ABSOLUTE_PATH QXPMAINT_PUBLIC_KEY BASE_DIRECTORY "${CMAKE_SOURCE_DIR}" NORMALIZE OUTPUT_VARIABLE
             QXP_PUBLIC_KEY_FILE)
  if(NOT EXISTS "${QXP_PUBLIC_KEY_FILE}")
    message(FATAL_ERROR "QXPMAINT_PUBLIC_KEY: there is no file ${QXP_PUBLIC_KEY_FILE}")
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${QXP_PUBLIC_KEY_FILE}")
else()
  set(QXP_DEV_SIGNING_KEY "${CMAKE_BINARY_DIR}/dev-signing-key.pem")
  set(QXP_PUBLIC_KEY_FILE "${CMAKE_BINARY_DIR}/dev-public-key.pem")
  if(NOT EXISTS "${QXP_DEV_SIGNING_KEY}")
    # umask first: the private half is never readable by others, not even while it is being written.
    execute_process(
      COMMAND sh -c "umask 077 && exec \"$0\" genrsa -out \"$1\" 1024" "${OPENSSL_PROGRAM}" "${QXP_DEV_SIGNING_KEY}"
      RESULT_VARIABLE key_result ERROR_VARIABLE key_error OUTPUT_QUIET)
    if(NOT key_result EQUAL 0)
      file(REMOVE "${QXP_DEV_SIGNING_KEY}")
      message(FATAL_ERROR "Cannot make a development signing key: ${key_error}")
    endif()
  endif()
  execute_process(COMMAND "${OPENSSL_PROGRAM}" rsa -in "${QXP_DEV_SIGNING_KEY}" -pubout -out "${QXP_PUBLIC_KEY_FILE}"
                  RESULT_VARIABLE key_result ERROR_VARIABLE key_error OUTPUT_QUIET)
  if(NOT key_result EQUAL 0)
    message(FATAL_ERROR "Cannot read ${QXP_DEV_SIGNING_KEY}: ${key_error}")
  endif()
  message(STATUS "No QXPMAINT_PUBLIC_KEY given: this build trusts the development key in ${QXP_DEV_SIGNING_KEY}")
endif()

file(READ "${QXP_PUBLIC_KEY_FILE}" key_text LIMIT 65536)
if(key_text MATCHES "PRIVATE KEY")
  message(FATAL_ERROR "QXPMAINT_PUBLIC_KEY: ${QXP_PUBLIC_KEY_FILE} holds a private key; give the public half "
                      "(openssl rsa -in KEY.pem -pubout -out PUBLIC.pem)")
endif()
execute_process(COMMAND "${OPENSSL_PROGRAM}" rsa -pubin -in "${QXP_PUBLIC_KEY_FILE}" -noout -modulus -text
                RESULT_VARIABLE key_result OUTPUT_VARIABLE key_text ERROR_VARIABLE key_error)
if(NOT key_result EQUAL 0)
  message(FATAL_ERROR "QXPMAINT_PUBLIC_KEY: ${QXP_PUBLIC_KEY_FILE} is not an RSA public key in PEM form")
endif()
if(NOT key_text MATCHES "Exponent: 65537 ")
  message(FATAL_ERROR "QXPMAINT_PUBLIC_KEY: the exponent of ${QXP_PUBLIC_KEY_FILE} is not 65537")
endif()
string(REGEX MATCH "Modulus=([0-9A-F]+)" key_match "${key_text}")
set(QXP_RSA_MODULUS "${CMAKE_MATCH_1}")
string(LENGTH "${QXP_RSA_MODULUS}" key_digits)
if(NOT key_digits EQUAL 256 OR NOT key_text MATCHES "\\(1024 bit\\)")
  message(FATAL_ERROR "QXPMAINT_PUBLIC_KEY: ${QXP_PUBLIC_KEY_FILE} is not an RSA key of 1024 bits")
endif()
set(QXP_RSA_EXPONENT "10001")
