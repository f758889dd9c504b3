// The attention controller against the simulator of the sensor fusion service,
// run as the real service "VantoqSensorFusion" under the prefix's Service
// Control Manager and driven through net.exe. What the controller did is read
// back from the simulator's record of the calls it received, from the service
// state, from the registry and from the records in the log file.
//
// The cases run in the order written and share one process: each group sets
// up what it needs (the service state, the fusion client) and the next group
// goes on from there, so attention_init, which takes at least 0.4 s by design,
// runs only where a case is about it.
//
// The status-change case runs in a child process (this program again, with
// --child-status) whose standard output is a pipe read here.
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

namespace {

using testlog::Record;

constexpr wchar_t kProductKey[] = L"SOFTWARE\\Vantoq\\Quillomatic";
constexpr wchar_t kAbilityValue[] = L"attention__ability";
constexpr wchar_t kServiceArgs[] = L"--quiet";  // as the ctest fixture installs it
constexpr wchar_t kChildQuitEvent[] = L"qx_attention_test_child_quit";

// --- log records -------------------------------------------------------------

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
    EXPECT_EQ(e.tag, a.tag) << "record " << i;
    EXPECT_EQ(e.source, a.source) << "record " << i;
    EXPECT_EQ(e.line, a.line) << "record " << i;
    if (!e.text.empty() && e.text.back() == '*')
      EXPECT_EQ(0u, a.text.rfind(e.text.substr(0, e.text.size() - 1), 0)) << "record " << i << ": " << a.text;
    else
      EXPECT_EQ(e.text, a.text) << "record " << i;
  }
}

// Reports the line of the check as well as the line inside CheckRecords.
#define EXPECT_RECORDS(actual, ...)             \
  do {                                          \
    SCOPED_TRACE("records checked here");       \
    CheckRecords((actual), {__VA_ARGS__});      \
  } while (0)

// Milliseconds from record a to record b (their time stamps, over midnight).
long Gap(const Record& a, const Record& b) {
  long gap = b.msOfDay - a.msOfDay;
  if (gap < 0) gap += 24L * 3600 * 1000;
  return gap;
}

// GetLocalTime is exact to the millisecond under Wine; Windows' clock may tick
// in steps of about 15.6 ms, which this margin allows for.
constexpr long kClockSlackMs = 16;

// --- simulator ---------------------------------------------------------------

std::vector<FusionSimCall> Calls() {
  std::vector<FusionSimCall> calls;
  EXPECT_TRUE(FusionSimReadCalls(&calls));
  return calls;
}

std::vector<FusionSimCall> CallsOf(int opnum) {
  std::vector<FusionSimCall> out;
  for (const FusionSimCall& c : Calls())
    if (c.opnum == opnum) out.push_back(c);
  return out;
}

std::string DumpCalls() {
  std::string out;
  for (const FusionSimCall& c : Calls()) out += "  " + FusionSimFormatCall(c) + "\n";
  return out;
}

void EnsureServiceRunning() {
  ASSERT_TRUE(FusionSimStartService(10000)) << "the simulator service did not start";
  FusionSimClearForced(-1);
}

void EnsureServiceStopped() {
  if (FusionSimServiceState() != SERVICE_STOPPED) {
    ASSERT_TRUE(FusionSimStopService(10000));
  }
  // The simulator's shared block goes with its process; a new start needs it gone.
  for (int i = 0; i < 200 && FusionSimWaitReady(0); ++i) Sleep(25);
}

// --- registry ------------------------------------------------------------------

void DeleteAbility(HKEY root) {
  HKEY key = nullptr;
  if (RegOpenKeyExW(root, kProductKey, 0, KEY_SET_VALUE, &key) == ERROR_SUCCESS) {
    RegDeleteValueW(key, kAbilityValue);
    RegCloseKey(key);
  }
}

void SetMachineAbility(DWORD type, const void* data, DWORD size) {
  HKEY key = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_LOCAL_MACHINE, kProductKey, 0, nullptr, 0, KEY_ALL_ACCESS,
                                           nullptr, &key, nullptr));
  ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, kAbilityValue, 0, type, static_cast<const BYTE*>(data), size));
  RegCloseKey(key);
}

// Reads the user-hive value; type and value stay at their poison when absent.
bool ReadUserAbility(DWORD* type, DWORD* value) {
  *type = 0xdeadbeef;
  *value = 0xdeadbeef;
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, kProductKey, 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
  DWORD size = sizeof(*value);
  const bool ok = RegQueryValueExW(key, kAbilityValue, nullptr, type, reinterpret_cast<BYTE*>(value), &size) ==
                  ERROR_SUCCESS;
  RegCloseKey(key);
  return ok;
}

