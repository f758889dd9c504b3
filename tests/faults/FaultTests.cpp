// Fault survival end to end: the plug-in's test variant against the sensor
// fusion simulator while the service is absent, killed in the middle of a
// call, answering error codes, never signalling, answering seconds late, or
// firing events as fast as it can. Checked is what a host sees: the action
// results, the host callback, the decoded log, the simulator's record of what
// crossed the pipe, and that the host process is alive and answers.
//
// FreshHost cases run the plug-in in another process (qxhost, or this program
// in a child role), so it meets the fault with nothing set up before. They
// come first: the fusion client never closes the attention event it opened
// (deliberately), so once this process has hosted the plug-in, "the event
// does not exist" can no longer be staged. Running cases load a fresh copy of
// the DLL into this process.
//
// The simulator runs as the service "VantoqSensorFusion" (which "init"
// restarts with net.exe, losing the simulator's knobs), or, with the service
// removed, as a console process that "init" cannot restart, so that answers
// forced before "init" stay in place.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <thread>

#include "PluginTestSupport.h"
#include "TestSupport.h"

using namespace qxtest;

namespace {

constexpr std::int32_t kCodeConnectFailed = 1;
constexpr std::int32_t kCodeSensorConnectFailed = 0x30000020;
constexpr std::int32_t kCodeRefused = 0x60000006;
constexpr std::int32_t kCodeEventNotOpened0 = 0x10000000;

constexpr wchar_t kAttentionEvent[] = L"Global\\Vantoq.SensorFusion.AttentionEVENT";
const std::string kBigDataPayload = "{\"action\":\"SA0004\",\"type\":\"Report\"}\n";

// The reports the fetched attention records imply: the first record a
// plug-in copy fetches counts as a change, then every change to 0.
std::size_t ExpectedReports(const std::vector<FusionSimCall>& calls, std::size_t* fetches = nullptr) {
  std::size_t expected = 0, answered = 0;
  std::int64_t last = -1;
  for (const FusionSimCall& c : calls) {
    if (c.opnum != kOpGetSensorData || !c.answered || c.result != 0) continue;
    ++answered;
    const std::uint32_t record = Dword(c);
    if (record == 0 && last != 0) ++expected;
    last = record;
  }
  if (fetches) *fetches = answered;
  return expected;
}

// Waits until the call record has stopped growing for `quietMs`; bounded.
void WaitPipeQuiet(DWORD quietMs, DWORD boundMs) {
  const DWORD end = GetTickCount() + boundMs;
  std::size_t last = SimCalls().size();
  DWORD since = GetTickCount();
  while (static_cast<LONG>(end - GetTickCount()) > 0 && GetTickCount() - since < quietMs) {
    Sleep(50);
    const std::size_t now = SimCalls().size();
    if (now != last) last = now, since = GetTickCount();
  }
}

// The service removed and the simulator run as a console process.
void UseConsoleSimulator(const std::wstring& args, FusionSimProcess* sim) {
  ASSERT_TRUE(FusionSimUninstallService());
  ASSERT_EQ(0u, FusionSimServiceState());
  ASSERT_TRUE(FusionSimLaunch(args, 15000, sim));
}

std::size_t CountInSensorLibLog(const std::string& text) {
  const std::string log = SensorLibLog();
  std::size_t n = 0;
  for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
  return n;
}

// Milliseconds of the day from a record's "MM-DD hh:mm:ss:mmm" head.
long RecordClock(const std::string& record) {
  int mo, d, h, mi, s, ms;
  if (std::sscanf(record.c_str(), "%d-%d %d:%d:%d:%d", &mo, &d, &h, &mi, &s, &ms) != 6) return -1;
  return ((h * 60L + mi) * 60L + s) * 1000L + ms;
}

std::string Last(const std::vector<std::string>& messages) {
  return messages.empty() ? "(no record)" : messages.back();
}
std::vector<std::string> RecordsAt(const std::string& place) {
  std::vector<std::string> out;
  for (const std::string& r : LogRecords())
    if (r.find("] " + place + " ") != std::string::npos) out.push_back(r);
  return out;
}

// A qxhost run must not have crashed or hung; returns its result lines.
std::vector<std::string> SurvivedResults(const HostRun& run, DWORD exitCode) {
  EXPECT_FALSE(run.timedOut) << run.output;
  EXPECT_EQ(exitCode, run.exitCode) << run.output;
  EXPECT_EQ(std::string::npos, run.output.find("structured exception")) << run.output;
  return run.Lines("[result] ");
}

class FreshHost : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    DeleteLog();
  }
  void TearDown() override {
    if (sim.process) FusionSimQuit(5000, &sim);
    ResetRegistry();
    if (FusionSimServiceState() == 0) {
      EXPECT_TRUE(FusionSimInstallService(L""));
    }
  }
  FusionSimProcess sim;
};

