# qx_fusion_sim_test(TEST TARGET): TEST (a Wine test of TARGET) runs against
# fusion-sim, one per prefix (RESOURCE_LOCK fusion_sim; FUSION_SIM_EXE for
# FusionSimCtl.h), with the simulator registered as the service
# "VantoqSensorFusion" around it (the fixture "fusion_sim_service").
include_guard(GLOBAL)

function(qx_fusion_sim_test name target)
  add_dependencies(${target} fusion-sim)
  add_test(NAME fusion_sim_service_install COMMAND fusion-sim install --quiet)
  add_test(NAME fusion_sim_service_uninstall COMMAND fusion-sim uninstall)
  set_tests_properties(fusion_sim_service_install PROPERTIES FIXTURES_SETUP fusion_sim_service)
  set_tests_properties(fusion_sim_service_uninstall PROPERTIES FIXTURES_CLEANUP fusion_sim_service)
  set_tests_properties(fusion_sim_service_install fusion_sim_service_uninstall PROPERTIES
    FIXTURES_REQUIRED wine ENVIRONMENT "${QX_WINE_ENV}" RESOURCE_LOCK fusion_sim TIMEOUT 60)
  set_property(TEST ${name} APPEND PROPERTY FIXTURES_REQUIRED fusion_sim_service)
  set_property(TEST ${name} APPEND PROPERTY RESOURCE_LOCK fusion_sim)
  set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT "FUSION_SIM_EXE=$<TARGET_FILE:fusion-sim>")
endfunction()