// --- the whole program's set-up ----------------------------------------------

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

// =============================================================================
// Service check and restart, as attention_init runs them.

class ServiceTest : public ::testing::Test {};

TEST_F(ServiceTest, AbsentServiceRunsStopCommandPausesAndInitFails) {
  ASSERT_TRUE(FusionSimUninstallService(10000));
  ASSERT_EQ(0u, FusionSimServiceState());

  const std::size_t mark = testlog::Mark();
  EXPECT_EQ(0, attention_init());
  const auto records = testlog::Since(mark);

  // The check: no service, so two records and the stop command; then the
  // restart's two commands (the start fails: there is nothing to start), and
  // InitFusion cannot reach anything: 1, which is not retried.
  EXPECT_RECORDS(records,
                 {"[INF]", "AttentionFuntion", 25, "ServiceInstall ret=1 s:0"},
                 {"[DBG]", "AttentionFuntion", 54, "Fusion_service_restart SensorFusionServ"},
                 {"[INF]", "CommonHelper", 3188, "WaitFor RunProcess Signal On, dwCode *"},
                 {"[DBG]", "AttentionFuntion", 81, "Fusion_service_restart SensorFusionServ"},
                 {"[INF]", "CommonHelper", 3188, "WaitFor RunProcess Signal On, dwCode *"},
                 {"[INF]", "CommonHelper", 3188, "WaitFor RunProcess Signal On, dwCode *"},
                 {"[INF]", "AttentionFuntion", 229, "attention_init initfusion 1"});
  if (records.size() == 7) {
    EXPECT_GE(Gap(records[2], records[3]), 400 - kClockSlackMs) << "pause after the check's stop command";
    EXPECT_GE(Gap(records[4], records[5]), 200 - kClockSlackMs) << "pause after the restart's stop command";
    EXPECT_GE(Gap(records[5], records[6]), 200 - kClockSlackMs) << "pause after the restart's start command";
    EXPECT_NE("WaitFor RunProcess Signal On, dwCode 0", records[5].text) << "net start of a missing service";
  }
  EXPECT_EQ(0u, FusionSimServiceState()) << "nothing installs the service";

  ASSERT_TRUE(FusionSimInstallService(kServiceArgs));
}

TEST_F(ServiceTest, StoppedServiceIsStartedByTheRestartAndInitSucceeds) {
  EnsureServiceStopped();
  ASSERT_EQ(static_cast<DWORD>(SERVICE_STOPPED), FusionSimServiceState());

  const std::size_t mark = testlog::Mark();
  EXPECT_EQ(1, attention_init());
  const auto records = testlog::Since(mark);

  EXPECT_RECORDS(records,
                 {"[INF]", "AttentionFuntion", 25, "ServiceInstall ret=0 s:1"},  // SERVICE_STOPPED
                 {"[DBG]", "AttentionFuntion", 54, "Fusion_service_restart SensorFusionServ"},
                 {"[INF]", "CommonHelper", 3188, "WaitFor RunProcess Signal On, dwCode *"},
                 {"[DBG]", "AttentionFuntion", 81, "Fusion_service_restart SensorFusionServ"},
                 {"[INF]", "CommonHelper", 3188, "WaitFor RunProcess Signal On, dwCode *"},
                 {"[INF]", "CommonHelper", 3188, "WaitFor RunProcess Signal On, dwCode 0"},
                 {"[INF]", "AttentionFuntion", 229, "attention_init initfusion 0"});
  if (records.size() == 7) {
    EXPECT_GE(Gap(records[2], records[3]), 400 - kClockSlackMs);
  }

  // "net start VantoqSensorFusion" started the simulator, and the client set
  // itself up with it: the sensor mask 0x40, and nothing else yet.
  EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), FusionSimServiceState());
  ASSERT_TRUE(FusionSimWaitReady(5000));
  const auto calls = Calls();
  ASSERT_EQ(1u, calls.size()) << DumpCalls();
  EXPECT_EQ(0, calls[0].opnum);
  EXPECT_EQ(0x40, calls[0].arg0);
}

