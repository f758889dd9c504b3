# qx_fusion_sim_test(TEST TARGET [FIXTURE]): TEST (a Wine test of TARGET) runs
# against fusion-sim registered as the service "VantoqSensorFusion" around it
# (the fixture "fusion_sim_service"; FUSION_SIM_EXE for FusionSimCtl.h), one such
# entry at a time in the run's prefix (RESOURCE_LOCK qx_machine), or in the
# prefix of FIXTURE (qx_wine_prefix) beside them.
include_guard(GLOBAL)

function(qx_fusion_sim_test name target)
  add_dependencies(${target} fusion-sim)
  set(env "${QX_WINE_ENV}")
  set(fixtures wine)
  set(tag "")
  if(ARGC GREATER 2)
    set(env "${QX_WINE_ENV_${ARGV2}}")
    list(APPEND fixtures ${ARGV2})
    set(tag _${ARGV2})
    set_property(TEST ${name} APPEND PROPERTY FIXTURES_REQUIRED ${ARGV2})
  endif()
  add_test(NAME fusion_sim_service_install${tag} COMMAND fusion-sim install --quiet)
  add_test(NAME fusion_sim_service_uninstall${tag} COMMAND fusion-sim uninstall)
  set_tests_properties(fusion_sim_service_install${tag} PROPERTIES FIXTURES_SETUP fusion_sim_service${tag})
  set_tests_properties(fusion_sim_service_uninstall${tag} PROPERTIES FIXTURES_CLEANUP fusion_sim_service${tag})
  set_tests_properties(fusion_sim_service_install${tag} fusion_sim_service_uninstall${tag} PROPERTIES
    FIXTURES_REQUIRED "${fixtures}" ENVIRONMENT "${env}" RESOURCE_LOCK qx_machine${tag} TIMEOUT 60)
  set_property(TEST ${name} APPEND PROPERTY FIXTURES_REQUIRED fusion_sim_service${tag})
  set_property(TEST ${name} APPEND PROPERTY RESOURCE_LOCK qx_machine${tag})
  # The longest entries: started first under ctest -j, the others run beside them.
  set_property(TEST ${name} PROPERTY COST 1000)
  set_property(TEST ${name} PROPERTY ENVIRONMENT "${env};FUSION_SIM_EXE=$<TARGET_FILE:fusion-sim>")
endfunction()
