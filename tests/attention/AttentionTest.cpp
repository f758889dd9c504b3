// The attention controller against the simulator run as the real service
// "VantoqSensorFusion" (the prefix's Service Control Manager, net.exe). What
// the controller did is read back from the simulator's record of the calls,
// the service state, the registry and the log's records.
//
// The cases run in the order written and share one process and one fusion
// client, so attention_init (0.4 s at least, by design) runs only where a case
// is about it. The status-change case runs in a child (this program again).
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "AttentionFuntion.h"
#include "FusionSimCtl.h"
#include "TestLog.h"
#include "TestSupport.h"

namespace {

using testlog::Record;

constexpr wchar_t kProductKey[] = L"SOFTWARE\\Vantoq\\Quillomatic";
constexpr wchar_t kAbilityValue[] = L"attention__ability";
constexpr wchar_t kServiceArgs[] = L"--quiet";  // as the ctest fixture installs it
constexpr wchar_t kChildQuitEvent[] = L"qx_attention_test_child_quit";
constexpr char kAF[] = "AttentionFuntion";
constexpr char kCH[] = "CommonHelper";

struct Expected {
  const char* tag;
  const char* source;
  int line;
  std::string text;  // exact, or a prefix when it ends with '*'
};

void CheckRecords(const std::vector<Record>& actual, const std::vector<Expected>& expected) {
  ASSERT_EQ(expected.size(), actual.size()) << "records:\n" << testlog::Dump(actual);
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const Expected& e = expected[i];
    const Record& a = actual[i];
    const bool prefix = !e.text.empty() && e.text.back() == '*';
    EXPECT_TRUE(e.tag == a.tag && e.source == a.source && e.line == a.line &&
                (prefix ? a.text.rfind(e.text.substr(0, e.text.size() - 1), 0) == 0 : a.text == e.text))
        << "record " << i << " is " << a.tag << " " << a.source << "(" << a.line << ") " << a.text
        << "\n  expected " << e.tag << " " << e.source << "(" << e.line << ") " << e.text;
  }
}
// Reports the line of the check as well.
#define EXPECT_RECORDS(actual, ...)       \
  do {                                    \
    SCOPED_TRACE("records checked here"); \
    CheckRecords((actual), __VA_ARGS__);  \
  } while (0)

// Milliseconds from record a to record b. Windows' clock may tick in steps of
// about 15.6 ms (Wine's is exact), hence the slack the callers allow.
long Gap(const Record& a, const Record& b) {
  long gap = b.msOfDay - a.msOfDay;
  return gap < 0 ? gap + 24L * 3600 * 1000 : gap;
}
constexpr long kClockSlackMs = 16;

std::vector<FusionSimCall> CallsOf(int opnum) {
  std::vector<FusionSimCall> all, out;
  EXPECT_TRUE(FusionSimReadCalls(&all));
  for (const FusionSimCall& c : all)
    if (c.opnum == opnum || opnum < 0) out.push_back(c);
  return out;
}
std::string DumpCalls() {
  std::string out;
  for (const FusionSimCall& c : CallsOf(-1)) out += "  " + FusionSimFormatCall(c) + "\n";
  return out;
}

void EnsureServiceStopped() {
  if (FusionSimServiceState() != SERVICE_STOPPED) {
    ASSERT_TRUE(FusionSimStopService(10000));
  }
  // The simulator's shared block goes with its process; a new start needs it gone.
  for (int i = 0; i < 200 && FusionSimWaitReady(0); ++i) Sleep(25);
}

void DeleteAbility(HKEY root) { RegDeleteKeyValueW(root, kProductKey, kAbilityValue); }

void SetMachineAbility(DWORD value) {
  ASSERT_EQ(ERROR_SUCCESS, RegSetKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, kAbilityValue, REG_DWORD, &value, 4));
}

// Reads the user-hive value; type and value stay at their poison when absent.
bool ReadUserAbility(DWORD* type, DWORD* value) {
  *type = *value = 0xdeadbeef;
  DWORD size = sizeof(*value);
  return RegGetValueW(HKEY_CURRENT_USER, kProductKey, kAbilityValue, RRF_RT_ANY, type, value, &size) ==
         ERROR_SUCCESS;
}

class AttentionEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    testlog::SetUp(L"qx_attention_test.log");
    DeleteAbility(HKEY_LOCAL_MACHINE);
    DeleteAbility(HKEY_CURRENT_USER);
    ASSERT_NE(0u, FusionSimServiceState()) << "the ctest fixture installs the simulator as the service";
  }
  void TearDown() override {
    DeleteAbility(HKEY_LOCAL_MACHINE);
    DeleteAbility(HKEY_CURRENT_USER);
    FusionSimClearForced(-1);
    // The fixture uninstalls the service; leave it installed and stopped.
    if (FusionSimServiceState() == 0) FusionSimInstallService(kServiceArgs);
    EnsureServiceStopped();
  }
};

// Every case starts from a clean call record, no forced answers and a log mark.
class AttentionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FusionSimClearForced(-1);
    FusionSimClearCalls();
    mark_ = testlog::Mark();
  }
  std::vector<Record> Records() const { return testlog::Since(mark_); }
  std::size_t mark_ = 0;
};

// =============================================================================
// Service check and restart, as attention_init runs them.

using ServiceTest = AttentionTest;

TEST_F(ServiceTest, NotRunningServiceGetsTheStopCommandAndPauseThenTheRestart) {
  const struct {
    bool installed;
    const char* check;     // SERVICE_STOPPED is 1
    const char* started;   // the restart's "net start" record
    int init;
    const char* initText;  // with no service InitFusion answers 1, not retried
  } cases[] = {
      {false, "ServiceInstall ret=1 s:0", "WaitFor RunProcess Signal On, dwCode *", 0, "attention_init initfusion 1"},
      {true, "ServiceInstall ret=0 s:1", "WaitFor RunProcess Signal On, dwCode 0", 1, "attention_init initfusion 0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.check);
    if (c.installed)
      EnsureServiceStopped();
    else
      ASSERT_TRUE(FusionSimUninstallService(10000));
    const std::size_t mark = testlog::Mark();
    EXPECT_EQ(c.init, attention_init());
    const auto records = testlog::Since(mark);
    EXPECT_RECORDS(records, {{"[INF]", kAF, 25, c.check},
                             {"[DBG]", kAF, 54, "Fusion_service_restart SensorFusionServ"},
                             {"[INF]", kCH, 3188, "WaitFor RunProcess Signal On, dwCode *"},
                             {"[DBG]", kAF, 81, "Fusion_service_restart SensorFusionServ"},
                             {"[INF]", kCH, 3188, "WaitFor RunProcess Signal On, dwCode *"},
                             {"[INF]", kCH, 3188, c.started},
                             {"[INF]", kAF, 229, c.initText}});
    if (records.size() == 7) {
      EXPECT_GE(Gap(records[2], records[3]), 400 - kClockSlackMs) << "pause after the check's stop command";
      EXPECT_GE(Gap(records[4], records[5]), 200 - kClockSlackMs) << "pause after the restart's stop command";
      EXPECT_GE(Gap(records[5], records[6]), 200 - kClockSlackMs) << "pause after the restart's start command";
      if (!c.installed) {
        EXPECT_NE("WaitFor RunProcess Signal On, dwCode 0", records[5].text);
      }
    }
    if (!c.installed) {
      EXPECT_EQ(0u, FusionSimServiceState()) << "nothing installs the service";
      ASSERT_TRUE(FusionSimInstallService(kServiceArgs));
    }
  }
  // "net start VantoqSensorFusion" started the simulator and the client set
  // itself up with it: the sensor mask 0x40, and nothing else yet.
  EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), FusionSimServiceState());
  ASSERT_TRUE(FusionSimWaitReady(5000));
  const auto calls = CallsOf(-1);
  ASSERT_EQ(1u, calls.size()) << DumpCalls();
  EXPECT_EQ(0, calls[0].opnum);
  EXPECT_EQ(0x40, calls[0].arg0);
}

TEST_F(ServiceTest, UnInitSaysGoodbyeAndRunningServiceIsStillRestarted) {
  ASSERT_EQ(static_cast<DWORD>(SERVICE_RUNNING), FusionSimServiceState());
  EXPECT_EQ(0, attention_un_init());
  EXPECT_RECORDS(Records(), {{"[INF]", kAF, 250, "attention_un_init 0"}});
  ASSERT_EQ(1u, CallsOf(5).size()) << DumpCalls();

  // Running: the check writes one record and runs nothing, but the restart
  // still gives both of its commands with their pauses.
  mark_ = testlog::Mark();
  EXPECT_EQ(1, attention_init());
  const auto records = Records();
  EXPECT_RECORDS(records, {{"[INF]", kAF, 25, "ServiceInstall ret=0 s:4"},  // SERVICE_RUNNING
                           {"[DBG]", kAF, 81, "Fusion_service_restart SensorFusionServ"},
                           {"[INF]", kCH, 3188, "WaitFor RunProcess Signal On, dwCode *"},
                           {"[INF]", kCH, 3188, "WaitFor RunProcess Signal On, dwCode *"},
                           {"[INF]", kAF, 229, "attention_init initfusion 0"}});
  if (records.size() == 5) {
    EXPECT_GE(Gap(records[2], records[3]), 200 - kClockSlackMs);
    EXPECT_GE(Gap(records[3], records[4]), 200 - kClockSlackMs);
  }
  EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), FusionSimServiceState());
}