// The service runs but its attention event does not exist: InitFusion answers
// 0x10000006, which is not the one code that is retried, so the set-up fails
// at once and the machine counts as not supporting attention.
TEST_F(FreshHost, MissingAttentionEventFailsSetUpWithoutRetry) {
  UseConsoleSimulator(L"--no-attention-event", &sim);
  HANDLE held = OpenEventW(SYNCHRONIZE, FALSE, kAttentionEvent);
  if (held) CloseHandle(held);
  ASSERT_EQ(nullptr, held) << "a process of this prefix still holds the attention event";

  const HostRun run = RunHost(kNoAuthDll, {"init", "get_attention", "set_attention_status=" + StatusParams(2),
                                           "set_attention_delay=" + DelayParams(30), "close"});
  const std::vector<std::string> results = SurvivedResults(run, 0);
  ASSERT_EQ(5u, results.size()) << run.output;
  for (int i : {1, 2, 3}) EXPECT_NE(std::string::npos, results[i].find(Printed(Attention(10, 0)))) << results[i];

  EXPECT_EQ(std::vector<std::string>{"attention_init initfusion 10000006"}, LogMessages("AttentionFuntion", 229));
  EXPECT_TRUE(LogMessages("AttentionFuntion", 234).empty());
  EXPECT_EQ(std::vector<std::string>{"ability: 0"}, LogMessages("AttentionPlugin.cpp", 193));
  EXPECT_EQ(std::vector<std::string>{"current device not support attention,set parameter_delay fail."},
            LogMessages("AttentionPlugin.cpp", 316));
  // One FusionSetting, nothing started or sent, the goodbye at "close".
  EXPECT_EQ(1u, SimCalls(kOpSetting).size()) << DumpSimCalls();
  EXPECT_TRUE(SimCalls(kOpStartSensor).empty()) << DumpSimCalls();
  EXPECT_TRUE(SimCalls(kOpSetSensorParam).empty()) << DumpSimCalls();
  EXPECT_EQ(1u, SimCalls(kOpUnInit).size()) << DumpSimCalls();
  EXPECT_EQ(std::optional<DWORD>(0), GetUserDword(L"attention_state"));
}

// No service installed, every action on the way, with a status and a delay
// stored by an earlier session: the host gets an answer for each; the failed
// set-up treats the machine as not supporting attention, which overwrites the
// stored status with 0 at every load and keeps the stored delay; jsoncpp's
// conversion exception (the one exception of the contract) leaves the host
// able to go on.
TEST_F(FreshHost, AbsentServiceEveryActionAnswers) {
  ASSERT_TRUE(FusionSimUninstallService());
  SetUserValue(L"attention_state", 2);
  SetUserValue(L"attention_delay", 25);
  const std::size_t exceptionsBefore = CountInSensorLibLog("Runtime reported exception 0x");
  const HostRun run = RunHost(
      kNoAuthDll, {"ability", "init", "get_attention", "set_attention_status=" + StatusParams(2),
                   "set_attention_delay=" + DelayParams(30), "set_attention_status={\"F4010\":{\"status\":\"2\"}}",
                   "get_attention", "init", "close", "get_attention"});
  // Exit code 4: a C++ exception escaped one action (the unconvertible
  // "status"); every other action answered.
  const std::vector<std::string> results = SurvivedResults(run, 4);
  EXPECT_EQ(1u, run.Lines("[exception] C++ exception").size()) << run.output;
  EXPECT_NE(std::string::npos, run.output.find("Value is not convertible to Int.")) << run.output;
  ASSERT_EQ(9u, results.size()) << run.output;
  EXPECT_NE(std::string::npos, results[0].find("{\"ability\":0,")) << results[0];
  for (int i : {2, 3, 4, 5, 8}) EXPECT_NE(std::string::npos, results[i].find(Printed(Attention(25, 0)))) << results[i];
  // "init" and "close" hand back a one-byte buffer: only the terminating zero.
  for (int i : {1, 6, 7})
    EXPECT_NE(std::string::npos, results[i].find(" -> 0, 1 bytes with the terminating zero: (empty text)")) << results[i];
  EXPECT_EQ(std::optional<DWORD>(0), GetUserDword(L"attention_state"));
  EXPECT_EQ(std::optional<DWORD>(25), GetUserDword(L"attention_delay"));

  // "ability" before "init" could not reach the service: the status call
  // failed and left the preset word (the client's own log opens only with
  // "init", so that failure is told by this record alone).
  EXPECT_EQ(std::vector<std::string>{"Attention active :-1"}, LogMessages("AttentionFuntion", 124));
  // Each "init": FusionSetting found no server; the client logged the exception.
  EXPECT_LT(exceptionsBefore, CountInSensorLibLog("Runtime reported exception 0x"));
  EXPECT_EQ((std::vector<std::string>{"attention_init initfusion 1", "attention_init initfusion 1"}),
            LogMessages("AttentionFuntion", 229));
  EXPECT_EQ((std::vector<std::string>{"ability: 0", "ability: 0"}), LogMessages("AttentionPlugin.cpp", 193));
  EXPECT_EQ((std::vector<std::string>{"register attention status: 0, register attention delay:25 ",
                                      "register attention status: 0, register attention delay:25 "}),
            LogMessages("AttentionPlugin.cpp", 196));
  EXPECT_EQ(std::vector<std::string>{"current device not support attention,set parameter_status fail."},
            LogMessages("AttentionPlugin.cpp", 275));
  EXPECT_EQ(std::vector<std::string>{"close attention client."}, LogMessages("AttentionPlugin.cpp", 241));
  // A response record for every action that answered, none for the one that threw.
  EXPECT_EQ(9u, LogMessages("AttentionPlugin.cpp", 341).size());
}

