# jsoncpp is built from Debian's source package (libjsoncpp), fetched with
# `apt-get source --download-only` into the build tree the first time the
# project is configured. Nothing of it is kept in the repository. It is always
# bookworm's (1.9.5), whatever suite the build machine runs, so that every
# build host ships the same jsoncpp (scripts/install-deps.sh adds the deb-src
# entry for bookworm).
# Defines the static library target qx_jsoncpp.
set(QX_JSONCPP_VERSION 1.9.5)
set(QX_JSONCPP_DIR ${CMAKE_BINARY_DIR}/_deps/jsoncpp-${QX_JSONCPP_VERSION})

if(NOT EXISTS ${QX_JSONCPP_DIR}/src/lib_json/json_value.cpp)
  set(_dl ${CMAKE_BINARY_DIR}/_deps/download)
  file(MAKE_DIRECTORY ${_dl})
  file(GLOB _tarball ${_dl}/libjsoncpp_${QX_JSONCPP_VERSION}.orig.tar.*)
  if(NOT _tarball)
    message(STATUS "jsoncpp: fetching Debian bookworm's source package libjsoncpp")
    execute_process(COMMAND apt-get source --download-only libjsoncpp/bookworm
                    WORKING_DIRECTORY ${_dl}
                    RESULT_VARIABLE _rc OUTPUT_QUIET ERROR_VARIABLE _err)
    file(GLOB _tarball ${_dl}/libjsoncpp_${QX_JSONCPP_VERSION}.orig.tar.*)
    if(NOT _tarball)
      message(FATAL_ERROR
        "jsoncpp: 'apt-get source --download-only libjsoncpp/bookworm' failed (${_rc}): ${_err}\n"
        "Run scripts/install-deps.sh first: it adds the deb-src entry this needs.")
    endif()
  endif()
  execute_process(COMMAND ${CMAKE_COMMAND} -E tar xf ${_tarball}
                  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}/_deps RESULT_VARIABLE _rc)
  if(NOT _rc EQUAL 0 OR NOT EXISTS ${QX_JSONCPP_DIR}/src/lib_json/json_value.cpp)
    message(FATAL_ERROR "jsoncpp: could not unpack ${_tarball}")
  endif()
endif()

add_library(qx_jsoncpp STATIC
  ${QX_JSONCPP_DIR}/src/lib_json/json_reader.cpp
  ${QX_JSONCPP_DIR}/src/lib_json/json_value.cpp
  ${QX_JSONCPP_DIR}/src/lib_json/json_writer.cpp)
target_include_directories(qx_jsoncpp SYSTEM PUBLIC ${QX_JSONCPP_DIR}/include)
target_compile_options(qx_jsoncpp PRIVATE -w)
set_target_properties(qx_jsoncpp PROPERTIES POSITION_INDEPENDENT_CODE ON)
