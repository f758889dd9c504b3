# What a build calls itself. project(... VERSION) holds the number; a build is a
# release build only when it is configured with -DQX_RELEASE=ON, which
# scripts/release.sh passes when QX_RELEASE=1 and the checkout is a clean commit
# whose CHANGELOG.md names that number as its newest section. Every other build
# is a development build: its version carries the suffix "-dev+<commit>" and its
# version resources the pre-release flag, so that it can never pass for the
# released number.
#
# Sets:
#   QX_COMMIT          the checkout's commit id (40 hex digits), or "unknown"
#   QX_VERSION_STRING  1.1.0 (release) or 1.1.0-dev+<first 12 digits of the commit>
#   QX_VERSION_TEXT    QX_VERSION_STRING and "(commit <id>)", for --version
#   QX_DEB_VERSION     the Debian package's: 1.1.0 or 1.1.0~dev+<commit>
#   QX_HEADER_VERSION  the string of include/qx_plugin.h: 1.1.0 or 1.1.0-dev (no
#                      commit id, so that a new commit does not rebuild every
#                      file that includes the header)
# and writes ${CMAKE_BINARY_DIR}/include/qx_plugin.h from include/qx_plugin.h.in.
include_guard(GLOBAL)

option(QX_RELEASE "A release build (scripts/release.sh with QX_RELEASE=1)" OFF)

set(QX_COMMIT unknown)
find_package(Git QUIET)
if(GIT_FOUND)
  execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse HEAD
                  WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
                  OUTPUT_VARIABLE _qx_commit OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE _qx_rc ERROR_QUIET)
  if(_qx_rc EQUAL 0 AND _qx_commit MATCHES "^[0-9a-f]+$")
    set(QX_COMMIT ${_qx_commit})
    # A new commit or a checkout of another one configures the tree again, so
    # that the commit id in the binaries stays true.
    foreach(_qx_ref HEAD refs/heads packed-refs)
      execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse --git-path ${_qx_ref}
                      WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
                      OUTPUT_VARIABLE _qx_path OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
      get_filename_component(_qx_path "${_qx_path}" ABSOLUTE BASE_DIR ${CMAKE_SOURCE_DIR})
      if(EXISTS "${_qx_path}" AND NOT IS_DIRECTORY "${_qx_path}")
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${_qx_path}")
      endif()
    endforeach()
    execute_process(COMMAND ${GIT_EXECUTABLE} symbolic-ref -q HEAD
                    WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
                    OUTPUT_VARIABLE _qx_branch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(_qx_branch)
      execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse --git-path ${_qx_branch}
                      WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
                      OUTPUT_VARIABLE _qx_path OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
      get_filename_component(_qx_path "${_qx_path}" ABSOLUTE BASE_DIR ${CMAKE_SOURCE_DIR})
      if(EXISTS "${_qx_path}")
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${_qx_path}")
      endif()
    endif()
  endif()
endif()

if(QX_RELEASE)
  if(QX_COMMIT STREQUAL "unknown")
    message(FATAL_ERROR "QX_RELEASE: a release is built from a git commit; this checkout has none")
  endif()
  set(QX_VERSION_STRING ${PROJECT_VERSION})
  set(QX_HEADER_VERSION ${PROJECT_VERSION})
  set(QX_RC_FLAGS 0)
  set(QX_DEB_VERSION ${PROJECT_VERSION})
else()
  string(SUBSTRING "${QX_COMMIT}" 0 12 _qx_short)
  set(QX_VERSION_STRING ${PROJECT_VERSION}-dev+${_qx_short})
  set(QX_HEADER_VERSION ${PROJECT_VERSION}-dev)
  set(QX_RC_FLAGS VS_FF_PRERELEASE)
  # "~" sorts before the release in Debian's version order.
  set(QX_DEB_VERSION ${PROJECT_VERSION}~dev+${_qx_short})
endif()
set(QX_VERSION_TEXT "${QX_VERSION_STRING} (commit ${QX_COMMIT})")
message(STATUS "Version: ${QX_VERSION_TEXT}")

configure_file(${CMAKE_SOURCE_DIR}/include/qx_plugin.h.in ${CMAKE_BINARY_DIR}/include/qx_plugin.h @ONLY)
set(QX_PUBLIC_INCLUDE_DIR ${CMAKE_BINARY_DIR}/include)