// The codes a refused FusionSetting (opnum 0) passes on through InitFusion:
// only 0x10000000 is retried, once, after 400 ms; every code ends the set-up.
TEST_F(FreshHost, RefusedFusionSettingCodesAtInit) {
  UseConsoleSimulator(L"", &sim);
  for (std::int32_t code : {kCodeConnectFailed, kCodeSensorConnectFailed, kCodeRefused, kCodeEventNotOpened0}) {
    SCOPED_TRACE(testing::Message() << "opnum 0 answers 0x" << std::hex << code);
    DeleteLog();
    ResetRegistry();
    ASSERT_TRUE(FusionSimClearCalls());
    ASSERT_TRUE(FusionSimForceResult(kOpSetting, code));
    // "init", then "close" and "get_attention" on the same thread: the client's
    // lock, kept by the refused FusionSetting, is re-entered by its owner.
    const HostRun run = RunHost(kNoAuthDll, {"init", "close", "get_attention"});
    const std::vector<std::string> results = SurvivedResults(run, 0);
    ASSERT_EQ(3u, results.size()) << run.output;
    EXPECT_NE(std::string::npos, results[2].find(Printed(Attention(10, 0)))) << results[2];

    char hex[16];
    std::snprintf(hex, sizeof(hex), "%x", static_cast<unsigned>(code));
    const std::vector<std::string> first = RecordsAt("AttentionFuntion(229)");
    const std::vector<std::string> retry = RecordsAt("AttentionFuntion(234)");
    ASSERT_EQ(1u, first.size());
    EXPECT_NE(std::string::npos, first[0].find(std::string("attention_init initfusion ") + hex + "\n")) << first[0];
    if (code == kCodeEventNotOpened0) {
      ASSERT_EQ(1u, retry.size());
      EXPECT_NE(std::string::npos, retry[0].find(std::string("attention_init initfusion2 ") + hex + "\n"));
      long gap = RecordClock(retry[0]) - RecordClock(first[0]);
      if (gap < 0) gap += 24L * 3600 * 1000;
      EXPECT_GE(gap, 390);
      EXPECT_EQ(2u, SimCalls(kOpSetting).size()) << DumpSimCalls();
    } else {
      EXPECT_TRUE(retry.empty());
      EXPECT_EQ(1u, SimCalls(kOpSetting).size()) << DumpSimCalls();
    }
    EXPECT_EQ(std::vector<std::string>{"ability: 0"}, LogMessages("AttentionPlugin.cpp", 193));
    EXPECT_TRUE(SimCalls(kOpStartSensor).empty()) << DumpSimCalls();
    EXPECT_EQ(1u, SimCalls(kOpUnInit).size()) << DumpSimCalls();
    EXPECT_EQ(std::vector<std::string>{"close attention client."}, LogMessages("AttentionPlugin.cpp", 241));
  }
}