TEST_F(ServiceTest, UnInitSaysGoodbyeAndRunningServiceIsStillRestarted) {
  ASSERT_EQ(static_cast<DWORD>(SERVICE_RUNNING), FusionSimServiceState());
  FusionSimClearCalls();
  std::size_t mark = testlog::Mark();
  EXPECT_EQ(0, attention_un_init());
  EXPECT_RECORDS(testlog::Since(mark), {"[INF]", "AttentionFuntion", 250, "attention_un_init 0"});
  const auto goodbye = CallsOf(5);
  ASSERT_EQ(1u, goodbye.size()) << DumpCalls();
  EXPECT_EQ(0x40, goodbye[0].arg0);

  // Running: the check writes one record and runs nothing, but the restart
  // still gives both of its commands with their pauses.
  FusionSimClearCalls();
  mark = testlog::Mark();
  EXPECT_EQ(1, attention_init());
  const auto records = testlog::Since(mark);
  EXPECT_RECORDS(records,
                 {"[INF]", "AttentionFuntion", 25, "ServiceInstall ret=0 s:4"},  // SERVICE_RUNNING
                 {"[DBG]", "AttentionFuntion", 81, "Fusion_service_restart SensorFusionServ"},
                 {"[INF]", "CommonHelper", 3188, "WaitFor RunProcess Signal On, dwCode *"},
                 {"[INF]", "CommonHelper", 3188, "WaitFor RunProcess Signal On, dwCode *"},
                 {"[INF]", "AttentionFuntion", 229, "attention_init initfusion 0"});
  if (records.size() == 5) {
    EXPECT_GE(Gap(records[2], records[3]), 200 - kClockSlackMs);
    EXPECT_GE(Gap(records[3], records[4]), 200 - kClockSlackMs);
  }
  EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), FusionSimServiceState());
  ASSERT_FALSE(CallsOf(0).empty()) << DumpCalls();
}

// =============================================================================
// Ability check: the machine-hive cache, else the service's status word.
// The fusion client is set up (previous group) and the service runs.

class AbilityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(FusionSimWaitReady(5000));
    DeleteAbility(HKEY_LOCAL_MACHINE);
    DeleteAbility(HKEY_CURRENT_USER);
    FusionSimClearCalls();
    mark_ = testlog::Mark();
  }
  std::vector<Record> Records() const { return testlog::Since(mark_); }
  std::size_t mark_ = 0;
};

TEST_F(AbilityTest, MachineValueOneMeansSupportedWithoutAskingTheService) {
  const DWORD one = 1;
  SetMachineAbility(REG_DWORD, &one, sizeof(one));
  EXPECT_EQ(1, CheckAttentionAbility());
  EXPECT_RECORDS(Records(), {"[DBG]", "AttentionFuntion", 93, "CheckAttentionAbility  begin reg=1 dw:1"});
  EXPECT_TRUE(CallsOf(4).empty()) << DumpCalls();
}

