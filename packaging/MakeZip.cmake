# CPack package script (External generator) for the Windows archive. CPack has
# installed the install() rules into the staged tree and run StageFiles.cmake;
# this writes the zip so that two builds of one commit give the same bytes:
# files only, in byte order of their names, each with its staged time (the
# commit's) as a UTC DOS time and its Unix mode, and nothing else (zip -X: no
# access or change times, no owner).
set(stage "${CPACK_TEMPORARY_DIRECTORY}")
set(zip "${CPACK_PACKAGE_DIRECTORY}/${CPACK_PACKAGE_FILE_NAME}.zip")
file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE "${stage}" "${stage}/*")
list(SORT files)
string(REPLACE ";" "\n" listing "${files}")
set(list_file "${CPACK_TOPLEVEL_DIRECTORY}/zip-entries.txt")
file(WRITE "${list_file}" "${listing}\n")
file(REMOVE "${zip}")
execute_process(COMMAND ${CMAKE_COMMAND} -E env TZ=UTC zip -X -D -q -9 "${zip}" -@
                INPUT_FILE "${list_file}" WORKING_DIRECTORY "${stage}" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "MakeZip: zip failed (${rc})")
endif()
set(CPACK_EXTERNAL_BUILT_PACKAGES "${zip}")
