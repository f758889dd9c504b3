// The host's two typical flows end to end, against the sensor fusion simulator
// registered as the service "VantoqSensorFusion": "init" starts it with
// net.exe, the test variant of the DLL binds to it without authentication
// (which no Wine-hosted service can complete), and the simulator's record of
// calls shows what crossed the pipe.
#include <gtest/gtest.h>

#include <thread>

#include "PluginTestSupport.h"

using namespace qxtest;

namespace {

const std::string kBigDataPayload = "{\"action\":\"SA0004\",\"type\":\"Report\"}\n";

// Waits until the simulator has seen a start request for the attention sensor.
bool WaitForStart(DWORD ms) {
  const DWORD end = GetTickCount() + ms;
  do {
    // Not asserted: the service is not running yet for the first polls.
    std::vector<FusionSimCall> all;
    if (FusionSimReadCalls(&all))
      for (const FusionSimCall& c : all)
        if (c.opnum == kOpStartSensor && c.arg0 == kAttentionSensor && c.arg1 == 1 && c.answered) return true;
    Sleep(20);
  } while (static_cast<LONG>(end - GetTickCount()) > 0);
  return false;
}

class Flow : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    DeleteLog();
    ASSERT_NO_FATAL_FAILURE(PrepareStoppedService());
    ClearHostCalls();
  }
  void TearDown() override {
    plugin.Unload();
    EXPECT_TRUE(FusionSimStopService());
    ResetRegistry();
  }
  Plugin plugin;
};

TEST_F(Flow, SwitchOnLookAwayAndClose) {
  ASSERT_TRUE(plugin.Load(kNoAuthDll));
  ASSERT_EQ(0, plugin.Init(nullptr, RecordingCallback));

  // First "init" on a supported machine without stored values: the service is
  // started, the client set up, and status 1 / delay 10 stored.
  std::size_t bytes = 0;
  EXPECT_EQ("", plugin.Action("init", nullptr, &bytes));
  EXPECT_EQ(1u, bytes);
  EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), FusionSimServiceState());
  EXPECT_EQ(std::optional<DWORD>(1), GetUserDword(L"attention_state"));
  EXPECT_EQ(std::optional<DWORD>(10), GetUserDword(L"attention_delay"));
  EXPECT_EQ(std::vector<std::string>{"ability: 1"}, LogMessages("AttentionPlugin.cpp", 193));
  EXPECT_EQ(std::vector<std::string>{"register attention status: -1, register attention delay:-1 "},
            LogMessages("AttentionPlugin.cpp", 196));
  EXPECT_EQ(std::vector<std::string>{" attention status: 1, attention delay:10 "},
            LogMessages("AttentionPlugin.cpp", 236));
  EXPECT_TRUE(LogMessages("AttentionPlugin.cpp", 233).empty());
  // Status 1 means off: the set-up's stop and the stored status's stop, never
  // a start; the stored delay went to the service.
  for (const FusionSimCall& c : SimCalls(kOpStartSensor)) EXPECT_EQ(0, c.arg1);
  std::vector<FusionSimCall> delays = SimCalls(kOpSetSensorParam);
  ASSERT_EQ(1u, delays.size());
  EXPECT_EQ(kAttentionSensor, delays[0].arg0);
  EXPECT_EQ(4u, delays[0].dataLen);
  EXPECT_EQ(10u, Dword(delays[0]));
  EXPECT_EQ(Attention(10, 1), plugin.Action("get_attention", nullptr));

  // The host switches attention on: exactly one start request with 1.
  ASSERT_TRUE(FusionSimClearCalls());
  DeleteLog();
  EXPECT_EQ(Attention(10, 2), plugin.Action("set_attention_status", StatusParams(2).c_str()));
  std::vector<FusionSimCall> starts = SimCalls(kOpStartSensor);
  ASSERT_EQ(1u, starts.size());
  EXPECT_EQ(kAttentionSensor, starts[0].arg0);
  EXPECT_EQ(1, starts[0].arg1);
  EXPECT_EQ(std::optional<DWORD>(2), GetUserDword(L"attention_state"));
  const std::vector<std::string> places = LogPlaces();
  const std::vector<std::string> expectedOrder = {"AttentionInfo.cpp(57)", "AttentionFuntion(258)",
                                                  "AttentionFuntion(265)", "AttentionFuntion(267)",
                                                  "AttentionPlugin.cpp(281)", "AttentionPlugin.cpp(341)"};
  EXPECT_EQ(expectedOrder, places);

  // A new delay goes to the service and, once accepted, to the registry.
  ASSERT_TRUE(FusionSimClearCalls());
  EXPECT_EQ(Attention(30, 2), plugin.Action("set_attention_delay", DelayParams(30).c_str()));
  delays = SimCalls(kOpSetSensorParam);
  ASSERT_EQ(1u, delays.size());
  EXPECT_EQ(30u, Dword(delays[0]));
  EXPECT_EQ(std::optional<DWORD>(30), GetUserDword(L"attention_delay"));
  EXPECT_EQ(std::vector<std::string>{"set attention delay success!"}, LogMessages("AttentionPlugin.cpp", 325));

  // The user looks away: exactly one BIGDATA message with the exact payload,
  // on the plug-in's waiting thread, not on this (the host's) thread.
  DeleteLog();
  ASSERT_TRUE(FusionSimClearCalls());
  ASSERT_TRUE(FusionSimSetAttention(0, true));
  ASSERT_EQ(1u, WaitHostCalls(1, 5000)) << "no BIGDATA message within 5 s";
  Sleep(500);  // a second message would have arrived by now
  const std::vector<HostCall> calls = HostCalls();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ("BIGDATA", calls[0].kind);
  EXPECT_EQ("BIGDATA", calls[0].name);
  EXPECT_EQ(kBigDataPayload, calls[0].json);
  EXPECT_EQ(0u, calls[0].reserved);
  EXPECT_EQ(0, calls[0].flags);
  EXPECT_NE(GetCurrentThreadId(), calls[0].thread);
  // The record was fetched for the attention sensor; then the bridge, the
  // report and the handler wrote their records, in that order.
  std::vector<FusionSimCall> fetches = SimCalls(kOpGetSensorData);
  ASSERT_FALSE(fetches.empty());
  EXPECT_EQ(kAttentionSensor, fetches[0].arg0);
  EXPECT_EQ((std::vector<std::string>{"AttentionInfo.cpp(84)", "AttentionPlugin.cpp(49)", "AttentionPlugin.cpp(34)"}),
            LogPlaces());
  EXPECT_EQ(std::vector<std::string>{"activeBigDataReport  SA0004"}, LogMessages("AttentionPlugin.cpp", 49));
  EXPECT_EQ(std::vector<std::string>{"Find attention divertd in effect"}, LogMessages("AttentionPlugin.cpp", 34));

  // Looking away again reports nothing new; looking back and away again does.
  ASSERT_TRUE(FusionSimSetAttention(0, true));
  ASSERT_TRUE(FusionSimWaitCalls(2, 5000));
  ASSERT_TRUE(FusionSimSetAttention(1, true));
  ASSERT_TRUE(FusionSimWaitCalls(3, 5000));
  EXPECT_EQ(1u, WaitHostCalls(2, 300));
  ASSERT_TRUE(FusionSimSetAttention(0, true));
  EXPECT_EQ(2u, WaitHostCalls(2, 5000));
  // Events never change the plug-in's status or the registry.
  EXPECT_EQ(Attention(30, 2), plugin.Action("get_attention", nullptr));
  EXPECT_EQ(std::optional<DWORD>(2), GetUserDword(L"attention_state"));

  // "close" tears the client down: remote procedure 5, one-byte result.
  ASSERT_TRUE(FusionSimClearCalls());
  DeleteLog();
  bytes = 0;
  EXPECT_EQ("", plugin.Action("close", nullptr, &bytes));
  EXPECT_EQ(1u, bytes);
  EXPECT_EQ(1u, SimCalls(kOpUnInit).size());
  EXPECT_EQ(std::vector<std::string>{"close attention client."}, LogMessages("AttentionPlugin.cpp", 241));
}