TEST_F(AbilityTest, AnyOtherMachineValueMeansNotSupportedWithoutAskingTheService) {
  for (DWORD value : {0u, 2u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(value);
    const std::size_t mark = testlog::Mark();
    SetMachineAbility(REG_DWORD, &value, sizeof(value));
    EXPECT_EQ(0, CheckAttentionAbility());
    EXPECT_RECORDS(testlog::Since(mark),
                   {"[DBG]", "AttentionFuntion", 93,
                    "CheckAttentionAbility  begin reg=1 dw:" + std::to_string(static_cast<int>(value))},
                   {"[WAR]", "AttentionFuntion", 99, "Cache not .. support attention"});
  }
  EXPECT_TRUE(CallsOf(4).empty()) << DumpCalls();
  DWORD type, value;
  EXPECT_FALSE(ReadUserAbility(&type, &value)) << "a cached verdict is never written back";
}

TEST_F(AbilityTest, MachineValueTypeIsNotCheckedButItsSizeIs) {
  // Four bytes of another type: the number they hold.
  const unsigned char binaryOne[4] = {1, 0, 0, 0};
  SetMachineAbility(REG_BINARY, binaryOne, sizeof(binaryOne));
  EXPECT_EQ(1, CheckAttentionAbility());
  EXPECT_TRUE(CallsOf(4).empty()) << DumpCalls();

  // Eight bytes do not fit the word: unknown, so the service is asked.
  ASSERT_TRUE(FusionSimSetStatus(0x10000001));
  const unsigned long long qwordOne = 1;
  SetMachineAbility(REG_QWORD, &qwordOne, sizeof(qwordOne));
  const std::size_t mark = testlog::Mark();
  EXPECT_EQ(1, CheckAttentionAbility());
  const auto records = testlog::Since(mark);
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(0u, records[0].text.rfind("CheckAttentionAbility  begin reg=0 dw:", 0)) << records[0].text;
  EXPECT_EQ(1u, CallsOf(4).size()) << DumpCalls();
}

TEST_F(AbilityTest, SupportedStatusWordsAnswerOneAndWriteNothing) {
  ASSERT_TRUE(FusionSimSetStatus(0x10000000));
  EXPECT_EQ(1, CheckAttentionAbility());
  ASSERT_TRUE(FusionSimSetStatus(0x10000001));
  EXPECT_EQ(1, CheckAttentionAbility());

  EXPECT_RECORDS(Records(),
                 {"[DBG]", "AttentionFuntion", 93, "CheckAttentionAbility  begin reg=0 dw:-1"},
                 {"[INF]", "AttentionFuntion", 105, "CheckAttentionAbility InitFusion 0"},
                 {"[INF]", "AttentionFuntion", 109, "Attention stop"},
                 {"[DBG]", "AttentionFuntion", 93, "CheckAttentionAbility  begin reg=0 dw:-1"},
                 {"[INF]", "AttentionFuntion", 105, "CheckAttentionAbility InitFusion 0"},
                 {"[INF]", "AttentionFuntion", 115, "Attention active"});
  const auto status = CallsOf(4);
  ASSERT_EQ(2u, status.size()) << DumpCalls();
  EXPECT_EQ(6, status[0].arg0);  // attention sensor
  EXPECT_EQ(4, status[0].arg1);  // one status word
  DWORD type, value;
  EXPECT_FALSE(ReadUserAbility(&type, &value)) << "a supported answer is never cached";
}

TEST_F(AbilityTest, ServiceStatusZeroIsWrittenToTheUserHiveButNeverReadBack) {
  ASSERT_TRUE(FusionSimSetStatus(0));
  EXPECT_EQ(0, CheckAttentionAbility());
  EXPECT_RECORDS(Records(),
                 {"[DBG]", "AttentionFuntion", 93, "CheckAttentionAbility  begin reg=0 dw:-1"},
                 {"[INF]", "AttentionFuntion", 105, "CheckAttentionAbility InitFusion 0"});
  DWORD type, value;
  ASSERT_TRUE(ReadUserAbility(&type, &value));
  EXPECT_EQ(static_cast<DWORD>(REG_DWORD), type);
  EXPECT_EQ(0u, value);

  // The user-hive verdict is not the cache: the next check asks again.
  ASSERT_TRUE(FusionSimSetStatus(0x10000000));
  EXPECT_EQ(1, CheckAttentionAbility());
  EXPECT_EQ(2u, CallsOf(4).size()) << DumpCalls();
}

TEST_F(AbilityTest, OtherStatusWordIsNotSupportedAndNotWritten) {
  ASSERT_TRUE(FusionSimSetStatus(5));
  EXPECT_EQ(0, CheckAttentionAbility());
  EXPECT_RECORDS(Records(),
                 {"[DBG]", "AttentionFuntion", 93, "CheckAttentionAbility  begin reg=0 dw:-1"},
                 {"[INF]", "AttentionFuntion", 105, "CheckAttentionAbility InitFusion 0"},
                 {"[INF]", "AttentionFuntion", 124, "Attention active :5"});
  DWORD type, value;
  EXPECT_FALSE(ReadUserAbility(&type, &value));
}

// =============================================================================
// Start, stop, enable, status and delay against the running service.

class ControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(FusionSimWaitReady(5000));
    FusionSimClearForced(-1);
    FusionSimClearCalls();
    mark_ = testlog::Mark();
  }
  std::vector<Record> Records() const { return testlog::Since(mark_); }
  std::size_t mark_ = 0;
};

