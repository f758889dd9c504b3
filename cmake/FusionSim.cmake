# qx_fusion_sim_test(TEST TARGET): TEST (a Wine test of TARGET) runs against
# fusion-sim, one per prefix (RESOURCE_LOCK qx_machine; FUSION_SIM_EXE for
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
    FIXTURES_REQUIRED wine ENVIRONMENT "${QX_WINE_ENV}" RESOURCE_LOCK qx_machine TIMEOUT 60)
  set_property(TEST ${name} APPEND PROPERTY FIXTURES_REQUIRED fusion_sim_service)
  set_property(TEST ${name} APPEND PROPERTY RESOURCE_LOCK qx_machine)
  # The longest entry: started first under ctest -j, the others run beside it.
  set_property(TEST ${name} PROPERTY COST 1000)
  set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT "FUSION_SIM_EXE=$<TARGET_FILE:fusion-sim>")
endfunction()
