// The shipped DLL (packet privacy, WINNT, the caller's identity) against the
// simulator run as the service. No authenticated call completes under Wine
// (docs/wine.md), so the plug-in's first remote call must fail cleanly: result
// 1 with one exception line in the sensor library log, no crash, no hang,
// nothing delivered to the service, and the machine treated as not supporting
// attention. On Windows this is the path that works.
#include <gtest/gtest.h>

#include "PluginTestSupport.h"

using namespace qxtest;

namespace {

TEST(ShippedDll, FirstRemoteCallFailsCleanlyUnderWine) {
  ResetRegistry();
  DeleteLog();
  ASSERT_NO_FATAL_FAILURE(PrepareStoppedService());
  const std::size_t logBefore = SensorLibLog().size();

  const HostRun run = RunHost(kShippedDll, {"init", "get_attention", "close"});
  ASSERT_FALSE(run.timedOut) << run.output;
  EXPECT_EQ(0u, run.exitCode) << run.output;
  EXPECT_EQ(std::vector<std::string>{"ability: 0"}, LogMessages("AttentionPlugin.cpp", 193));
  EXPECT_EQ(std::vector<std::string>{"attention_init initfusion 1"}, LogMessages("AttentionFuntion", 229));

  // "init" started the service; not one call got through to a procedure.
  EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), FusionSimServiceState());
  std::vector<FusionSimCall> calls;
  ASSERT_TRUE(FusionSimReadCalls(&calls));
  EXPECT_TRUE(calls.empty()) << calls.size() << " calls reached the service";

  // The binding itself succeeds; the first remote call (opnum 0 of
  // FusionSetting) raises 1747 (RPC_S_UNKNOWN_AUTHN_SERVICE): the service, as
  // installed here, registers no authentication service and its runtime
  // refuses the authenticated bind (tests/fusion/FusionAuthTest.cpp has the
  // simulator that accepts NTLM).
  const std::string added = SensorLibLog().substr(logBefore);
  const std::size_t setting = added.find("FusionSetting Mask 0x40");
  ASSERT_NE(std::string::npos, setting) << added;
  const std::string next = added.substr(setting, 120);
  EXPECT_NE(std::string::npos, next.find("]Runtime reported exception 0x6d3 = 1747")) << next;
  EXPECT_EQ(std::string::npos, added.find("RpcBindingSetAuthInfo:")) << added;

  EXPECT_TRUE(FusionSimStopService());
  ResetRegistry();
}

}  // namespace