TEST_F(ControlTest, StartIsGatedByEnableAndStopIsNot) {
  ASSERT_TRUE(FusionSimSetStatus(0x10000000));
  // Nothing has enabled attention in this process yet.
  EXPECT_EQ(-1, attention_start());
  EXPECT_EQ(0, attention_set_enable(-5));
  EXPECT_EQ(0, g_attentionEnabled);
  EXPECT_EQ(-1, attention_start());
  EXPECT_RECORDS(Records(),
                 {"[INF]", "AttentionFuntion", 258, "attention_start begin w:0 e:0"},
                 {"[WAR]", "AttentionFuntion", 261, "attention_start st 0 , for enable 0"},
                 {"[INF]", "AttentionFuntion", 283, "attention_set_enable -5"},
                 {"[INF]", "AttentionFuntion", 258, "attention_start begin w:0 e:0"},
                 {"[WAR]", "AttentionFuntion", 261, "attention_start st 0 , for enable 0"});
  EXPECT_TRUE(CallsOf(3).empty()) << DumpCalls();
  EXPECT_EQ(0, g_attentionWorking);

  mark_ = testlog::Mark();
  EXPECT_EQ(0, attention_set_enable(2));
  EXPECT_EQ(1, g_attentionEnabled);
  EXPECT_TRUE(CallsOf(3).empty()) << "enabling does not start sensing";
  EXPECT_EQ(0, attention_start());
  EXPECT_EQ(1, g_attentionWorking);
  EXPECT_EQ(1, attention_get_status());
  EXPECT_EQ(0, attention_stop());
  EXPECT_EQ(0, g_attentionWorking);
  EXPECT_EQ(0, attention_get_status());
  EXPECT_RECORDS(Records(),
                 {"[INF]", "AttentionFuntion", 283, "attention_set_enable 2"},
                 {"[INF]", "AttentionFuntion", 258, "attention_start begin w:0 e:1"},
                 {"[INF]", "AttentionFuntion", 265, "SetFusionActive 1"},
                 {"[INF]", "AttentionFuntion", 267, "tof_start end0"},
                 {"[INF]", "AttentionFuntion", 141, "Attention active: 268435457"},
                 {"[INF]", "AttentionFuntion", 276, "attention_stop =0 SetFusionActive 0"},
                 {"[INF]", "AttentionFuntion", 136, "Attention stop: 268435456"});
  const auto starts = CallsOf(3);
  ASSERT_EQ(2u, starts.size()) << DumpCalls();
  EXPECT_EQ(6, starts[0].arg0);
  EXPECT_EQ(1, starts[0].arg1);
  EXPECT_EQ(6, starts[1].arg0);
  EXPECT_EQ(0, starts[1].arg1);

  // Disabled again: start refuses, stop still goes through.
  attention_set_enable(0);
  FusionSimClearCalls();
  EXPECT_EQ(-1, attention_start());
  EXPECT_EQ(0, attention_stop());
  ASSERT_EQ(1u, CallsOf(3).size()) << DumpCalls();
  EXPECT_EQ(0, CallsOf(3)[0].arg1);
}

TEST_F(ControlTest, RefusedStartAndStopStillChangeTheWorkingFlag) {
  attention_set_enable(1);
  ASSERT_TRUE(FusionSimForceResult(3, 0x55));
  EXPECT_EQ(0x55, attention_start());
  EXPECT_EQ(1, g_attentionWorking);
  EXPECT_EQ(0x55, attention_stop());
  EXPECT_EQ(0, g_attentionWorking);
  EXPECT_RECORDS(Records(),
                 {"[INF]", "AttentionFuntion", 283, "attention_set_enable 1"},
                 {"[INF]", "AttentionFuntion", 258, "attention_start begin w:0 e:1"},
                 {"[INF]", "AttentionFuntion", 265, "SetFusionActive 1"},
                 {"[INF]", "AttentionFuntion", 267, "tof_start end85"},
                 {"[INF]", "AttentionFuntion", 276, "attention_stop =85 SetFusionActive 0"});
  attention_set_enable(0);
}

TEST_F(ControlTest, SetFusionActiveAlwaysStarts) {
  EXPECT_EQ(0, SetFusionActive(0));
  EXPECT_EQ(0, SetFusionActive(-7));
  EXPECT_RECORDS(Records(),
                 {"[INF]", "AttentionFuntion", 188, "SetFusionActive tof_set_status 0"},
                 {"[INF]", "AttentionFuntion", 188, "SetFusionActive tof_set_status -7"});
  const auto starts = CallsOf(3);
  ASSERT_EQ(2u, starts.size()) << DumpCalls();
  EXPECT_EQ(1, starts[0].arg1);
  EXPECT_EQ(1, starts[1].arg1);
  attention_stop();
}

TEST_F(ControlTest, StatusWordsMapToOneZeroMinusOne) {
  ASSERT_TRUE(FusionSimSetStatus(0));
  EXPECT_EQ(-1, attention_get_status());
  ASSERT_TRUE(FusionSimSetStatus(7));
  EXPECT_EQ(-1, attention_get_status());  // failure: no record
  EXPECT_RECORDS(Records(), {"[INF]", "AttentionFuntion", 146, "Attention not support: 0"});
  ASSERT_TRUE(FusionSimSetStatus(0x10000000));
}

