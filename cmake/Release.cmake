# What ships, and how it is packaged (scripts/release.sh drives it).
#
# Windows build:
#  - a VERSIONINFO resource (version and commit from cmake/Version.cmake,
#    "Vantoq", the licence) in the DLL and in every shipped .exe;
#  - stripped copies of the shipped binaries in ship/bin, their debug
#    information in ship/debug/NAME.debug, linked by a .gnu_debuglink section,
#    and their PDBs in a symbol store, ship/symbols;
#  - the import libraries in ship/lib: the GNU one from the link and an
#    MSVC-format QXAttentionPlugin.lib written by llvm-dlltool from the .def;
#  - the test build of the DLL without RPC authentication, stripped, as
#    ship/test/QXAttentionPlugin-TEST-noauth.dll (its version resource says it
#    is for trying the plug-in with fusion-sim and not for redistribution);
#  - a link map of every shipped binary in linkmap/NAME.map, from which
#    packaging/check-notices.py learns what each one links;
#  - install() rules and CPack for QXAttentionPlugin-<version>-win64.zip.
# Native build: install() and CPack (DEB) for qx-logread_<version>_amd64.deb.
#
# The source tree builds the test variant as QXAttentionPlugin-noauth.dll (the
# tests load it by that name); only its stripped copy under its TEST name is
# packed. packaging/StageFiles.cmake refuses any other copy of it.
include_guard(GLOBAL)

set(QX_PRODUCT_NAME "QX Attention Plug-in")
set(QX_SHIP_DIR ${CMAKE_BINARY_DIR}/ship)
set(QX_LINKMAP_DIR ${CMAKE_BINARY_DIR}/linkmap)
set(QX_TEST_DLL QXAttentionPlugin-TEST-noauth.dll)

# qx_link_map(TARGET FILE): the linker writes linkmap/FILE.map, the archives and
# objects it took in (packaging/check-notices.py reads it). lld's own map names
# an archive member without its archive, so the Windows links write the
# MSVC-style map, whose symbols each name "archive:member".
function(qx_link_map target file)
  file(MAKE_DIRECTORY ${QX_LINKMAP_DIR})
  if(WIN32)
    target_link_options(${target} PRIVATE -Wl,-Xlink=-map:${QX_LINKMAP_DIR}/${file}.map)
  else()
    target_link_options(${target} PRIVATE -Wl,-Map=${QX_LINKMAP_DIR}/${file}.map)
  endif()
endfunction()

set(CPACK_PACKAGE_NAME QXAttentionPlugin)
set(CPACK_PACKAGE_VENDOR Vantoq)
set(CPACK_PACKAGE_CONTACT Vantoq)
set(CPACK_PACKAGE_VERSION ${QX_VERSION_STRING})
# Time stamps and modes of the staged files, and the check for the test variant.
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/packaging/StageFiles.cmake)
set(CPACK_VERBATIM_VARIABLES ON)

