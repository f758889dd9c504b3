cmake_minimum_required(VERSION 3.20)
# Fails the build when a Windows binary imports a DLL outside the set every
# Windows has (a mingw runtime such as libstdc++-6.dll, libgcc_s_seh-1.dll or
# libwinpthread-1.dll would make the plug-in fail to load on a clean machine),
# or when it exports anything but the plug-in's four entry points.
# Usage: cmake -DOBJDUMP=... -DDLL=... -P CheckImports.cmake
execute_process(COMMAND ${OBJDUMP} -p ${DLL} OUTPUT_VARIABLE dump RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "objdump failed on ${DLL}")
endif()

string(REGEX MATCHALL "DLL Name: [^\n]+" imports "${dump}")
set(allowed kernel32.dll user32.dll advapi32.dll shell32.dll shlwapi.dll rpcrt4.dll
            msvcrt.dll ole32.dll)
foreach(line ${imports})
  string(REGEX REPLACE "DLL Name: " "" name "${line}")
  string(STRIP "${name}" name)
  string(TOLOWER "${name}" lname)
  if(NOT lname IN_LIST allowed)
    message(FATAL_ERROR "${DLL} imports ${name}, which is not a system DLL every Windows has")
  endif()
endforeach()

# Export table: the rows after "[Ordinal/Name Pointer] Table" name the exports.
# binutils 2.40 (Debian 12) prints rows as "[   0] qx_plugin_action"; binutils
# 2.44 (Debian 13) first prints a column header ("Ordinal   Hint Name") and then
# rows as "[   0] +base[   1]  0000 qx_plugin_action".
string(FIND "${dump}" "[Ordinal/Name Pointer] Table" at)
set(found "")
if(at GREATER -1)
  string(SUBSTRING "${dump}" ${at} -1 rest)
  string(REPLACE "\n" ";" lines "${rest}")
  list(REMOVE_AT lines 0)
  set(in_rows FALSE)
  foreach(line IN LISTS lines)
    if(line MATCHES "^[ \t]+\\[ *[0-9]+\\] (\\+base\\[ *[0-9]+\\] +[0-9a-fA-F]+ +)?([^ ]+)$")
      list(APPEND found "${CMAKE_MATCH_2}")
      set(in_rows TRUE)
    elseif(NOT in_rows AND line MATCHES "^[ \t]*Ordinal +Hint +Name[ \t]*$")
      # the column header of newer binutils
    else()
      break()
    endif()
  endforeach()
endif()
list(SORT found)
set(expected qx_plugin_action qx_plugin_delete qx_plugin_init qx_plugin_new)
if(NOT found STREQUAL expected)
  message(FATAL_ERROR "${DLL} exports [${found}], expected exactly [${expected}]")
endif()
message(STATUS "${DLL}: imports and exports checked")