// After a refused FusionSetting the client's lock stays with the thread that
// ran "init" (deliberately). A host that calls from another thread then blocks
// in the next remote call for good. This is allowed; it is shown in a child
// process, waited for with a bound, and killed.
TEST_F(FreshHost, RefusedFusionSettingBlocksOtherThreadsOnly) {
  UseConsoleSimulator(L"", &sim);
  ASSERT_TRUE(FusionSimForceResult(kOpSetting, kCodeSensorConnectFailed));
  const std::wstring dir = testsupport::TempDir(L"faults-lock");

  // "close" from a second thread: it never returns.
  ASSERT_TRUE(FusionSimClearCalls());
  const std::wstring out = dir + L"\\other-thread.txt";
  HANDLE child = testsupport::StartSelf(L"refused-setting", {L"other-thread"}, out);
  ASSERT_NE(nullptr, child);
  // Bounded: the child either hangs (expected) or ends; -1 means it was killed.
  const DWORD deadline = GetTickCount() + 30000;
  while (testsupport::ReadFileBytes(out).find("close from a second thread") == std::string::npos &&
         static_cast<LONG>(deadline - GetTickCount()) > 0)
    Sleep(50);
  EXPECT_EQ(-1, testsupport::WaitChild(child, 3000)) << "a second thread got through the kept lock";
  std::string text = testsupport::ReadFileBytes(out);
  EXPECT_NE(std::string::npos, text.find("init done: {\"cmd\":\"get_attention\",\"delay\":10,\"status\":0}")) << text;
  EXPECT_NE(std::string::npos, text.find("close from a second thread")) << text;
  EXPECT_EQ(std::string::npos, text.find("close returned")) << text;
  EXPECT_TRUE(SimCalls(kOpUnInit).empty()) << DumpSimCalls();

  // The same "close" on the thread that ran "init" goes through.
  ASSERT_TRUE(FusionSimClearCalls());
  const std::wstring out2 = dir + L"\\same-thread.txt";
  EXPECT_EQ(0, testsupport::WaitChild(testsupport::StartSelf(L"refused-setting", {L"same-thread"}, out2), 30000));
  text = testsupport::ReadFileBytes(out2);
  EXPECT_NE(std::string::npos, text.find("close returned")) << text;
  EXPECT_EQ(1u, SimCalls(kOpUnInit).size()) << DumpSimCalls();
}

// Child role: the host of the test above.
int RoleRefusedSetting(const std::string& mode) {
  Plugin plugin;
  if (!plugin.Load(kNoAuthDll)) return 2;
  plugin.Init(nullptr, RecordingCallback);
  plugin.Action("init", nullptr);
  std::printf("init done: %s", plugin.Action("get_attention", nullptr).c_str());
  std::fflush(stdout);
  auto close = [&] {
    std::printf("close from a %s\n", mode == "same-thread" ? "the init thread" : "second thread");
    std::fflush(stdout);
    plugin.Action("close", nullptr);
    std::printf("close returned\n");
    std::fflush(stdout);
  };
  if (mode == "same-thread") {
    close();
  } else {
    std::thread other(close);
    other.join();  // never returns: the parent kills this process
  }
  return 0;
}

// =============================================================================
// Running: the plug-in in this process, against the simulator as the service.

class Running : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    DeleteLog();
    ASSERT_NO_FATAL_FAILURE(PrepareStoppedService());
    ClearHostCalls();
    ASSERT_TRUE(plugin.Load(kNoAuthDll));
    ASSERT_EQ(0, plugin.Init(nullptr, RecordingCallback));
  }
  void TearDown() override {
    // A copy's event thread must not outlive its test: it would answer the
    // next test's events.
    if (initDone) {
      FusionSimClearForced(-1);
      FusionSimHoldReplies(false);
      FusionSimSetReplyDelay(0);
      plugin.Action("close", nullptr);
    }
    plugin.Unload();
    EXPECT_TRUE(FusionSimStopService());
    ResetRegistry();
  }

  // "init" with the service, then attention switched on (its waiting thread runs).
  void InitAndSwitchOn() {
    EXPECT_EQ("", plugin.Action("init", nullptr));
    initDone = true;
    ASSERT_EQ(std::vector<std::string>{"ability: 1"}, LogMessages("AttentionPlugin.cpp", 193));
    ASSERT_EQ(Attention(10, 2), plugin.Action("set_attention_status", StatusParams(2).c_str()));
    ASSERT_TRUE(FusionSimClearCalls());
    DeleteLog();
  }

  // The host is alive and answers: an action that touches only its own state.
  void ExpectResponsive(int delay, int status) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Attention(delay, status), plugin.Action("get_attention", nullptr));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  }

  // Runs an action on a worker thread (the host's second thread); the result
  // is waited for with a bound.
  std::future<std::string> ActionAsync(const char* name, std::string params) {
    return std::async(std::launch::async, [this, name, params] { return plugin.Action(name, params.c_str()); });
  }

  Plugin plugin;
  bool initDone = false;
};

