# CPack pre-build script: runs on the staged tree, before the package is made.
#  - refuses the test build of the DLL (without RPC authentication) anywhere
#    but test/QXAttentionPlugin-TEST-noauth.dll: by name, and by the name in a
#    DLL's export directory, in case a copy was renamed;
#  - signs the DLL and the .exe files in bin/ when QX_SIGN_PKCS12 is set (scripts/sign.sh);
#  - gives every file and folder the time of SOURCE_DATE_EPOCH (the commit's,
#    set by scripts/release.sh) and fixed modes, so that two builds of one
#    commit give the same archive.
set(stage "${CPACK_TEMPORARY_DIRECTORY}")
if(NOT IS_DIRECTORY "${stage}")
  message(FATAL_ERROR "StageFiles: no staged tree at '${stage}'")
endif()

set(test_dll "test/QXAttentionPlugin-TEST-noauth.dll")
file(GLOB_RECURSE staged LIST_DIRECTORIES false RELATIVE "${stage}" "${stage}/*")
foreach(rel ${staged})
  if(rel STREQUAL test_dll)
    continue()
  endif()
  string(TOLOWER "${rel}" lname)
  if(lname MATCHES "noauth")
    message(FATAL_ERROR "StageFiles: the test build ${rel} ships only as ${test_dll}")
  endif()
  if(lname MATCHES "\\.dll$")
    file(STRINGS "${stage}/${rel}" hits REGEX "QXAttentionPlugin-noauth")
    if(hits)
      message(FATAL_ERROR "StageFiles: ${rel} is the test build (its export directory says so)")
    endif()
  endif()
endforeach()

if(NOT "$ENV{QX_SIGN_PKCS12}" STREQUAL "")
  file(GLOB_RECURSE to_sign LIST_DIRECTORIES false "${stage}/*.dll" "${stage}/*.exe")
  # The test build is never signed: a signature would vouch for it.
  list(FILTER to_sign EXCLUDE REGEX "/test/[^/]*$")
  if(to_sign)
    execute_process(COMMAND "${CMAKE_CURRENT_LIST_DIR}/../scripts/sign.sh" ${to_sign}
                    RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "StageFiles: signing failed")
    endif()
  endif()
endif()

if("$ENV{SOURCE_DATE_EPOCH}" STREQUAL "")
  message(WARNING "StageFiles: SOURCE_DATE_EPOCH is not set; the package keeps the build's time stamps")
else()
  execute_process(COMMAND find "${stage}" -exec chmod go-w,a+rX {} +
                  COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND find "${stage}" -exec touch -h -d "@$ENV{SOURCE_DATE_EPOCH}" {} +
                  COMMAND_ERROR_IS_FATAL ANY)
endif()