// =============================================================================
// Ability check: the machine-hive cache, else the service's status word. The
// fusion client is set up (previous group) and the service runs.

class AbilityTest : public AttentionTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(FusionSimWaitReady(5000));
    DeleteAbility(HKEY_LOCAL_MACHINE);
    DeleteAbility(HKEY_CURRENT_USER);
    AttentionTest::SetUp();
  }
};

TEST_F(AbilityTest, MachineValueDecidesWithoutAskingTheService) {
  for (DWORD value : {1u, 0u, 2u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(value);
    const std::size_t mark = testlog::Mark();
    SetMachineAbility(value);
    EXPECT_EQ(value == 1 ? 1 : 0, CheckAttentionAbility());
    std::vector<Expected> expected = {
        {"[DBG]", kAF, 93, "CheckAttentionAbility  begin reg=1 dw:" + std::to_string(static_cast<int>(value))}};
    if (value != 1) expected.push_back({"[WAR]", kAF, 99, "Cache not .. support attention"});
    EXPECT_RECORDS(testlog::Since(mark), expected);
  }
  EXPECT_TRUE(CallsOf(4).empty()) << DumpCalls();
  DWORD type, value;
  EXPECT_FALSE(ReadUserAbility(&type, &value)) << "a cached verdict is never written back";
}

TEST_F(AbilityTest, WithoutTheMachineValueTheServiceStatusWordDecides) {
  const struct {
    std::uint32_t status;
    int result;
    int line;          // of the third record, 0 for none
    const char* text;
  } cases[] = {
      {0x10000000, 1, 109, "Attention stop"},
      {0x10000001, 1, 115, "Attention active"},
      {5, 0, 124, "Attention active :5"},
      {0, 0, 0, nullptr},  // the only answer written to the user hive
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.status);
    FusionSimClearCalls();
    const std::size_t mark = testlog::Mark();
    ASSERT_TRUE(FusionSimSetStatus(c.status));
    EXPECT_EQ(c.result, CheckAttentionAbility());
    std::vector<Expected> expected = {{"[DBG]", kAF, 93, "CheckAttentionAbility  begin reg=0 dw:-1"},
                                      {"[INF]", kAF, 105, "CheckAttentionAbility InitFusion 0"}};
    if (c.text) expected.push_back({"[INF]", kAF, c.line, c.text});
    EXPECT_RECORDS(testlog::Since(mark), expected);
    const auto status = CallsOf(4);
    ASSERT_EQ(1u, status.size()) << DumpCalls();
    EXPECT_EQ(6, status[0].arg0);  // attention sensor
    EXPECT_EQ(4, status[0].arg1);  // one status word
    DWORD type, value;
    ASSERT_EQ(c.status == 0, ReadUserAbility(&type, &value));
    if (c.status == 0) {
      EXPECT_EQ(static_cast<DWORD>(REG_DWORD), type);
      EXPECT_EQ(0u, value);
    }
  }
  // The user-hive verdict is not the cache: the next check asks again.
  FusionSimClearCalls();
  ASSERT_TRUE(FusionSimSetStatus(0x10000001));
  EXPECT_EQ(1, CheckAttentionAbility());
  EXPECT_EQ(1u, CallsOf(4).size()) << DumpCalls();
}

// =============================================================================
// Start, stop, enable, status and delay against the running service.

using ControlTest = AttentionTest;

