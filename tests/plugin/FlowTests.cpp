// The host's two typical flows end to end, against the sensor fusion simulator
// registered as the service "VantoqSensorFusion": "init" starts it with
// net.exe, the test variant of the DLL binds to it without authentication
// (which no Wine-hosted service can complete), and the simulator's record of
// calls shows what crossed the pipe.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "FusionSimCtl.h"
#include "PluginTestSupport.h"
// After windows.h (through the headers above).
#include <tlhelp32.h>

using namespace qxtest;

namespace {

// Opnums of the remote interface.
constexpr int kOpGetSensorData = 1;
constexpr int kOpSetSensorParam = 2;
constexpr int kOpStartSensor = 3;
constexpr int kOpUnInit = 5;
constexpr int kAttentionSensor = 6;

const std::string kBigDataPayload = "{\"action\":\"SA0004\",\"type\":\"Report\"}\n";

struct HostCall {
  std::string kind, name, json;
  std::uintptr_t reserved;
  std::int32_t flags;
  DWORD thread;
};

std::mutex g_callsLock;
std::condition_variable g_callArrived;
std::vector<HostCall> g_hostCalls;

int RecordingCallback(const char* kind, const char* name, const char* json, std::uintptr_t reserved,
                      std::int32_t flags) {
  {
    std::lock_guard<std::mutex> lock(g_callsLock);
    g_hostCalls.push_back({kind ? kind : "(null)", name ? name : "(null)", json ? json : "(null)",
                           reserved, flags, GetCurrentThreadId()});
  }
  g_callArrived.notify_all();
  return 0x7777;  // ignored by the plug-in
}

// Waits up to `ms` until `count` host calls were recorded; returns how many.
std::size_t WaitHostCalls(std::size_t count, int ms) {
  std::unique_lock<std::mutex> lock(g_callsLock);
  g_callArrived.wait_for(lock, std::chrono::milliseconds(ms), [&] { return g_hostCalls.size() >= count; });
  return g_hostCalls.size();
}

std::vector<FusionSimCall> Calls(int opnum) {
  std::vector<FusionSimCall> all;
  EXPECT_TRUE(FusionSimReadCalls(&all));
  std::vector<FusionSimCall> out;
  for (const FusionSimCall& c : all)
    if (c.opnum == opnum) out.push_back(c);
  return out;
}

std::uint32_t Dword(const FusionSimCall& c) {
  return c.dataLen >= 4 ? static_cast<std::uint32_t>(c.data[0] | c.data[1] << 8 | c.data[2] << 16 |
                                                     static_cast<std::uint32_t>(c.data[3]) << 24)
                        : 0xdeadbeef;
}

std::string Attention(int delay, int status) {
  return "{\"cmd\":\"get_attention\",\"delay\":" + std::to_string(delay) +
         ",\"status\":" + std::to_string(status) + "}\n";
}

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
    if (FusionSimServiceState() == 0) {
      ASSERT_TRUE(FusionSimInstallService(L""));
    }
    if (FusionSimServiceState() != SERVICE_STOPPED) {
      ASSERT_TRUE(FusionSimStopService());
    }
    std::lock_guard<std::mutex> lock(g_callsLock);
    g_hostCalls.clear();
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
  for (const FusionSimCall& c : Calls(kOpStartSensor)) EXPECT_EQ(0, c.arg1);
  std::vector<FusionSimCall> delays = Calls(kOpSetSensorParam);
  ASSERT_EQ(1u, delays.size());
  EXPECT_EQ(kAttentionSensor, delays[0].arg0);
  EXPECT_EQ(4u, delays[0].dataLen);
  EXPECT_EQ(10u, Dword(delays[0]));
  EXPECT_EQ(Attention(10, 1), plugin.Action("get_attention", nullptr));