TEST_F(ControlTest, DelayPassesThroughAndFailuresAreTold) {
  EXPECT_EQ(0, attention_set_delay(45));
  const auto sets = CallsOf(2);
  ASSERT_EQ(1u, sets.size()) << DumpCalls();
  EXPECT_EQ(6, sets[0].arg0);
  EXPECT_EQ(4, sets[0].arg1);
  ASSERT_EQ(4u, sets[0].dataLen);
  EXPECT_EQ(0, std::memcmp(sets[0].data, "\x2d\x00\x00\x00", 4));
  EXPECT_EQ(45, attention_get_delay());

  ASSERT_TRUE(FusionSimSetDelay(1000));  // no range check on the way back
  EXPECT_EQ(1000, attention_get_delay());

  const std::pair<std::int32_t, const char*> failures[] = {
      {1, "Connect to Fusion driver failed! resp:1"},
      {0x30000020, "Connect to Fusion driver failed! resp:805306400"},
      {0x60000006, "Set failed! resp:1610612742"},
      {0x42, nullptr}};
  for (const auto& [code, text] : failures) {
    SCOPED_TRACE(code);
    ASSERT_TRUE(FusionSimForceResult(6, code));
    const std::size_t mark = testlog::Mark();
    EXPECT_EQ(-1, attention_get_delay());
    const auto records = testlog::Since(mark);
    if (text) {
      ASSERT_EQ(1u, records.size()) << testlog::Dump(records);
      EXPECT_EQ(text, records[0].text);
      EXPECT_EQ(code == 0x60000006 ? 173 : code == 1 ? 165 : 169, records[0].line);
    } else {
      EXPECT_TRUE(records.empty()) << testlog::Dump(records);
    }
  }
  FusionSimClearForced(6);

  // A refused set is logged and passed on.
  ASSERT_TRUE(FusionSimForceResult(2, 0x60000006));
  EXPECT_EQ(0x60000006, attention_set_delay(12));
  FusionSimClearForced(2);

  const auto all = Records();
  std::vector<Record> setRecords;
  for (const Record& r : all)
    if (r.line == 182) setRecords.push_back(r);
  // U+FF0C, the full-width comma, in UTF-8.
  EXPECT_RECORDS(setRecords,
                 {"[INF]", "AttentionFuntion", 182, "Set delay: 45 \xEF\xBC\x8Cresp:0"},
                 {"[INF]", "AttentionFuntion", 182, "Set delay: 12 \xEF\xBC\x8Cresp:1610612742"});
}

// =============================================================================
// The single retry of InitFusion. The service runs; every case forces the
// answer of opnum 0 (FusionRpcSetting), which InitFusion passes on.

class InitRetryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(FusionSimWaitReady(5000));
    attention_un_init();
    FusionSimClearForced(-1);
    FusionSimClearCalls();
    mark_ = testlog::Mark();
  }
  void TearDown() override { FusionSimClearForced(-1); }
  std::vector<Record> InitRecords() const {
    std::vector<Record> out;
    for (const Record& r : testlog::Since(mark_))
      if (r.line == 229 || r.line == 234) out.push_back(r);
    return out;
  }
  std::size_t mark_ = 0;
};

TEST_F(InitRetryTest, EventNotOpenedTwiceRetriesOnceAfterPauseThenFails) {
  ASSERT_TRUE(FusionSimForceResult(0, 0x10000000));
  EXPECT_EQ(0, attention_init());
  const auto records = InitRecords();
  EXPECT_RECORDS(records,
                 {"[INF]", "AttentionFuntion", 229, "attention_init initfusion 10000000"},
                 {"[INF]", "AttentionFuntion", 234, "attention_init initfusion2 10000000"});
  if (records.size() == 2) {
    EXPECT_GE(Gap(records[0], records[1]), 400 - kClockSlackMs);
  }
  EXPECT_EQ(2u, CallsOf(0).size()) << DumpCalls();
}

TEST_F(InitRetryTest, RetrySucceedingMakesInitSucceed) {
  ASSERT_TRUE(FusionSimForceResult(0, 0x10000000));
  // Lift the forced answer as soon as the first InitFusion has had it; the
  // retry comes 400 ms later.
  std::thread lifter([] {
    if (FusionSimWaitCalls(1, 20000)) FusionSimClearForced(0);
  });
  EXPECT_EQ(1, attention_init());
  lifter.join();
  EXPECT_RECORDS(InitRecords(),
                 {"[INF]", "AttentionFuntion", 229, "attention_init initfusion 10000000"},
                 {"[INF]", "AttentionFuntion", 234, "attention_init initfusion2 0"});
  EXPECT_EQ(2u, CallsOf(0).size()) << DumpCalls();
}