TEST_F(ControlTest, StartIsGatedByEnableAndStopIsNot) {
  ASSERT_TRUE(FusionSimSetStatus(0x10000000));
  // Nothing has enabled attention in this process yet; -5 disables.
  EXPECT_EQ(-1, attention_start());
  EXPECT_EQ(0, attention_set_enable(-5));
  EXPECT_EQ(0, g_attentionEnabled);
  EXPECT_EQ(-1, attention_start());
  EXPECT_RECORDS(Records(), {{"[INF]", kAF, 258, "attention_start begin w:0 e:0"},
                             {"[WAR]", kAF, 261, "attention_start st 0 , for enable 0"},
                             {"[INF]", kAF, 283, "attention_set_enable -5"},
                             {"[INF]", kAF, 258, "attention_start begin w:0 e:0"},
                             {"[WAR]", kAF, 261, "attention_start st 0 , for enable 0"}});
  EXPECT_TRUE(CallsOf(3).empty()) << DumpCalls();

  mark_ = testlog::Mark();
  EXPECT_EQ(0, attention_set_enable(2));
  EXPECT_EQ(1, g_attentionEnabled);
  EXPECT_EQ(0, attention_start());
  EXPECT_EQ(1, g_attentionWorking);
  EXPECT_EQ(1, attention_get_status());
  EXPECT_EQ(0, attention_stop());
  EXPECT_EQ(0, g_attentionWorking);
  EXPECT_EQ(0, attention_get_status());
  EXPECT_RECORDS(Records(), {{"[INF]", kAF, 283, "attention_set_enable 2"},
                             {"[INF]", kAF, 258, "attention_start begin w:0 e:1"},
                             {"[INF]", kAF, 265, "SetFusionActive 1"},
                             {"[INF]", kAF, 267, "tof_start end0"},
                             {"[INF]", kAF, 141, "Attention active: 268435457"},
                             {"[INF]", kAF, 276, "attention_stop =0 SetFusionActive 0"},
                             {"[INF]", kAF, 136, "Attention stop: 268435456"}});
  // Disabled again: stop still goes through.
  attention_set_enable(0);
  EXPECT_EQ(0, attention_stop());
  const auto starts = CallsOf(3);
  ASSERT_EQ(3u, starts.size()) << DumpCalls();
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(6, starts[i].arg0);
    EXPECT_EQ(i == 0 ? 1 : 0, starts[i].arg1);
  }
}

TEST_F(ControlTest, RefusalsArePassedOnAndSetFusionActiveAlwaysStarts) {
  attention_set_enable(1);
  ASSERT_TRUE(FusionSimForceResult(3, 0x55));
  EXPECT_EQ(0x55, attention_start());
  EXPECT_EQ(1, g_attentionWorking) << "the flag follows the request, not the answer";
  EXPECT_EQ(0x55, attention_stop());
  EXPECT_EQ(0, g_attentionWorking);
  FusionSimClearForced(3);
  attention_set_enable(0);

  EXPECT_EQ(0, SetFusionActive(0));
  std::vector<Record> told;
  for (const Record& r : Records())
    if (r.line == 267 || r.line == 276 || r.line == 188) told.push_back(r);
  EXPECT_RECORDS(told, {{"[INF]", kAF, 267, "tof_start end85"},
                        {"[INF]", kAF, 276, "attention_stop =85 SetFusionActive 0"},
                        {"[INF]", kAF, 188, "SetFusionActive tof_set_status 0"}});
  const auto starts = CallsOf(3);
  ASSERT_EQ(3u, starts.size()) << DumpCalls();
  EXPECT_EQ(1, starts[2].arg1) << "SetFusionActive(0) starts all the same";
  attention_stop();
}

TEST_F(ControlTest, StatusAndDelayAnswersAndFailures) {
  ASSERT_TRUE(FusionSimSetStatus(0));
  EXPECT_EQ(-1, attention_get_status());
  ASSERT_TRUE(FusionSimSetStatus(7));
  EXPECT_EQ(-1, attention_get_status());  // neither stopped nor active: no record
  EXPECT_RECORDS(Records(), {{"[INF]", kAF, 146, "Attention not support: 0"}});
  ASSERT_TRUE(FusionSimSetStatus(0x10000000));

  EXPECT_EQ(0, attention_set_delay(45));
  const auto sets = CallsOf(2);
  ASSERT_EQ(1u, sets.size()) << DumpCalls();
  EXPECT_EQ(6, sets[0].arg0);
  ASSERT_EQ(4u, sets[0].dataLen);
  EXPECT_EQ(0, std::memcmp(sets[0].data, "\x2d\x00\x00\x00", 4));
  EXPECT_EQ(45, attention_get_delay());

  const struct {
    std::int32_t code;
    int line;  // 0: no record
    const char* text;
  } failures[] = {{1, 165, "Connect to Fusion driver failed! resp:1"},
                  {0x30000020, 169, "Connect to Fusion driver failed! resp:805306400"},
                  {0x60000006, 173, "Set failed! resp:1610612742"},
                  {0x42, 0, nullptr}};
  for (const auto& f : failures) {
    SCOPED_TRACE(f.code);
    ASSERT_TRUE(FusionSimForceResult(6, f.code));
    const std::size_t mark = testlog::Mark();
    EXPECT_EQ(-1, attention_get_delay());
    std::vector<Expected> expected;
    if (f.text) expected.push_back({"[INF]", kAF, f.line, f.text});
    EXPECT_RECORDS(testlog::Since(mark), expected);
  }
  // A refused set is logged and passed on; U+FF0C is the full-width comma.
  ASSERT_TRUE(FusionSimForceResult(2, 0x60000006));
  const std::size_t mark = testlog::Mark();
  EXPECT_EQ(0x60000006, attention_set_delay(12));
  EXPECT_RECORDS(testlog::Since(mark), {{"[INF]", kAF, 182, "Set delay: 12 \xEF\xBC\x8Cresp:1610612742"}});
}