  // The host switches attention on: exactly one start request with 1.
  ASSERT_TRUE(FusionSimClearCalls());
  DeleteLog();
  EXPECT_EQ(Attention(10, 2), plugin.Action("set_attention_status", "{\"F4010\":{\"status\":2}}"));
  std::vector<FusionSimCall> starts = Calls(kOpStartSensor);
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
  EXPECT_EQ(Attention(30, 2), plugin.Action("set_attention_delay", "{\"F4010\":{\"delay\":30}}"));
  delays = Calls(kOpSetSensorParam);
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
  {
    std::lock_guard<std::mutex> lock(g_callsLock);
    ASSERT_EQ(1u, g_hostCalls.size());
    const HostCall& call = g_hostCalls[0];
    EXPECT_EQ("BIGDATA", call.kind);
    EXPECT_EQ("BIGDATA", call.name);
    EXPECT_EQ(kBigDataPayload, call.json);
    EXPECT_EQ(0u, call.reserved);
    EXPECT_EQ(0, call.flags);
    EXPECT_NE(GetCurrentThreadId(), call.thread);
  }
  // The record was fetched for the attention sensor; then the bridge, the
  // report and the handler wrote their records, in that order.
  std::vector<FusionSimCall> fetches = Calls(kOpGetSensorData);
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
  EXPECT_EQ(1u, Calls(kOpUnInit).size());
  EXPECT_EQ(std::vector<std::string>{"close attention client."}, LogMessages("AttentionPlugin.cpp", 241));
}

DWORD ThreadsOfThisProcess() {
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry = {};
  entry.dwSize = sizeof(entry);
  DWORD count = 0;
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
    if (entry.th32OwnerProcessID == GetCurrentProcessId()) ++count;
  CloseHandle(snapshot);
  return count;
}

// The set-up's stop (StartFusion 0) runs right after InitFusion started the
// waiting thread; a thread that took its handles only after the stop cleared
// them would wait on a null handle, never see its stop event and spin for
// good. After "close" no thread of the plug-in may be left.
TEST_F(Flow, CloseEndsEveryPluginThread) {
  ASSERT_TRUE(plugin.Load(kNoAuthDll));
  ASSERT_EQ(0, plugin.Init(nullptr, RecordingCallback));
  const DWORD before = ThreadsOfThisProcess();
  EXPECT_EQ("", plugin.Action("init", nullptr));
  EXPECT_EQ(Attention(10, 2), plugin.Action("set_attention_status", "{\"F4010\":{\"status\":2}}"));
  EXPECT_EQ("", plugin.Action("close", nullptr));
  // The runtime's own worker threads (RPC) may stay; bounded poll for ours.
  DWORD after = ThreadsOfThisProcess();
  for (int i = 0; i < 50 && after > before; ++i, Sleep(100)) after = ThreadsOfThisProcess();
  EXPECT_LE(after, before);
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
  const HostRun first = RunHost(kNoAuthDll, {
                                                "# demo-like session",
                                                "ability",
                                                "init",
                                                "set_attention_status={\"F4010\":{\"status\":2}}",
                                                "wait-callback 10000 BIGDATA",
                                                "set_attention_delay {\"F4010\":{\"delay\":45}}",
                                                "close",
                                            });
  lookAway.join();
  ASSERT_FALSE(first.timedOut) << first.output;
  EXPECT_EQ(0u, first.exitCode) << first.output;
  const std::vector<std::string> callbacks = first.Lines("[callback] ");
  ASSERT_EQ(1u, callbacks.size()) << first.output;
  EXPECT_NE(std::string::npos, callbacks[0].find("(plug-in thread): kind=BIGDATA name=BIGDATA "
                                                 "json={\"action\":\"SA0004\",\"type\":\"Report\"}\\n arg4=0 arg5=0"))
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
  EXPECT_NE(std::string::npos, again[0].find("{\"cmd\":\"get_attention\",\"delay\":-1,\"status\":-1}\\n"));
  EXPECT_NE(std::string::npos, again[2].find("{\"cmd\":\"get_attention\",\"delay\":45,\"status\":2}\\n"));
  std::vector<FusionSimCall> starts;
  for (const FusionSimCall& c : Calls(kOpStartSensor))
    if (c.arg1 == 1) starts.push_back(c);
  EXPECT_EQ(1u, starts.size());
  std::vector<FusionSimCall> delays = Calls(kOpSetSensorParam);
  ASSERT_EQ(1u, delays.size());
  EXPECT_EQ(45u, Dword(delays[0]));
}

}  // namespace