TEST_F(InitRetryTest, OtherCodesAreNotRetried) {
  for (std::int32_t code : {0x10000006, 0x10000001, 0x20000000}) {
    SCOPED_TRACE(code);
    FusionSimClearCalls();
    const std::size_t mark = testlog::Mark();
    ASSERT_TRUE(FusionSimForceResult(0, code));
    EXPECT_EQ(0, attention_init());
    std::vector<Record> records;
    for (const Record& r : testlog::Since(mark))
      if (r.line == 229 || r.line == 234) records.push_back(r);
    char text[64];
    std::snprintf(text, sizeof(text), "attention_init initfusion %x", static_cast<unsigned>(code));
    EXPECT_RECORDS(records, {"[INF]", "AttentionFuntion", 229, text});
    EXPECT_EQ(1u, CallsOf(0).size()) << DumpCalls();
  }
}

// =============================================================================
// Ability check with a service that cannot be reached. Last of the cases that
// use the fusion client in this process: the service is stopped under it.

TEST(AbilityUnreachableTest, FailedStatusCallAnswersZeroWithMinusOneAndWritesNothing) {
  DeleteAbility(HKEY_LOCAL_MACHINE);
  DeleteAbility(HKEY_CURRENT_USER);
  EnsureServiceStopped();
  const std::size_t mark = testlog::Mark();
  EXPECT_EQ(0, CheckAttentionAbility());
  EXPECT_RECORDS(testlog::Since(mark),
                 {"[DBG]", "AttentionFuntion", 93, "CheckAttentionAbility  begin reg=0 dw:-1"},
                 {"[INF]", "AttentionFuntion", 105, "CheckAttentionAbility InitFusion 1"},
                 {"[INF]", "AttentionFuntion", 124, "Attention active :-1"});
  DWORD type, value;
  EXPECT_FALSE(ReadUserAbility(&type, &value));
  EXPECT_EQ(0xdeadbeefu, value);
}

// =============================================================================
// The status-change filter, called directly (no service needed).

std::vector<std::pair<std::uint32_t, std::uint32_t>> g_events;
int RecordEvent(std::uint32_t event, std::uint32_t status) {
  g_events.emplace_back(event, status);
  return 0;
}

TEST(StatusFilterTest, EmptyCallbackIsSkippedAndOnlyChangesToZeroAreReported) {
  g_lastAttentionStatus = 0xFFFFFFFF;
  ASSERT_EQ(0, attention_set_callback(nullptr));
  std::uint32_t record = 0;
  // A change to 0 before anything is registered: skipped, not a crash.
  attention_status_changed(nullptr, 6, &record);
  EXPECT_EQ(0u, g_lastAttentionStatus);

  g_events.clear();
  EXPECT_EQ(0, attention_set_callback(RecordEvent));
  EXPECT_EQ(RecordEvent, g_statusCallback);
  for (std::uint32_t s : {0u, 1u, 1u, 0x10000001u, 0u, 0u, 5u, 0u}) {
    record = s;
    attention_status_changed(reinterpret_cast<void*>(0x1234), 99, &record);  // context and id unused
  }
  ASSERT_EQ(2u, g_events.size());
  EXPECT_EQ(1u, g_events[0].first);
  EXPECT_EQ(0u, g_events[0].second);
  EXPECT_EQ(1u, g_events[1].first);
  EXPECT_EQ(0u, g_events[1].second);
  attention_set_callback(nullptr);
}

// =============================================================================
// The status-change path end to end: the simulator signals its attention event,
// the client's thread fetches the record and calls attention_status_changed in
// a child process, whose standard output comes back through a pipe.