// =============================================================================
// The single retry of InitFusion on exactly 0x10000000 (forced answers of
// opnum 0, FusionRpcSetting, which InitFusion passes on).

class InitRetryTest : public AttentionTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(FusionSimWaitReady(5000));
    attention_un_init();
    AttentionTest::SetUp();
  }
  std::vector<Record> InitRecords() const {
    std::vector<Record> out;
    for (const Record& r : Records())
      if (r.line == 229 || r.line == 234) out.push_back(r);
    return out;
  }
};

TEST_F(InitRetryTest, EventNotOpenedTwiceRetriesOnceAfterPauseThenFails) {
  ASSERT_TRUE(FusionSimForceResult(0, 0x10000000));
  EXPECT_EQ(0, attention_init());
  const auto records = InitRecords();
  EXPECT_RECORDS(records, {{"[INF]", kAF, 229, "attention_init initfusion 10000000"},
                           {"[INF]", kAF, 234, "attention_init initfusion2 10000000"}});
  if (records.size() == 2) {
    EXPECT_GE(Gap(records[0], records[1]), 400 - kClockSlackMs);
  }
  EXPECT_EQ(2u, CallsOf(0).size()) << DumpCalls();
}

TEST_F(InitRetryTest, RetrySucceedingMakesInitSucceed) {
  ASSERT_TRUE(FusionSimForceResult(0, 0x10000000));
  // Lift the forced answer once the first InitFusion has had it; the retry
  // comes 400 ms later.
  std::thread lifter([] {
    if (FusionSimWaitCalls(1, 20000)) FusionSimClearForced(0);
  });
  EXPECT_EQ(1, attention_init());
  lifter.join();
  EXPECT_RECORDS(InitRecords(), {{"[INF]", kAF, 229, "attention_init initfusion 10000000"},
                                 {"[INF]", kAF, 234, "attention_init initfusion2 0"}});
}

TEST_F(InitRetryTest, AttentionEventMissingIsNotRetried) {
  ASSERT_TRUE(FusionSimForceResult(0, 0x10000006));
  EXPECT_EQ(0, attention_init());
  EXPECT_RECORDS(InitRecords(), {{"[INF]", kAF, 229, "attention_init initfusion 10000006"}});
  EXPECT_EQ(1u, CallsOf(0).size()) << DumpCalls();
}

// Last of the cases that use the fusion client in this process: the service
// is stopped under it.
TEST(AbilityUnreachableTest, FailedStatusCallAnswersZeroWithMinusOneAndWritesNothing) {
  DeleteAbility(HKEY_LOCAL_MACHINE);
  DeleteAbility(HKEY_CURRENT_USER);
  EnsureServiceStopped();
  const std::size_t mark = testlog::Mark();
  EXPECT_EQ(0, CheckAttentionAbility());
  EXPECT_RECORDS(testlog::Since(mark), {{"[DBG]", kAF, 93, "CheckAttentionAbility  begin reg=0 dw:-1"},
                                        {"[INF]", kAF, 105, "CheckAttentionAbility InitFusion 1"},
                                        {"[INF]", kAF, 124, "Attention active :-1"}});
  DWORD type, value;
  EXPECT_FALSE(ReadUserAbility(&type, &value));
  EXPECT_EQ(0xdeadbeefu, value);
}

// =============================================================================
// The status-change path. Before any callback is registered a change to 0 is
// skipped (the host has not asked for events yet), not a call through null.

