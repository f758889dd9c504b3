# The IDL compiler for the fusion client's stubs: widl 9 or newer.
#
# widl before 9 (Debian 12 ships "Wine IDL Compiler version 7.0") puts an
# explicit `handle_t` binding parameter into the -Oif parameter list as an
# ordinary [in] long, so every request carries 4 stray bytes in front of the
# real parameters and any server not built with that same widl reads every
# parameter shifted. So:
#  - QX_WIDL_OVERRIDE given on the command line (-DQX_WIDL_OVERRIDE=PATH): it
#    must be 9 or newer;
#  - else the system's x86_64-w64-mingw32-widl when it is 9 or newer (Debian 13);
#  - else Debian 13's mingw-w64-tools, downloaded into the build tree by
#    scripts/fetch-widl.sh (private apt configuration, nothing installed).
# Sets QX_WIDL (path) and QX_WIDL_VERSION, as plain variables of the caller.
include_guard(GLOBAL)
set(QX_WIDL_MIN_VERSION 9.0)

function(_qx_widl_version exe out)
  execute_process(COMMAND ${exe} -V OUTPUT_VARIABLE text ERROR_VARIABLE text RESULT_VARIABLE rc)
  if(rc EQUAL 0 AND text MATCHES "Wine IDL Compiler version ([0-9]+(\\.[0-9]+)*)")
    set(${out} ${CMAKE_MATCH_1} PARENT_SCOPE)
  else()
    set(${out} "" PARENT_SCOPE)
  endif()
endfunction()

set(QX_WIDL_OVERRIDE "" CACHE FILEPATH "IDL compiler for the fusion stubs (widl ${QX_WIDL_MIN_VERSION} or newer)")
if(QX_WIDL_OVERRIDE)
  _qx_widl_version(${QX_WIDL_OVERRIDE} _version)
  if(NOT _version OR _version VERSION_LESS QX_WIDL_MIN_VERSION)
    message(FATAL_ERROR
      "QX_WIDL_OVERRIDE=${QX_WIDL_OVERRIDE} is widl '${_version}': the fusion stubs need widl "
      "${QX_WIDL_MIN_VERSION} or newer. Older widl writes the explicit binding handle as a "
      "parameter, and every request then carries 4 stray bytes. Leave QX_WIDL_OVERRIDE empty "
      "to use the system's widl when it is new enough, or else Debian 13's, fetched.")
  endif()
  set(QX_WIDL ${QX_WIDL_OVERRIDE})
else()
  find_program(_qx_system_widl NAMES x86_64-w64-mingw32-widl NO_CACHE)
  if(_qx_system_widl)
    _qx_widl_version(${_qx_system_widl} _version)
  endif()
  if(_qx_system_widl AND _version AND NOT _version VERSION_LESS QX_WIDL_MIN_VERSION)
    set(QX_WIDL ${_qx_system_widl})
  else()
    message(STATUS "widl: the system's is '${_version}', older than ${QX_WIDL_MIN_VERSION}: "
                   "fetching Debian 13's mingw-w64-tools into the build tree")
    execute_process(
      COMMAND ${CMAKE_SOURCE_DIR}/scripts/fetch-widl.sh ${CMAKE_BINARY_DIR}/_deps/widl
      OUTPUT_VARIABLE _fetched OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE _rc)
    if(NOT _rc EQUAL 0)
      message(FATAL_ERROR "widl: scripts/fetch-widl.sh failed (see its message above). The fusion "
                          "stubs need widl ${QX_WIDL_MIN_VERSION} or newer; give one with -DQX_WIDL_OVERRIDE=PATH.")
    endif()
    _qx_widl_version(${_fetched} _version)
    if(NOT _version OR _version VERSION_LESS QX_WIDL_MIN_VERSION)
      message(FATAL_ERROR "widl: the fetched ${_fetched} is '${_version}', not ${QX_WIDL_MIN_VERSION} or newer")
    endif()
    set(QX_WIDL ${_fetched})
  endif()
endif()
_qx_widl_version(${QX_WIDL} QX_WIDL_VERSION)
message(STATUS "widl: ${QX_WIDL} (version ${QX_WIDL_VERSION})")
