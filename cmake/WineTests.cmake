# Windows tests under Wine in one prefix per run, made anew and ended by the fixture "wine".
# Run with ctest -j: the entries that use the prefix's machine state (the sensor
# fusion service, the plug-in's logs folder) hold RESOURCE_LOCK qx_machine, those
# that write or rely on config.ini's log settings qx_config, one at a time; the
# others (own files, own named objects, own prefixes) run beside them.
set(QX_WINEPREFIX ${CMAKE_BINARY_DIR}/wine/prefix CACHE PATH "Wine prefix of the test run")
# UTF-8: Wine maps file names to Unix ones through the locale.
set(QX_WINE_ENV "WINEPREFIX=${QX_WINEPREFIX};WINEDEBUG=-all;WINEARCH=win64;WINEDLLOVERRIDES=mscoree,mshtml=;LC_ALL=C.UTF-8")

if(BUILD_TESTING AND EXISTS /usr/src/googletest/CMakeLists.txt)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  set(gtest_disable_pthreads OFF CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/_deps/googletest EXCLUDE_FROM_ALL)
endif()

if(BUILD_TESTING)
  add_test(NAME wine_prefix
           COMMAND ${CMAKE_SOURCE_DIR}/scripts/wine-prefix.sh create ${QX_WINEPREFIX})
  set_tests_properties(wine_prefix PROPERTIES FIXTURES_SETUP wine TIMEOUT 300)
  add_test(NAME wine_prefix_stop
           COMMAND ${CMAKE_SOURCE_DIR}/scripts/wine-prefix.sh stop ${QX_WINEPREFIX})
  set_tests_properties(wine_prefix_stop PROPERTIES FIXTURES_CLEANUP wine TIMEOUT 120)
  # The shipped DLL's binding goes through Wine's NTLM, which runs Samba's
  # ntlm_auth; without it its cases would judge another path.
  add_test(NAME wine_ntlm_helper COMMAND sh -c "command -v ntlm_auth || { echo \
'ntlm_auth is missing (package winbind, scripts/install-deps.sh): Wine needs it for the shipped DLL'; exit 1; }")
  set_tests_properties(wine_ntlm_helper PROPERTIES FIXTURES_SETUP wine TIMEOUT 30)
endif()

# qx_wine_prefix(FIXTURE PREFIX): a prefix of its own for entries that need a
# machine beside the run's (made after "wine", from its pristine copy, and ended
# after them); QX_WINE_ENV_<FIXTURE> is its environment.
function(qx_wine_prefix fixture prefix)
  add_test(NAME ${fixture}_prefix
           COMMAND ${CMAKE_SOURCE_DIR}/scripts/wine-prefix.sh create ${prefix} ${QX_WINEPREFIX}.pristine)
  add_test(NAME ${fixture}_prefix_stop COMMAND ${CMAKE_SOURCE_DIR}/scripts/wine-prefix.sh stop ${prefix})
  set_tests_properties(${fixture}_prefix PROPERTIES FIXTURES_SETUP ${fixture} FIXTURES_REQUIRED wine TIMEOUT 300)
  set_tests_properties(${fixture}_prefix_stop PROPERTIES FIXTURES_CLEANUP ${fixture} TIMEOUT 120)
  string(REPLACE "WINEPREFIX=${QX_WINEPREFIX};" "WINEPREFIX=${prefix};" env "${QX_WINE_ENV}")
  set(QX_WINE_ENV_${fixture} "${env}" PARENT_SCOPE)
endfunction()

# qx_add_wine_test(NAME target [args...]): judged by GoogleTest's summary, as a
# crash under Wine may exit 0: a test passed, none failed, no unhandled exception.
function(qx_add_wine_test name target)
  add_test(NAME ${name} COMMAND ${target} ${ARGN})
  set_tests_properties(${name} PROPERTIES
    FIXTURES_REQUIRED wine
    ENVIRONMENT "${QX_WINE_ENV}"
    PASS_REGULAR_EXPRESSION "\\[  PASSED  \\] [1-9]"
    FAIL_REGULAR_EXPRESSION "\\[  FAILED  \\];Unhandled exception"
    TIMEOUT 900)
endfunction()
