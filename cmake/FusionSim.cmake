# Helpers for tests that run against fusion-sim, the simulator of the sensor
# fusion service (tools/fusion-sim; driven from C++ through qx_fusion_sim_ctl,
# see FusionSimCtl.h, or with `fusion-sim ctl ...`). include(FusionSim) in the
# CMakeLists.txt of the tests, after qx_add_wine_test:
#
#   qx_fusion_sim_test(TEST_NAME [TARGET test_target])
#       One simulator runs per Wine prefix: the test gets RESOURCE_LOCK fusion_sim,
#       FUSION_SIM_EXE (FusionSimExePath() reads it) and, with TARGET, a build
#       dependency of test_target on fusion-sim.
#
#   qx_fusion_sim_service_fixture()
#       Adds the tests fusion_sim_service_install / _uninstall around the fixture
#       "fusion_sim_service": the simulator registered (not started) as the
#       service "VantoqSensorFusion" in the test prefix. A test that sets
#       FIXTURES_REQUIRED "wine;fusion_sim_service" can then `net start` it,
#       check it through the SCM and `net stop` it (or FusionSimStartService()).
include_guard(GLOBAL)

function(qx_fusion_sim_test name)
  cmake_parse_arguments(arg "" "TARGET" "" ${ARGN})
  set_property(TEST ${name} APPEND PROPERTY RESOURCE_LOCK fusion_sim)
  set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT "FUSION_SIM_EXE=$<TARGET_FILE:fusion-sim>")
  if(arg_TARGET)
    add_dependencies(${arg_TARGET} fusion-sim)
  endif()
endfunction()

function(qx_fusion_sim_service_fixture)
  get_property(done GLOBAL PROPERTY QX_FUSION_SIM_FIXTURE)
  if(done)
    return()
  endif()
  set_property(GLOBAL PROPERTY QX_FUSION_SIM_FIXTURE TRUE)
  add_test(NAME fusion_sim_service_install COMMAND fusion-sim install --quiet)
  set_tests_properties(fusion_sim_service_install PROPERTIES
    FIXTURES_SETUP fusion_sim_service FIXTURES_REQUIRED wine
    ENVIRONMENT "${QX_WINE_ENV}" RESOURCE_LOCK fusion_sim TIMEOUT 60)
  add_test(NAME fusion_sim_service_uninstall COMMAND fusion-sim uninstall)
  set_tests_properties(fusion_sim_service_uninstall PROPERTIES
    FIXTURES_CLEANUP fusion_sim_service FIXTURES_REQUIRED wine
    ENVIRONMENT "${QX_WINE_ENV}" RESOURCE_LOCK fusion_sim TIMEOUT 60)
endfunction()