// Each error code the service may answer, on each call the actions make
// after "init": the host gets its answer, the state moves as the actions
// define it, and the log names the code.
TEST_F(Running, ErrorCodesOnStartStopDelayFetchAndGoodbye) {
  InitAndSwitchOn();

  // The delay: refused with each code, the old delay stays and is reported.
  for (std::int32_t code : {kCodeConnectFailed, kCodeSensorConnectFailed, kCodeRefused}) {
    SCOPED_TRACE(testing::Message() << "opnum 2 answers " << code);
    ASSERT_TRUE(FusionSimForceResult(kOpSetSensorParam, code));
    EXPECT_EQ(Attention(10, 2), plugin.Action("set_attention_delay", DelayParams(50).c_str()));
    EXPECT_EQ("set attention delay fail,resp: " + std::to_string(code), Last(LogMessages("AttentionPlugin.cpp", 329)));
    EXPECT_EQ(std::optional<DWORD>(10), GetUserDword(L"attention_delay"));
  }
  ASSERT_TRUE(FusionSimClearForced(kOpSetSensorParam));
  EXPECT_EQ(3u, SimCalls(kOpSetSensorParam).size()) << DumpSimCalls();

  // A refused fetch (opnum 1): no report reaches the host.
  ASSERT_TRUE(FusionSimForceResult(kOpGetSensorData, kCodeSensorConnectFailed));
  ASSERT_TRUE(FusionSimSetAttention(0, true));
  ASSERT_TRUE(FusionSimWaitCalls(4, 5000)) << DumpSimCalls();
  EXPECT_EQ(0u, WaitHostCalls(1, 500));
  ASSERT_TRUE(FusionSimClearForced(kOpGetSensorData));
  ASSERT_TRUE(FusionSimSetAttention(0, true));
  EXPECT_EQ(1u, WaitHostCalls(1, 5000)) << DumpSimCalls();

  // A refused stop: the host's status still changes, the waiting thread is
  // stopped all the same (no more reports), the code is logged.
  ASSERT_TRUE(FusionSimForceResult(kOpStartSensor, kCodeSensorConnectFailed));
  EXPECT_EQ(Attention(10, 1), plugin.Action("set_attention_status", StatusParams(1).c_str()));
  EXPECT_EQ("attention_stop =" + std::to_string(kCodeSensorConnectFailed) + " SetFusionActive 0",
            Last(LogMessages("AttentionFuntion", 276)));
  EXPECT_EQ(std::optional<DWORD>(1), GetUserDword(L"attention_state"));

  // A refused start: status 2 is stored and answered, but the client starts
  // no waiting thread after a refused start, so looking away reports nothing.
  ASSERT_TRUE(FusionSimForceResult(kOpStartSensor, kCodeRefused));
  EXPECT_EQ(Attention(10, 2), plugin.Action("set_attention_status", StatusParams(2).c_str()));
  EXPECT_EQ("tof_start end" + std::to_string(kCodeRefused), Last(LogMessages("AttentionFuntion", 267)));
  EXPECT_EQ(std::optional<DWORD>(2), GetUserDword(L"attention_state"));
  ASSERT_TRUE(FusionSimClearCalls());
  ASSERT_TRUE(FusionSimSetAttention(1, true));
  ASSERT_TRUE(FusionSimSetAttention(0, true));
  Sleep(500);
  EXPECT_TRUE(SimCalls(kOpGetSensorData).empty()) << DumpSimCalls();
  EXPECT_EQ(1u, HostCalls().size());

  // Accepted again: the thread starts and the next look-away is reported.
  ASSERT_TRUE(FusionSimClearForced(kOpStartSensor));
  EXPECT_EQ(Attention(10, 2), plugin.Action("set_attention_status", StatusParams(2).c_str()));
  ASSERT_TRUE(FusionSimSetAttention(1, true));
  ASSERT_TRUE(FusionSimWaitCalls(2, 5000)) << DumpSimCalls();
  Sleep(200);
  ASSERT_TRUE(FusionSimSetAttention(0, true));
  EXPECT_EQ(2u, WaitHostCalls(2, 5000));

  // A refused goodbye (opnum 5): "close" still answers and logs the code.
  ASSERT_TRUE(FusionSimForceResult(kOpUnInit, kCodeRefused));
  std::size_t bytes = 0;
  EXPECT_EQ("", plugin.Action("close", nullptr, &bytes));
  EXPECT_EQ(1u, bytes);
  initDone = false;
  EXPECT_EQ(std::vector<std::string>{"attention_un_init 60000006"}, LogMessages("AttentionFuntion", 250));
  EXPECT_EQ(std::vector<std::string>{"close attention client."}, LogMessages("AttentionPlugin.cpp", 241));
  // No thread is left to answer events.
  ASSERT_TRUE(FusionSimClearCalls());
  ASSERT_TRUE(FusionSimSetAttention(1, true));
  Sleep(300);
  EXPECT_TRUE(SimCalls(kOpGetSensorData).empty()) << DumpSimCalls();
  ExpectResponsive(10, 2);
  for (const HostCall& call : HostCalls()) EXPECT_EQ(kBigDataPayload, call.json);
}