TEST(StatusChangeTest, EmptyCallbackIsSkipped) {
  g_lastAttentionStatus = 0xFFFFFFFF;
  ASSERT_EQ(0, attention_set_callback(nullptr));
  std::uint32_t record = 0;
  attention_status_changed(nullptr, 6, &record);
  EXPECT_EQ(0u, g_lastAttentionStatus);
}

// End to end: the simulator signals its attention event, the client's thread
// fetches the record and calls attention_status_changed in a child process,
// whose standard output goes to a file read here.
int ChildEvent(std::uint32_t event, std::uint32_t status) {
  std::printf("EVENT %u %u\n", event, status);
  std::fflush(stdout);
  return 0;
}

// The child: set up as the bridge and the host do it (stop after set-up,
// which also ends the client's waiting thread, then enable and start), report,
// wait for the parent.
int RunStatusChild() {
  testlog::SetUp(L"qx_attention_test_child.log");
  HANDLE quit = CreateEventW(nullptr, TRUE, FALSE, kChildQuitEvent);
  if (attention_init() != 1) return 2;
  attention_set_callback(ChildEvent);
  attention_stop();
  attention_set_enable(1);
  if (attention_start() != 0) return 2;
  std::printf("READY\n");
  std::fflush(stdout);
  const DWORD waited = WaitForSingleObject(quit, 60000);
  attention_un_init();
  return waited == WAIT_OBJECT_0 ? 0 : 3;
}

// Complete lines the child wrote after "READY".
std::vector<std::string> ChildLines(const std::wstring& path) {
  const std::string text = testsupport::ReadFileBytes(path);
  std::vector<std::string> lines;
  const std::size_t ready = text.find("READY");
  for (std::size_t at = text.find('\n', ready), end; ready != std::string::npos && at != std::string::npos; at = end) {
    if ((end = text.find('\n', ++at)) == std::string::npos) break;
    lines.push_back(text.substr(at, end - at - (text[end - 1] == '\r')));
  }
  return lines;
}

TEST(StatusChangeTest, ReportsOneOneZeroZeroGiveOneEventAndTheStdoutLines) {
  ASSERT_TRUE(FusionSimStartService(10000));
  ASSERT_TRUE(FusionSimSetAttention(1, false));
  HANDLE quit = CreateEventW(nullptr, TRUE, FALSE, kChildQuitEvent);
  ASSERT_NE(nullptr, quit);
  ResetEvent(quit);
  const std::wstring out = testsupport::TempDir(L"attention") + L"\\child-stdout.txt";
  HANDLE child = testsupport::StartSelf(L"status", {}, out);
  ASSERT_NE(nullptr, child);
  for (int i = 0; i < 1500 && testsupport::ReadFileBytes(out).find("READY") == std::string::npos; ++i) Sleep(20);
  ASSERT_NE(std::string::npos, testsupport::ReadFileBytes(out).find("READY")) << "the child did not get ready";

  // Each report: set the record, signal the event, wait for the child's line.
  const std::uint32_t reports[] = {1, 1, 0, 0};
  for (std::size_t i = 0; i < 4; ++i) {
    FusionSimClearCalls();
    ASSERT_TRUE(FusionSimSetAttention(reports[i], true));
    std::vector<std::string> changes;
    for (int tries = 0; tries < 500 && changes.size() <= i; ++tries, Sleep(20)) {
      changes.clear();
      for (const auto& line : ChildLines(out))
        if (line.rfind("attention_status changed:", 0) == 0) changes.push_back(line);
    }
    ASSERT_EQ(i + 1, changes.size()) << "report " << i << "; calls:\n" << DumpCalls();
    EXPECT_EQ("attention_status changed:" + std::to_string(reports[i]), changes.back());
  }
  Sleep(300);  // let a stray second event line, if any, arrive
  SetEvent(quit);
  EXPECT_EQ(0, testsupport::WaitChild(child, 20000));
  CloseHandle(quit);

  const std::vector<std::string> expected = {
      "attention_status changed:1", "attention change",
      "attention_status changed:1",
      "attention_status changed:0", "attention change", "attention change 0", "EVENT 1 0",
      "attention_status changed:0"};
  EXPECT_EQ(expected, ChildLines(out));
  ASSERT_TRUE(FusionSimSetAttention(1, false));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 && std::strcmp(argv[1], "--role") == 0 && std::strcmp(argv[2], "status") == 0)
    return RunStatusChild();
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new AttentionEnvironment);
  return RUN_ALL_TESTS();
}