if(NOT WIN32)
  # logread for the support engineers' Linux machines.
  install(TARGETS logread RUNTIME DESTINATION bin)
  qx_link_map(logread logread)
  # Debian's machine-readable copyright file: the project's licence and those of
  # the code compiled into logread (packaging/check-notices.py keeps it true).
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/deb-copyright DESTINATION share/doc/qx-logread
          RENAME copyright)
  # The reader's guide, the record list and the lnav formats.
  install(FILES ${CMAKE_SOURCE_DIR}/docs/logread.md ${CMAKE_SOURCE_DIR}/docs/log-records.md
          DESTINATION share/doc/qx-logread)
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/share/lnav/ DESTINATION share/qx-logread/lnav
          FILES_MATCHING PATTERN "*.json")
  set(CPACK_GENERATOR DEB)
  set(CPACK_STRIP_FILES ON)
  set(CPACK_DEBIAN_PACKAGE_NAME qx-logread)
  set(CPACK_DEBIAN_PACKAGE_VERSION ${QX_DEB_VERSION})
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION utils)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
      "reader of the attention plug-in's log files (.logdat)")
  set(CPACK_PACKAGE_DESCRIPTION
      "logread decodes the obfuscated .logdat log files that QXAttentionPlugin.dll
writes on Windows machines, prints plain log files as they are, and can follow
a growing log file.")
  include(CPack)
  return()
endif()

find_package(Python3 REQUIRED COMPONENTS Interpreter)
find_program(QX_LLVM_DLLTOOL NAMES llvm-dlltool llvm-dlltool-19 llvm-dlltool-14 REQUIRED)

# qx_version_resource(TARGET DESCRIPTION [FILE NAME] [COMMENT TEXT]): compiles a
# VERSIONINFO resource with windres and links it into TARGET. FILE is the name
# it ships under when that is not the target's own; COMMENT is added to the
# "Comments" value after the commit id. The resource is compiled here, not as
# an .rc source of the target, so that the targets' C++ compile options never
# reach windres.
function(qx_version_resource target description)
  cmake_parse_arguments(arg "" "FILE;COMMENT" "" ${ARGN})
  get_target_property(type ${target} TYPE)
  get_target_property(base ${target} OUTPUT_NAME)
  if(NOT base)
    set(base ${target})
  endif()
  if(type STREQUAL "SHARED_LIBRARY")
    set(QX_RC_FILE ${base}.dll)
    set(QX_RC_FILETYPE VFT_DLL)
  else()
    set(QX_RC_FILE ${base}.exe)
    set(QX_RC_FILETYPE VFT_APP)
  endif()
  if(arg_FILE)
    set(QX_RC_FILE ${arg_FILE})
  endif()
  set(QX_RC_COMMENT "")
  if(arg_COMMENT)
    set(QX_RC_COMMENT ". ${arg_COMMENT}")
  endif()
  set(QX_RC_DESCRIPTION "${description}")
  set(QX_RC_INTERNAL ${base})
  set(rc ${CMAKE_BINARY_DIR}/version/${target}.rc)
  set(obj ${CMAKE_BINARY_DIR}/version/${target}.res.o)
  configure_file(${CMAKE_SOURCE_DIR}/packaging/version.rc.in ${rc} @ONLY)
  add_custom_command(OUTPUT ${obj}
    COMMAND ${CMAKE_RC_COMPILER} -O coff -i ${rc} -o ${obj}
    DEPENDS ${rc}
    COMMENT "windres ${target}.rc"
    VERBATIM)
  add_custom_target(${target}_version DEPENDS ${obj})
  add_dependencies(${target} ${target}_version)
  target_sources(${target} PRIVATE ${obj})
  set_source_files_properties(${obj} TARGET_DIRECTORY ${target}
                              PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)
endfunction()

# qx_ship_binary(TARGET): the linker writes NAME's PDB beside it (lld --pdb,
# from the objects' CodeView: procedures, file-local ones too, inline sites,
# lines, types); a CodeView entry in the debug directory names it by file name
# alone (pdbaltpath), with a GUID that lld derives from the PDB's content, so
# that two builds of one commit agree. packaging/ship-binary.py then writes ship/bin/NAME
# stripped, with a .gnu_debuglink to ship/debug/NAME.debug (the DWARF
# information and the symbols, for gdb and Wine), and the symbol store
# ship/symbols/ (PDB/GUIDAGE/PDB, NAME/STAMPSIZE/NAME) for Windows debuggers.
function(qx_ship_binary target out_var)
  get_target_property(type ${target} TYPE)
  get_target_property(base ${target} OUTPUT_NAME)
  if(NOT base)
    set(base ${target})
  endif()
  if(type STREQUAL "SHARED_LIBRARY")
    set(name ${base}.dll)
  else()
    set(name ${base}.exe)
  endif()
  set(pdb $<TARGET_FILE_DIR:${target}>/${base}.pdb)
  target_link_options(${target} PRIVATE -Wl,--pdb=${pdb} -Wl,-Xlink=-pdbaltpath:%_PDB%)
  set(bin ${QX_SHIP_DIR}/bin/${name})
  set(dbg ${QX_SHIP_DIR}/debug/${name}.debug)
  set(stamp ${QX_SHIP_DIR}/symbols/${name}.stamp)
  add_custom_command(OUTPUT ${bin} ${dbg} ${stamp}
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/packaging/ship-binary.py ${CMAKE_OBJCOPY}
            $<TARGET_FILE:${target}> ${pdb} ${QX_SHIP_DIR}
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${target} ${CMAKE_SOURCE_DIR}/packaging/ship-binary.py
    COMMENT "stripping ${name}: debug/${name}.debug, symbols/ (PDB and binary)"
    VERBATIM)
  set(${out_var} ${bin} ${dbg} ${stamp} PARENT_SCOPE)
endfunction()

set(QX_SHIPPED_TARGETS QXAttentionPlugin qxhost fusion-sim logread)
foreach(target ${QX_SHIPPED_TARGETS})
  if(NOT TARGET ${target})
    message(FATAL_ERROR "release: the shipped target ${target} is missing from this tree")
  endif()
endforeach()

qx_version_resource(QXAttentionPlugin "Attention plug-in of the PC-assistant host")
qx_version_resource(qxhost "Host harness for the attention plug-in")
qx_version_resource(fusion-sim "Simulator of the sensor fusion service")
qx_version_resource(logread "Reader of the attention plug-in's log files")
if(NOT TARGET QXAttentionPluginNoAuth)
  message(FATAL_ERROR "release: the test build QXAttentionPluginNoAuth is missing from this tree")
endif()
qx_version_resource(QXAttentionPluginNoAuth
  "Attention plug-in, TEST BUILD without RPC authentication: for fusion-sim only"
  FILE ${QX_TEST_DLL}
  COMMENT "For testing with the simulator fusion-sim only: NOT FOR REDISTRIBUTION")
foreach(target ${QX_SHIPPED_TARGETS} QXAttentionPluginNoAuth)
  get_target_property(base ${target} OUTPUT_NAME)
  if(NOT base)
    set(base ${target})
  endif()
  qx_link_map(${target} ${base})
endforeach()

set(QX_SHIP_FILES "")
foreach(target ${QX_SHIPPED_TARGETS})
  qx_ship_binary(${target} files)
  list(APPEND QX_SHIP_FILES ${files})
endforeach()

set(QX_MSVC_IMPLIB ${QX_SHIP_DIR}/lib/QXAttentionPlugin.lib)
set(QX_GNU_IMPLIB ${QX_SHIP_DIR}/lib/libQXAttentionPlugin.dll.a)
add_custom_command(OUTPUT ${QX_MSVC_IMPLIB}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${QX_SHIP_DIR}/lib
  COMMAND ${QX_LLVM_DLLTOOL} -m i386:x86-64 -d ${CMAKE_SOURCE_DIR}/plugin/QXAttentionPlugin.def
          -l ${QX_MSVC_IMPLIB}
  DEPENDS ${CMAKE_SOURCE_DIR}/plugin/QXAttentionPlugin.def
  COMMENT "llvm-dlltool QXAttentionPlugin.lib (MSVC import library)"
  VERBATIM)
add_custom_command(OUTPUT ${QX_GNU_IMPLIB}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${QX_SHIP_DIR}/lib
  COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_LINKER_FILE:QXAttentionPlugin> ${QX_GNU_IMPLIB}
  DEPENDS QXAttentionPlugin
  VERBATIM)
list(APPEND QX_SHIP_FILES ${QX_MSVC_IMPLIB} ${QX_GNU_IMPLIB})
# The test build ships stripped, under its TEST name, without symbols.
set(QX_TEST_DLL_SHIPPED ${QX_SHIP_DIR}/test/${QX_TEST_DLL})
add_custom_command(OUTPUT ${QX_TEST_DLL_SHIPPED}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${QX_SHIP_DIR}/test
  COMMAND ${CMAKE_OBJCOPY} --strip-debug $<TARGET_FILE:QXAttentionPluginNoAuth> ${QX_TEST_DLL_SHIPPED}
  DEPENDS QXAttentionPluginNoAuth
  COMMENT "stripping the test build: test/${QX_TEST_DLL}"
  VERBATIM)
list(APPEND QX_SHIP_FILES ${QX_TEST_DLL_SHIPPED})
add_custom_target(qx_ship ALL DEPENDS ${QX_SHIP_FILES})

# The archive: bin/ include/ lib/ examples/ test/ debug/ symbols/ docs/ share/lnav/,
# CHANGELOG.md, README.md (with the version and commit), LICENSE and
# THIRD-PARTY-NOTICES.
install(FILES ${QX_SHIP_DIR}/bin/QXAttentionPlugin.dll ${QX_SHIP_DIR}/bin/qxhost.exe
              ${QX_SHIP_DIR}/bin/fusion-sim.exe ${QX_SHIP_DIR}/bin/logread.exe
        DESTINATION bin)
install(FILES ${QX_SHIP_DIR}/debug/QXAttentionPlugin.dll.debug ${QX_SHIP_DIR}/debug/qxhost.exe.debug
              ${QX_SHIP_DIR}/debug/fusion-sim.exe.debug ${QX_SHIP_DIR}/debug/logread.exe.debug
        DESTINATION debug)
# The symbol store; the stamps are the build's bookkeeping, not part of it.
install(DIRECTORY ${QX_SHIP_DIR}/symbols/ DESTINATION symbols PATTERN "*.stamp" EXCLUDE)
install(FILES ${QX_PUBLIC_INCLUDE_DIR}/qx_plugin.h DESTINATION include)
install(FILES ${CMAKE_SOURCE_DIR}/examples/host.c DESTINATION examples)
install(FILES ${QX_MSVC_IMPLIB} ${QX_GNU_IMPLIB} DESTINATION lib)
install(FILES ${CMAKE_SOURCE_DIR}/docs/integration.md ${CMAKE_SOURCE_DIR}/docs/logread.md
              ${CMAKE_SOURCE_DIR}/docs/log-records.md
        DESTINATION docs)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/share/lnav/ DESTINATION share/lnav
        FILES_MATCHING PATTERN "*.json")
install(FILES ${CMAKE_SOURCE_DIR}/CHANGELOG.md DESTINATION .)
configure_file(${CMAKE_SOURCE_DIR}/packaging/README.md ${QX_SHIP_DIR}/README.md @ONLY)
install(FILES ${QX_SHIP_DIR}/README.md ${CMAKE_SOURCE_DIR}/LICENSE
              ${CMAKE_SOURCE_DIR}/THIRD-PARTY-NOTICES DESTINATION .)
install(FILES ${QX_TEST_DLL_SHIPPED} DESTINATION test)

# CPack stages the install() rules; packaging/MakeZip.cmake writes the zip
# (CPack's own ZIP generator stores each file's access and change times, and
# entries in directory order, so its archives differ from build to build).
set(CPACK_GENERATOR External)
set(CPACK_EXTERNAL_ENABLE_STAGING ON)
set(CPACK_EXTERNAL_PACKAGE_SCRIPT ${CMAKE_SOURCE_DIR}/packaging/MakeZip.cmake)
set(CPACK_PACKAGE_FILE_NAME QXAttentionPlugin-${QX_VERSION_STRING}-win64)
include(CPack)