// The attention event is never signalled: nothing is fetched, nothing
// reported, and "close" still ends the waiting thread at once.
TEST_F(Running, EventNeverSignalled) {
  InitAndSwitchOn();
  const std::size_t exitsBefore = CountInSensorLibLog("Tread exit,index:6");
  Sleep(1500);
  EXPECT_TRUE(SimCalls(kOpGetSensorData).empty()) << DumpSimCalls();
  EXPECT_EQ(0u, HostCalls().size());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ("", plugin.Action("close", nullptr));
  initDone = false;
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  EXPECT_EQ(exitsBefore + 1, CountInSensorLibLog("Tread exit,index:6"));
  EXPECT_EQ(1u, SimCalls(kOpUnInit).size()) << DumpSimCalls();
  ExpectResponsive(10, 2);
}

// Every reply takes seconds: the actions wait for it and answer correctly; a
// report fetched meanwhile arrives late but once; actions that need no
// remote call answer at once even while the event thread waits.
TEST_F(Running, RepliesDelayedBySeconds) {
  InitAndSwitchOn();
  ASSERT_TRUE(FusionSimSetReplyDelay(2000));
  ASSERT_TRUE(FusionSimSetAttention(0, true));  // the fetch now takes 2 s
  ASSERT_TRUE(FusionSimWaitCalls(1, 5000));
  ExpectResponsive(10, 2);

  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Attention(45, 2), plugin.Action("set_attention_delay", DelayParams(45).c_str()));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
  EXPECT_EQ(std::optional<DWORD>(45), GetUserDword(L"attention_delay"));
  EXPECT_EQ(1u, WaitHostCalls(1, 10000));

  start = std::chrono::steady_clock::now();
  EXPECT_EQ(Attention(45, 1), plugin.Action("set_attention_status", StatusParams(1).c_str()));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
  EXPECT_EQ(std::vector<std::string>{"attention_stop =0 SetFusionActive 0"}, LogMessages("AttentionFuntion", 276));

  start = std::chrono::steady_clock::now();
  EXPECT_EQ("", plugin.Action("close", nullptr));
  initDone = false;
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
  EXPECT_EQ(std::vector<std::string>{"attention_un_init 0"}, LogMessages("AttentionFuntion", 250));
  ASSERT_TRUE(FusionSimSetReplyDelay(0));
  EXPECT_EQ(1u, HostCalls().size());
  ExpectResponsive(45, 1);
}