class ChildOutput {
 public:
  ~ChildOutput() {
    if (read_) CloseHandle(read_);
    if (process_) {
      if (WaitForSingleObject(process_, 0) == WAIT_TIMEOUT) TerminateProcess(process_, 99);
      CloseHandle(process_);
    }
  }
  bool Start(const std::wstring& args) {
    SECURITY_ATTRIBUTES sa = {sizeof(sa), nullptr, TRUE};
    HANDLE write = nullptr;
    if (!CreatePipe(&read_, &write, &sa, 0)) return false;
    SetHandleInformation(read_, HANDLE_FLAG_INHERIT, 0);
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring command = L"\"" + std::wstring(self) + L"\" " + args;
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    si.hStdOutput = write;
    si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION pi = {};
    const BOOL ok = CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi);
    CloseHandle(write);
    if (!ok) return false;
    CloseHandle(pi.hThread);
    process_ = pi.hProcess;
    return true;
  }
  // Waits up to timeoutMs for a whole line equal to `line` after the lines
  // already consumed; returns the lines read up to and including it.
  bool WaitLine(const std::string& line, DWORD timeoutMs) {
    const DWORD start = GetTickCount();
    for (;;) {
      std::size_t end;
      while ((end = buffer_.find('\n', scan_)) != std::string::npos) {
        std::string got = buffer_.substr(scan_, end - scan_);
        if (!got.empty() && got.back() == '\r') got.pop_back();
        scan_ = end + 1;
        lines_.push_back(got);
        if (got == line) return true;
      }
      if (GetTickCount() - start > timeoutMs) return false;
      DWORD available = 0;
      if (!PeekNamedPipe(read_, nullptr, 0, nullptr, &available, nullptr)) return false;  // closed
      if (available == 0) {
        Sleep(10);
        continue;
      }
      char chunk[4096];
      DWORD got = 0;
      if (!ReadFile(read_, chunk, available < sizeof(chunk) ? available : sizeof(chunk), &got, nullptr)) return false;
      buffer_.append(chunk, got);
    }
  }
  // Reads what is left once the child has ended (bounded).
  bool Finish(DWORD timeoutMs, DWORD* exitCode) {
    if (WaitForSingleObject(process_, timeoutMs) != WAIT_OBJECT_0) return false;
    GetExitCodeProcess(process_, exitCode);
    WaitLine("\x01never", 0);  // drains complete lines
    return true;
  }
  std::vector<std::string> LinesFrom(std::size_t first) const {
    return std::vector<std::string>(lines_.begin() + static_cast<long>(first), lines_.end());
  }
  std::size_t LineCount() const { return lines_.size(); }

 private:
  HANDLE read_ = nullptr;
  HANDLE process_ = nullptr;
  std::string buffer_;
  std::size_t scan_ = 0;
  std::vector<std::string> lines_;
};

int ChildEvent(std::uint32_t event, std::uint32_t status) {
  std::printf("EVENT %u %u\n", event, status);
  std::fflush(stdout);
  return 0;
}

// The child: set up as the bridge does, report, wait for the parent.
int RunStatusChild() {
  testlog::SetUp(L"qx_attention_test_child.log");
  HANDLE quit = CreateEventW(nullptr, TRUE, FALSE, kChildQuitEvent);
  if (attention_init() != 1) {
    std::printf("INIT FAILED\n");
    std::fflush(stdout);
    return 2;
  }
  // As the bridge and the host do it: stop after set-up (this also ends the
  // client's waiting thread), then enable and start, which follows the
  // attention event again.
  attention_set_callback(ChildEvent);
  attention_stop();
  attention_set_enable(1);
  if (attention_start() != 0) {
    std::printf("START FAILED\n");
    std::fflush(stdout);
    return 2;
  }
  std::printf("READY\n");
  std::fflush(stdout);
  const DWORD waited = WaitForSingleObject(quit, 60000);
  attention_un_init();
  return waited == WAIT_OBJECT_0 ? 0 : 3;
}

TEST(StatusChangeTest, ReportsOneOneZeroZeroGiveOneEventAndTheStdoutLines) {
  EnsureServiceRunning();
  ASSERT_TRUE(FusionSimSetAttention(1, false));
  HANDLE quit = CreateEventW(nullptr, TRUE, FALSE, kChildQuitEvent);
  ASSERT_NE(nullptr, quit);
  ResetEvent(quit);

  ChildOutput child;
  ASSERT_TRUE(child.Start(L"--child-status"));
  ASSERT_TRUE(child.WaitLine("READY", 30000)) << "child did not get ready";
  const std::size_t first = child.LineCount();

  // Each report: set the record, signal the event, wait for the child's line.
  for (std::uint32_t s : {1u, 1u, 0u, 0u}) {
    FusionSimClearCalls();
    ASSERT_TRUE(FusionSimSetAttention(s, true));
    ASSERT_TRUE(child.WaitLine("attention_status changed:" + std::to_string(s), 10000))
        << "report " << s << "; calls:\n" << DumpCalls();
  }
  // Let a stray second event line, if any, arrive before quitting.
  Sleep(300);
  SetEvent(quit);
  DWORD exitCode = 0xdeadbeef;
  ASSERT_TRUE(child.Finish(20000, &exitCode));
  EXPECT_EQ(0u, exitCode);
  CloseHandle(quit);

  const std::vector<std::string> expected = {
      "attention_status changed:1", "attention change",
      "attention_status changed:1",
      "attention_status changed:0", "attention change", "attention change 0", "EVENT 1 0",
      "attention_status changed:0"};
  const auto lines = child.LinesFrom(first);
  std::string all;
  for (const auto& l : lines) all += "  " + l + "\n";
  EXPECT_EQ(expected, lines) << all;

  ASSERT_TRUE(FusionSimSetAttention(1, false));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--child-status") == 0) return RunStatusChild();
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new AttentionEnvironment);
  return RUN_ALL_TESTS();
}