TEST_F(Flow, QxhostSessionsPersistStatusAndDelay) {
  // First host process: the demo's story through qxhost, with the look-away
  // staged while its script waits for the callback. "ability" comes before
  // "init", so the machine-wide ability cache (which an installer writes) is
  // set: without it the early ability check could not reach the service, and
  // its 0 would stay for the whole process.
  SetMachineAbility(1);
  std::thread lookAway([] {
    if (WaitForStart(30000)) FusionSimSetAttention(0, true);
  });
  const HostRun first =
      RunHost(kNoAuthDll, {"# demo-like session", "ability", "init", "set_attention_status=" + StatusParams(2),
                           "wait-callback 10000 BIGDATA", "set_attention_delay " + DelayParams(45), "close"});
  lookAway.join();
  ASSERT_FALSE(first.timedOut) << first.output;
  EXPECT_EQ(0u, first.exitCode) << first.output;
  const std::vector<std::string> callbacks = first.Lines("[callback] ");
  ASSERT_EQ(1u, callbacks.size()) << first.output;
  EXPECT_NE(std::string::npos,
            callbacks[0].find("(plug-in thread): kind=BIGDATA name=BIGDATA json=" + Printed(kBigDataPayload) + " arg4=0 arg5=0"))
      << callbacks[0];
  const std::vector<std::string> results = first.Lines("[result] ");
  ASSERT_EQ(5u, results.size()) << first.output;
  EXPECT_NE(std::string::npos, results[4].find("close -> 0, 1 bytes")) << results[4];
  EXPECT_EQ(std::optional<DWORD>(2), GetUserDword(L"attention_state"));
  EXPECT_EQ(std::optional<DWORD>(45), GetUserDword(L"attention_delay"));

  // Second host process: fresh state until "init" loads the stored values
  // and applies them (attention is started again, the delay sent).
  ASSERT_TRUE(FusionSimClearCalls());
  const HostRun second = RunHost(kNoAuthDll, {"get_attention", "init", "get_attention", "close"});
  ASSERT_FALSE(second.timedOut) << second.output;
  const std::vector<std::string> again = second.Lines("[result] ");
  ASSERT_EQ(4u, again.size()) << second.output;
  EXPECT_NE(std::string::npos, again[0].find(Printed(Attention(-1, -1)))) << again[0];
  EXPECT_NE(std::string::npos, again[2].find(Printed(Attention(45, 2)))) << again[2];
  std::vector<FusionSimCall> starts;
  for (const FusionSimCall& c : SimCalls(kOpStartSensor))
    if (c.arg1 == 1) starts.push_back(c);
  EXPECT_EQ(1u, starts.size());
  std::vector<FusionSimCall> delays = SimCalls(kOpSetSensorParam);
  ASSERT_EQ(1u, delays.size());
  EXPECT_EQ(45u, Dword(delays[0]));
}

}  // namespace
