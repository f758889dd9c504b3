# CLI11, the command-line parser of the tools: Debian's libcli11-dev, header
# only, under /usr/include/CLI. Nothing of it is kept in the repository.
#
# The native build uses it where it is. The Windows build must not search
# /usr/include (it would pull in Linux headers, and its find-root mode only
# looks under /usr/x86_64-w64-mingw32), so the CLI folder alone is copied into
# the build tree and that copy is the Windows build's include path.
# Defines the interface target qx_cli11. Debian 12 has CLI11 2.1, Debian 13
# 2.4: the tools use what both have.
find_path(QX_CLI11_INCLUDE_DIR CLI/CLI.hpp
          PATHS /usr/include /usr/local/include
          NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(NOT QX_CLI11_INCLUDE_DIR)
  message(FATAL_ERROR "CLI11 not found (CLI/CLI.hpp): run scripts/install-deps.sh (Debian package libcli11-dev)")
endif()

set(_qx_cli11_include ${QX_CLI11_INCLUDE_DIR})
if(CMAKE_CROSSCOMPILING)
  set(_qx_cli11_include ${CMAKE_BINARY_DIR}/_deps/cli11/include)
  file(REMOVE_RECURSE ${_qx_cli11_include}/CLI)
  file(COPY ${QX_CLI11_INCLUDE_DIR}/CLI DESTINATION ${_qx_cli11_include})
endif()
file(STRINGS ${QX_CLI11_INCLUDE_DIR}/CLI/Version.hpp _qx_cli11_version REGEX "define CLI11_VERSION ")
message(STATUS "CLI11: ${QX_CLI11_INCLUDE_DIR}/CLI (${_qx_cli11_version})")

add_library(qx_cli11 INTERFACE)
target_include_directories(qx_cli11 SYSTEM INTERFACE ${_qx_cli11_include})