// Events fired as fast as the simulator can while the host runs actions on
// another thread, switching attention off and on among them (which stops and
// starts the waiting thread). The host survives, its state is what its
// actions made it, and it got exactly one report per change to 0 among the
// records the waiting thread fetched.
//
// The storm pauses while attention is switched off. The waiting thread waits
// on its sensor event first and its stop event second, so a sensor event that
// is signalled again before every wait can starve the stop past the 1000 ms
// that stopping allows; the thread then outlives its closed stop event and is
// left behind, as the design accepts for a thread that does not end in time.
// Under load on this machine that happened about one run in four.
TEST_F(Running, EventStormWhileActionsRunOnAnotherThread) {
  const DWORD threadsBefore = ThreadsOfThisProcess();
  InitAndSwitchOn();
  // The host thread runs a fixed series of actions; events are fired for as
  // long as it runs.
  std::atomic<bool> hostDone{false};
  std::atomic<bool> pauseStorm{false};
  std::atomic<bool> stormPaused{false};
  int lastDelay = 10;
  int actions = 0;
  std::thread host([&] {
    for (int i = 0; i < 60; ++i) {
      const int delay = 10 + (i * 7) % 51;
      EXPECT_EQ(Attention(delay, 2), plugin.Action("set_attention_delay", DelayParams(delay).c_str()));
      lastDelay = delay;
      EXPECT_EQ(Attention(delay, 2), plugin.Action("get_attention", nullptr));
      actions += 2;
      if (i % 5 == 4) {
        pauseStorm = true;
        for (int wait = 0; wait < 500 && !stormPaused; ++wait) Sleep(10);
        EXPECT_EQ(Attention(delay, 1), plugin.Action("set_attention_status", StatusParams(1).c_str()));
        EXPECT_EQ(Attention(delay, 2), plugin.Action("set_attention_status", StatusParams(2).c_str()));
        pauseStorm = false;
        actions += 2;
      }
    }
    hostDone = true;
  });
  // The simulator keeps the first kFusionSimMaxCalls calls: the storm ends
  // early rather than overflow the record the check below needs whole.
  int signals = 0;
  while (!hostDone) {
    if (pauseStorm) {
      stormPaused = true;
      Sleep(1);
      continue;
    }
    stormPaused = false;
    if (!FusionSimSetAttention(signals % 2 ? 1 : 0, true)) {
      ADD_FAILURE() << "simulator gone";
      break;
    }
    if (++signals % 256 == 0 && SimCalls().size() > kFusionSimMaxCalls - 800) break;
  }
  host.join();
  WaitPipeQuiet(500, 15000);
  std::size_t calls = WaitHostCalls(100000, 300);

  FusionSimModel model = {};
  ASSERT_TRUE(FusionSimGetModel(&model));
  std::vector<FusionSimCall> all = SimCalls();
  ASSERT_LT(all.size(), static_cast<std::size_t>(kFusionSimMaxCalls)) << "call record full";

  // The reports the fetched records imply: the first record counts as a
  // change, then every change to 0.
  std::size_t fetches = 0;
  const std::size_t expected = ExpectedReports(all, &fetches);
  std::printf("%d signals, %zu fetches, %d actions, %zu reports\n", signals, fetches, actions, calls);
  EXPECT_GT(fetches, 10u);
  EXPECT_GT(expected, 0u);
  EXPECT_EQ(expected, calls);
  for (const HostCall& call : HostCalls()) {
    EXPECT_EQ("BIGDATA", call.kind);
    EXPECT_EQ("BIGDATA", call.name);
    EXPECT_EQ(kBigDataPayload, call.json);
  }
  EXPECT_EQ(calls, LogMessages("AttentionPlugin.cpp", 49).size());
  EXPECT_EQ(static_cast<std::size_t>(actions), LogMessages("AttentionPlugin.cpp", 341).size());

  // Consistent state: the last values the host set, here, in the registry
  // and at the service.
  ExpectResponsive(lastDelay, 2);
  EXPECT_EQ(std::optional<DWORD>(2), GetUserDword(L"attention_state"));
  EXPECT_EQ(std::optional<DWORD>(static_cast<DWORD>(lastDelay)), GetUserDword(L"attention_delay"));
  EXPECT_EQ(static_cast<std::uint32_t>(lastDelay), model.delay);
  EXPECT_EQ(0x10000001u, model.statusWord);

  // Every waiting thread the storm saw started and stopped has ended after
  // "close": none is left behind to take later events. This also covers the
  // set-up's stop (StartFusion 0) right after InitFusion started the thread:
  // a thread that took its handles only after the stop cleared them would
  // wait on a null handle and spin for good. The runtime's own RPC threads
  // may stay, so the count is polled with a bound.
  EXPECT_EQ("", plugin.Action("close", nullptr));
  initDone = false;
  DWORD after = ThreadsOfThisProcess();
  for (int i = 0; i < 50 && after > threadsBefore; ++i, Sleep(100)) after = ThreadsOfThisProcess();
  EXPECT_LE(after, threadsBefore);
}

// The service process is killed while a call waits for its reply; the call
// fails, the host goes on, and once the service is back the next actions
// and a new "init" work again.
//
// Kept last: after this case Wine's RPC runtime in this process was seen to
// hand the next plug-in copy's first call (FusionSetting of its "init", after
// the service had been stopped and started again) a dead pooled connection,
// failing it with 1727 (RPC_S_CALL_FAILED_DNE), so that copy's set-up failed
// once. A host process meets that only after a service crash and two restarts.
TEST_F(Running, ServiceKilledInTheMiddleOfACallAndRestarted) {
  InitAndSwitchOn();
  FusionSimModel model = {};
  ASSERT_TRUE(FusionSimGetModel(&model));
  HANDLE service = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, model.pid);
  ASSERT_NE(nullptr, service);

  ASSERT_TRUE(FusionSimHoldReplies(true));
  std::future<std::string> pending = ActionAsync("set_attention_delay", DelayParams(40));
  ASSERT_TRUE(FusionSimWaitCalls(1, 10000));
  ASSERT_EQ(std::future_status::timeout, pending.wait_for(std::chrono::milliseconds(300)));
  ASSERT_TRUE(TerminateProcess(service, 9));
  ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(service, 10000));
  CloseHandle(service);

  // The broken call ends as a refusal: the delay stays, the log says why.
  ASSERT_EQ(std::future_status::ready, pending.wait_for(std::chrono::seconds(20)));
  EXPECT_EQ(Attention(10, 2), pending.get());
  EXPECT_EQ(std::vector<std::string>{"set attention delay fail,resp: 1"}, LogMessages("AttentionPlugin.cpp", 329));
  EXPECT_EQ(std::vector<std::string>{"Set delay: 40 \xEF\xBC\x8Cresp:1"}, LogMessages("AttentionFuntion", 182));
  EXPECT_EQ(std::optional<DWORD>(10), GetUserDword(L"attention_delay"));
  ExpectResponsive(10, 2);

  // Without the service: switching off still stops the waiting thread and
  // answers; the failed remote stop is logged.
  EXPECT_EQ(Attention(10, 1), plugin.Action("set_attention_status", StatusParams(1).c_str()));
  EXPECT_EQ(std::vector<std::string>{"attention_stop =1 SetFusionActive 0"}, LogMessages("AttentionFuntion", 276));

  // The service comes back (as the SCM would start it again).
  const DWORD end = GetTickCount() + 10000;
  while (FusionSimServiceState() != SERVICE_STOPPED && static_cast<LONG>(end - GetTickCount()) > 0) Sleep(50);
  ASSERT_TRUE(FusionSimStartService());
  ASSERT_TRUE(FusionSimClearCalls());
  DeleteLog();

  // The next actions reach it over the old binding.
  EXPECT_EQ(Attention(40, 1), plugin.Action("set_attention_delay", DelayParams(40).c_str()));
  EXPECT_EQ(Attention(40, 2), plugin.Action("set_attention_status", StatusParams(2).c_str()));
  std::vector<FusionSimCall> delays = SimCalls(kOpSetSensorParam);
  ASSERT_EQ(1u, delays.size()) << DumpSimCalls();
  EXPECT_EQ(40u, Dword(delays[0]));
  EXPECT_EQ(std::vector<std::string>{"set attention delay success!"}, LogMessages("AttentionPlugin.cpp", 325));
  EXPECT_EQ(std::optional<DWORD>(40), GetUserDword(L"attention_delay"));

  // The waiting thread started again by the last action hears the new
  // service's events. Under Wine a fetch may fail once on a connection the
  // runtime kept from before the kill (1727, logged by the client; the
  // service never sees the call): that look-away is lost, as a failed fetch
  // always is. So the user looks away until a report comes (bounded), and
  // every fetch that did reach the service and changed the status to 0 must
  // have given exactly one report.
  const std::size_t lostBefore = CountInSensorLibLog("Runtime reported exception 0x6bf");
  for (int attempt = 0; attempt < 3 && HostCalls().size() == 0; ++attempt) {
    ASSERT_TRUE(FusionSimSetAttention(1, true));
    Sleep(300);
    ASSERT_TRUE(FusionSimSetAttention(0, true));
    WaitHostCalls(1, 3000);
  }
  EXPECT_EQ(ExpectedReports(SimCalls(kOpGetSensorData)), HostCalls().size()) << DumpSimCalls();
  EXPECT_GE(HostCalls().size(), 1u);
  std::printf("fetches lost after the restart: %zu\n", CountInSensorLibLog("Runtime reported exception 0x6bf") - lostBefore);

  // "close" and a new "init" set everything up again (the service is
  // restarted by it).
  EXPECT_EQ("", plugin.Action("close", nullptr));
  EXPECT_EQ("", plugin.Action("init", nullptr));
  EXPECT_EQ(std::vector<std::string>{"ability: 1"}, LogMessages("AttentionPlugin.cpp", 193));
  EXPECT_EQ(Attention(40, 2), plugin.Action("get_attention", nullptr));
  const std::size_t reports = HostCalls().size();
  ASSERT_TRUE(FusionSimSetAttention(1, true));
  ASSERT_TRUE(FusionSimWaitCalls(1, 5000));
  Sleep(200);
  ASSERT_TRUE(FusionSimSetAttention(0, true));
  EXPECT_EQ(reports + 1, WaitHostCalls(reports + 1, 5000));
}

}  // namespace

int main(int argc, char** argv) {
  testsupport::SetArgs(argc, argv);
  if (argc >= 4 && std::string(argv[1]) == "--role" && std::string(argv[2]) == "refused-setting")
    return RoleRefusedSetting(argv[3]);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
