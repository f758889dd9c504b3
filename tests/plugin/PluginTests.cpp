// The plug-in through its four exports, against fusion-sim.
#include <atomic>
#include <thread>

#include "Harness.h"
#include "TestSupport.h"

using namespace qx;

namespace {

const char kOff[] = "{\"F4010\":{\"status\":1}}";
const char kOn[] = "{\"F4010\":{\"status\":2}}";
std::string Delay(int d) { return "{\"F4010\":{\"delay\":" + std::to_string(d) + "}}"; }
std::string Answer(int delay, int status) {
  return "{\"cmd\":\"get_attention\",\"delay\":" + std::to_string(delay) +
         ",\"status\":" + std::to_string(status) + "}\n";
}
std::string Ability(int ability, int delay, int status) {
  return "{\"ability\":" + std::to_string(ability) +
         ",\"id\":\"F4010\",\"items\":{\"delay\":" + std::to_string(delay) +
         ",\"status\":" + std::to_string(status) + "},\"plugin\":\"Attention\"}\n";
}
const auto kName = [](const auto& i) { return std::string(i.param.name); };

}  // namespace

// Unreadable parameters answer -3, values out of range 1, unknown actions 4;
// each with its record (AttentionPlugin.cpp's line), nothing stored.
struct Refusal {
  const char *action, *params;
  int code;
  const char* record;
};
const Refusal kRefusals[] = {
    {"Init", nullptr, 4, nullptr},
    {"init ", nullptr, 4, nullptr},
    {"", nullptr, 4, nullptr},
    {"set_attention_status", "", -3, "254) reader.parse error"},
    {"set_attention_status", "{\"f4010\":{\"status\":2}}", -3, "261) reader.parse error"},
    {"set_attention_status", "{\"F4010\":{}}", 1, "268) invalid status value: 0"},
    {"set_attention_status", "{\"F4010\":{\"status\":3}}", 1, "268) invalid status value: 3"},
    {"set_attention_delay", "[]", -3, "294) reader.parse error"},
    {"set_attention_delay", "{\"F4010\":null}", -3, "301) reader.parse error"},
    {"set_attention_delay", "{\"F4010\":{\"delay\":9}}", 1, "308) invalid delay value: 9"},
    {"set_attention_delay", "{\"F4010\":{\"delay\":61}}", 1, "308) invalid delay value: 61"},
    {"get_attention", "ignored {", 0, nullptr},
};
QX_TEST(Boundary, RefusedActionsChangeNothing, 1) {
  Host host(true);
  void* a = host.New(0);
  void* b = host.New(0);
  char* big = static_cast<char*>(host.New(1 << 20));
  EXPECT_TRUE(a && b && big && a != b);
  if (big) big[0] = big[(1 << 20) - 1] = 'x';
  for (void* p : {a, b, static_cast<void*>(big), static_cast<void*>(nullptr)}) host.Delete(p);
  Mark m = Now();
  EXPECT_EQ(host.Init(false), 0);
  EXPECT_EQ(host.Init(), 0);
  EXPECT_EQ(Records(m),
            std::vector<std::string>(2, "INF AttentionPlugin.cpp(170)  attention plugin init... "));
  for (const Refusal& r : kRefusals) {
    m = Now();
    const std::string answer =
        r.code ? "{\"error_code\":" + std::to_string(r.code) + "}\n" : Answer(-1, -1);
    EXPECT_EQ(host.Act(r.action, r.params), answer) << r.action;
    std::vector<std::string> want = {"INF AttentionPlugin.cpp(341) resp: " + answer};
    if (r.record) want.insert(want.begin(), std::string("INF AttentionPlugin.cpp(") + r.record);
    EXPECT_EQ(Records(m), want) << r.action << " " << (r.params ? r.params : "null");
  }
  // So deep that the reader throws: unreadable all the same.
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  EXPECT_EQ(host.Act("set_attention_status", deep.c_str()), "{\"error_code\":-3}\n");
  // A member jsoncpp cannot convert: its exception leaves the export.
  m = Now();
  EXPECT_EQ(host.Act("set_attention_status", "{\"F4010\":{\"status\":\"2\"}}"),
            "throws: Value is not convertible to Int.");
  EXPECT_EQ(Records(m), std::vector<std::string>{});
  EXPECT_EQ(host.Act("get_attention"), Answer(-1, -1));
  for (const wchar_t* v : {L"attention_state", L"attention_delay", L"attention__ability"})
    EXPECT_EQ(User(v), kAbsent) << v;
}

// Actions before any "init": the machine value (HKLM, an installer's) decides
// "ability"; the service is not asked.
struct MachineCase {
  const char* name;
  RegValue machine, state, delay;
  const char *action, *params, *answer, *anchor;
  RegValue stateAfter, delayAfter;
};
const MachineCase kMachines[] = {
    {"SupportedNothingStored", Dword(1), kAbsent, kAbsent, "ability", nullptr, "A 1 10 1",
     "INF AttentionPlugin.cpp(75) register attention status: -1, register attention delay:-1 ",
     Dword(1), Dword(10)},
    {"StoredValuesTakenAsStored", Dword(1), Binary(7), Dword(5), "ability", nullptr, "A 1 5 7",
     "INF AttentionPlugin.cpp(75) register attention status: 7, register attention delay:5 ",
     Binary(7), Dword(5)},
    {"UnsupportedOverwritesStatus", Dword(2), Dword(2), Dword(33), "ability", nullptr, "A 0 33 0",
     "WAR AttentionFuntion(99) Cache not .. support attention", Dword(0), Dword(33)},
    {"NothingStoredNoService", kAbsent, kAbsent, kAbsent, "ability", nullptr, "A 0 10 0",
     "INF AttentionFuntion(124) Attention active :-1", Dword(0), Dword(10)},
    {"StatusBeforeAnyLoad", kAbsent, kAbsent, kAbsent, "set_attention_status", kOn, "G -1 0",
     "INF AttentionPlugin.cpp(275) current device not support attention,set parameter_status fail.",
     Dword(0), kAbsent},
    {"DelayBeforeAnyLoad", kAbsent, kAbsent, kAbsent, "set_attention_delay",
     "{\"F4010\":{\"delay\":60}}", "G -1 -1",
     "INF AttentionPlugin.cpp(316) current device not support attention,set parameter_delay fail.",
     kAbsent, kAbsent},
};
class Machine : public testing::TestWithParam<MachineCase> {};
TEST_P(Machine, Action) {
  RunSessions([](int) {
    const MachineCase& c = GetParam();
    SetService(Service::kRunning);
    Config(L"g_vantoq_global_log_level", L"5");
    // The shipped DLL, but where "init" follows (Wine refuses its binding).
    const bool init = !c.machine.present && *c.answer == 'A';
    if (c.machine.present) SetReg(HKEY_LOCAL_MACHINE, L"attention__ability", c.machine);
    if (c.state.present) SetReg(HKEY_CURRENT_USER, L"attention_state", c.state);
    if (c.delay.present) SetReg(HKEY_CURRENT_USER, L"attention_delay", c.delay);
    Host host(!init);
    host.Init();
    const Mark m = Now();
    int a = 0, d = 0, s = 0;
    std::sscanf(c.answer + 2, "%d %d %d", &a, &d, &s);
    EXPECT_EQ(host.Act(c.action, c.params), *c.answer == 'A' ? Ability(a, d, s) : Answer(a, d));
    QX_ANCHORS(Records, m, {std::string(c.anchor)});
    EXPECT_EQ(User(L"attention_state"), c.stateAfter);
    EXPECT_EQ(User(L"attention_delay"), c.delayAfter);
    EXPECT_EQ(User(L"attention__ability"), kAbsent);
    EXPECT_EQ(Calls(m), std::vector<std::string>{});
    // Loaded once per process: a later change of the registry is not seen.
    if (c.machine.present && *c.answer == 'A') {
      SetReg(HKEY_CURRENT_USER, L"attention_delay", Dword(44));
      EXPECT_EQ(host.Act("ability"), Ability(a, d, s));
    } else if (init) {  // the 0 stays for the process, "init" or not
      host.Act("init");
      ExpectSummary(4, "ability_before_init", {"hazard: \"ability\" before \"init\""});
    }
  });
}
INSTANTIATE_TEST_SUITE_P(States, Machine, testing::ValuesIn(kMachines), kName);

// The status member converted as jsoncpp converts it. Never set up, nothing
// enabled attention, so it is not started; the status is stored all the same.
QX_TEST(Boundary, StatusConversionFollowsJsoncpp, 1) {
  SetReg(HKEY_LOCAL_MACHINE, L"attention__ability", Dword(1));
  Host host(true);
  host.Init();
  EXPECT_EQ(host.Act("ability"), Ability(1, 10, 1));
  const Mark m = Now();
  const std::pair<const char*, int> cases[] = {
      {"{\"F4010\":{\"status\":true}}", 1},
      {"{\"F4010\":{\"status\":2.7}}", 2},
      {"{\"F4010\":{\"status\":1,\"delay\":99},\"other\":[1,2]}", 1},
      {"/* host comment */ {\"F4010\":{\"status\":2}} // trailing", 2}};
  for (const auto& [params, status] : cases)
    EXPECT_EQ(host.Act("set_attention_status", params), Answer(10, status)) << params;
  QX_ANCHORS(Records, m, {"WAR AttentionFuntion(261) attention_start st 0 , for enable 0"});
  EXPECT_EQ(User(L"attention_state"), Dword(2));
}

// "init": the service's status word decides the ability; only 0 is kept, in
// the user's hive, and never read back. The set-up not ready (0x10000000, from
// a console simulator): the rules judge its one retry.
struct InitCase {
  const char* name;
  const wchar_t* word;
  int notReady;  // set-ups answered 0x10000000: 1 (the first), 2 (every one)
  RegValue cached;
  int ability;
  std::vector<std::string> records, calls;
  RegValue cacheAfter;
  const char *category, *cause;  // the summary's, when not supported
};
const std::vector<std::string> kAsked = {"Setting 0x40 0", "GetSensorStatus 6 4 *"};
const InitCase kInits[] = {
    {"Unsupported",
     L"0",
     0,
     kAbsent,
     0,
     {"INF AttentionFuntion(105) CheckAttentionAbility InitFusion 0"},
     kAsked,
     Dword(0),
     "not_supported",
     "the service answered \"not supported\""},
    {"Active",
     L"268435457",
     0,
     Dword(0),
     1,
     {"INF AttentionFuntion(115) Attention active"},
     kAsked,
     Dword(0),
     nullptr,
     nullptr},
    {"Stopped",
     L"268435456",
     0,
     kAbsent,
     1,
     {"INF AttentionFuntion(109) Attention stop"},
     kAsked,
     kAbsent,
     nullptr,
     nullptr},
    {"Other",
     L"5",
     0,
     kAbsent,
     0,
     {"INF AttentionFuntion(124) Attention active :5"},
     kAsked,
     kAbsent,
     "service_version_mismatch",
     "the service answered status 0x5"},
    {"NotReadyTwice",
     L"268435456",
     2,
     kAbsent,
     0,
     {},
     {"Setting 0x40 0 -> 0x10000000", "Setting 0x40 0 -> 0x10000000"},
     kAbsent,
     nullptr,
     nullptr},
    {"NotReadyOnce",
     L"268435456",
     1,
     kAbsent,
     1,
     {},
     {"Setting 0x40 0 -> 0x10000000", "Setting 0x40 0", "GetSensorStatus *"},
     kAbsent,
     nullptr,
     nullptr},
};
class Init : public testing::TestWithParam<InitCase> {};
TEST_P(Init, Ability) {
  RunSessions([](int) {
    const InitCase& c = GetParam();
    SetService(c.notReady ? Service::kConsole : Service::kStopped,
               std::wstring(L"--status ") + c.word);
    Config(L"g_vantoq_global_log_level", L"5");  // the service check's stop, a debug record
    if (c.notReady) ASSERT_TRUE(FusionSimForceResult(0, 0x10000000, c.notReady == 1));
    if (c.cached.present) SetReg(HKEY_CURRENT_USER, L"attention__ability", c.cached);
    Host host;
    host.Init();
    const Mark m = Now();
    EXPECT_EQ(host.Act("init"), "");
    std::vector<std::string> records = c.records;
    records.push_back("INF AttentionPlugin.cpp(193) ability: " + std::to_string(c.ability));
    QX_ANCHORS(Records, m, records);
    QX_ANCHORS(Calls, m, c.calls);
    EXPECT_EQ(User(L"attention__ability"), c.cacheAfter);
    if (c.category) ExpectSummary(4, c.category, {c.cause});
    if (c.notReady) EXPECT_EQ(host.Act("close"), "");
  });
}
INSTANTIATE_TEST_SUITE_P(Service, Init, testing::ValuesIn(kInits), kName);

// The simulator registered as the service, which "init" starts with net.exe.
QX_TEST(Flow, SwitchOnLookAwayClose, 1) {
  Host host;
  EXPECT_EQ(host.Init(), 0);
  Mark m = Now();
  EXPECT_EQ(host.Act("init"), "");
  // Enabled at "init" although the host never asked for the ability.
  QX_ANCHORS(Records, m,
             {"INF AttentionFuntion(25) ServiceInstall ret=0 s:1",
              "INF AttentionFuntion(229) attention_init initfusion 0",
              "INF AttentionPlugin.cpp(193) ability: 1",
              "INF AttentionInfo.cpp(51) set_attention_enable 1",
              "INF AttentionFuntion(283) attention_set_enable 1",
              "INF AttentionPlugin.cpp(236)  attention status: 1, attention delay:10 "});
  EXPECT_EQ(FusionSimServiceState(), DWORD(SERVICE_RUNNING));
  EXPECT_EQ(User(L"attention_state"), Dword(1));
  EXPECT_EQ(User(L"attention_delay"), Dword(10));
  EXPECT_EQ(host.Act("get_attention"), Answer(10, 1));
  m = Now();
  EXPECT_EQ(host.Act("set_attention_status", kOn), Answer(10, 2));
  QX_ANCHORS(Records, m,
             {"INF AttentionFuntion(258) attention_start begin w:0 e:1",
              "INF AttentionFuntion(267) tof_start end0"});
  EXPECT_EQ(host.Act("set_attention_delay", Delay(30).c_str()), Answer(30, 2));
  EXPECT_EQ(User(L"attention_state"), Dword(2));
  EXPECT_EQ(User(L"attention_delay"), Dword(30));
  // Away, away again (no change), back (a change, not reported), away.
  for (int record : {0, 0, 1, 0}) {
    m = Now();
    ASSERT_TRUE(FusionSimSetAttention(record, true));
    QX_ANCHORS(Calls, m, {record ? "GetSensorData 6 4 01000000" : "GetSensorData 6 4 00000000"});
    Quiet();
  }
  EXPECT_EQ(host.Callbacks().size(), 2u);
  EXPECT_EQ(host.Act("get_attention"), Answer(30, 2));
  m = Now();
  const DWORD start = GetTickCount();
  EXPECT_EQ(host.Act("close"), "");
  EXPECT_LT(GetTickCount() - start, 3000u) << "\"close\" waited for the waiting thread";
  QX_ANCHORS(SensorLines, m, {"Tread exit,index:6", "UnInitial,FusionMask:64"});
  ExpectSummary(0, "working", {"attention ON", "then closed by the host"});
}

// The second host has nothing loaded until its "init" loads and applies the
// first one's values (the service running now).
QX_TEST(Flow, StatusAndDelayPersistAcrossHosts, 2) {
  Host host;
  host.Init();
  if (session == 0) {
    host.Act("init");
    EXPECT_EQ(host.Act("set_attention_status", kOn), Answer(10, 2));
    EXPECT_EQ(host.Act("set_attention_delay", Delay(45).c_str()), Answer(45, 2));
    EXPECT_EQ(host.Act("close"), "");
    return;
  }
  EXPECT_EQ(host.Act("get_attention"), Answer(-1, -1));
  const Mark m = Now();
  EXPECT_EQ(host.Act("init"), "");
  QX_ANCHORS(
      Records, m,
      {"INF AttentionFuntion(25) ServiceInstall ret=0 s:4",
       "INF AttentionPlugin.cpp(196) register attention status: 2, register attention delay:45 "});
  QX_ANCHORS(Calls, m, {"StartSensor 6 1", "SetSensorParam 6 4 2d000000"});
  EXPECT_EQ(host.Act("get_attention"), Answer(45, 2));
  // The restart's start on a running service fails, which is no failure.
  ExpectSummary(0, "working",
                {"net.exe start VantoqSensorFusion exited 1 (the service was running"});
}

// No attention event: 0x10000006, not retried, no attention. Once the event
// is back a new "init" works; the sensor library's log stays closed.
QX_TEST(Faults, MissingAttentionEvent, 1) {
  SetService(Service::kConsole, L"--no-attention-event");
  Host host;
  host.Init();
  Mark m = Now();
  host.Act("init");
  // The ability never asked (the set-up failed first): the flag goes through.
  QX_ANCHORS(Records, m,
             {"INF AttentionFuntion(229) attention_init initfusion 10000006",
              "INF AttentionPlugin.cpp(193) ability: 0",
              "INF AttentionInfo.cpp(51) set_attention_enable 0",
              "INF AttentionFuntion(283) attention_set_enable 0"});
  host.Act("close");
  QX_ANCHORS(SensorLines, m, {"UnInitial,FusionMask:0"});
  QX_ANCHORS(Calls, m, {"Setting 0x40 0", "UnInit 0x0 0"});
  ASSERT_TRUE(FusionSimDropAttentionEvent(false));
  m = Now();
  host.Act("init");
  QX_ANCHORS(Records, m, {"INF AttentionPlugin.cpp(193) ability: 1"});
  EXPECT_EQ(SensorLines(m), std::vector<std::string>{});
}

// No service, values stored: the status overwritten with 0, the delay kept.
QX_TEST(Faults, WithoutTheService, 1) {
  SetService(Service::kAbsent);
  SetReg(HKEY_CURRENT_USER, L"attention_state", Dword(2));
  SetReg(HKEY_CURRENT_USER, L"attention_delay", Dword(25));
  DeclareExceptions({"Runtime reported exception *", "Runtime reported exception *"});
  Host host;
  host.Init();
  EXPECT_EQ(host.Act("ability"), Ability(0, 25, 0));
  const Mark m = Now();
  host.Act("init");
  QX_ANCHORS(Records, m,
             {"INF AttentionFuntion(25) ServiceInstall ret=1 s:0",
              "INF AttentionFuntion(229) attention_init initfusion 1",
              "INF AttentionPlugin.cpp(236)  attention status: 0, attention delay:25 "});
  EXPECT_EQ(FusionSimServiceState(), 0u);
  EXPECT_EQ(User(L"attention__ability"), kAbsent);
  host.Act("close");
  ExpectSummary(
      4, "service_not_installed",
      {"1722 server unavailable", "service check: not found", "do:  install the service"});
}

// Stored values the service refuses at "init": the delay's failure, values kept.
QX_TEST(Faults, StoredDelayRefusedAtInit, 1) {
  SetService(Service::kConsole);
  SetReg(HKEY_CURRENT_USER, L"attention_state", Dword(2));
  SetReg(HKEY_CURRENT_USER, L"attention_delay", Dword(25));
  ASSERT_TRUE(FusionSimForceResult(2, 0x30000020));
  Host host;
  host.Init();
  const Mark m = Now();
  EXPECT_EQ(host.Act("init"), "");
  QX_ANCHORS(Records, m,
             {"INF AttentionPlugin.cpp(233)  set attention delay fail: 805306400,",
              "INF AttentionPlugin.cpp(236)  attention status: 2, attention delay:25 "});
  EXPECT_EQ(User(L"attention_delay"), Dword(25));
  ExpectSummary(0, "working",
                {"the service did not take the stored delay: the service could not connect"});
}

QX_TEST(Faults, InitNeverAnswered, 1) {
  SetService(Service::kConsole);
  ASSERT_TRUE(FusionSimHoldReplies(true));
  Host host;
  host.Init();
  std::thread([&host] { host.Act("init"); }).detach();
  QX_ANCHORS(Calls, Mark{}, {"Setting 0x40 0 -> pending"});
  ExpectSummary(5, "init_unfinished", {"the \"init\" action has no ability record"});
}

QX_TEST(Faults, SensorOutOfReach, 1) {
  Host host;
  host.Init();
  host.Act("init");
  ASSERT_TRUE(FusionSimForceResult(3, 0x30000020));
  EXPECT_EQ(host.Act("set_attention_status", kOn), Answer(10, 2));
  ExpectSummary(4, "sensor_unreachable",
                {"0x30000020", "do:  the service cannot reach the attention sensor"});
}

QX_TEST(Faults, RefusalsAfterInit, 1) {
  Host host;
  host.Init();
  host.Act("init");
  host.Act("set_attention_status", kOn);
  // A refused fetch reports nothing; the next one does.
  ASSERT_TRUE(FusionSimForceResult(1, 0x30000020, true));
  Mark m = Now();
  FusionSimSetAttention(0, true);
  QX_ANCHORS(Calls, m, {"GetSensorData 6 4 00000000 -> 0x30000020"});
  Quiet();
  EXPECT_EQ(host.Callbacks().size(), 0u);
  FusionSimSetAttention(0, true);
  EXPECT_TRUE(Until([&] { return host.Callbacks().size() == 1; }));
  // A refused stop still switches off.
  ASSERT_TRUE(FusionSimForceResult(3, 0x30000020));
  m = Now();
  EXPECT_EQ(host.Act("set_attention_status", kOff), Answer(10, 1));
  QX_ANCHORS(Records, m, {"INF AttentionFuntion(276) attention_stop =805306400 SetFusionActive 0"});
  // A refused start: status 2 stored, no waiting thread.
  ASSERT_TRUE(FusionSimForceResult(3, 0x60000006));
  m = Now();
  EXPECT_EQ(host.Act("set_attention_status", kOn), Answer(10, 2));
  QX_ANCHORS(Records, m, {"INF AttentionFuntion(267) tof_start end1610612742"});
  EXPECT_EQ(User(L"attention_state"), Dword(2));
  FusionSimSetAttention(1, true);
  FusionSimSetAttention(0, true);
  Quiet();
  EXPECT_EQ(Calls(m), std::vector<std::string>{"StartSensor 6 1 -> 0x60000006"});
  // The failed start still counts as working (w:1); the new waiting thread
  // finds the look-away nobody waited for.
  ASSERT_TRUE(FusionSimClearForced(3));
  m = Now();
  EXPECT_EQ(host.Act("set_attention_status", kOn), Answer(10, 2));
  QX_ANCHORS(Records, m, {"INF AttentionFuntion(258) attention_start begin w:1 e:1"});
  QX_ANCHORS(Calls, m, {"GetSensorData 6 4 00000000"});
  // A refused goodbye still closes.
  ASSERT_TRUE(FusionSimForceResult(5, 0x60000006));
  m = Now();
  EXPECT_EQ(host.Act("close"), "");
  QX_ANCHORS(Records, m,
             {"INF AttentionFuntion(250) attention_un_init 60000006",
              "INF AttentionPlugin.cpp(241) close attention client."});
  FusionSimSetAttention(1, true);
  Quiet();
  EXPECT_EQ(Calls(m), std::vector<std::string>{"UnInit 0x40 0 -> 0x60000006"});
}

// Every reply two seconds late: an action that needs no remote call answers
// at once while the waiting thread waits; the late report arrives once.
QX_TEST(Faults, RepliesSecondsLate, 1) {
  Host host;
  host.Init();
  host.Act("init");
  host.Act("set_attention_status", kOn);
  ASSERT_TRUE(FusionSimSetReplyDelay(2000));
  const Mark m = Now();
  FusionSimSetAttention(0, true);
  QX_ANCHORS(Calls, m, {"GetSensorData 6 4 -> pending"});
  const DWORD start = GetTickCount();
  EXPECT_EQ(host.Act("get_attention"), Answer(10, 2));
  EXPECT_LT(GetTickCount() - start, 1000u);
  EXPECT_EQ(host.Act("set_attention_delay", Delay(45).c_str()), Answer(45, 2));
  EXPECT_EQ(User(L"attention_delay"), Dword(45));
  EXPECT_EQ(host.Act("set_attention_status", kOff), Answer(45, 1));
  EXPECT_EQ(host.Act("close"), "");
  EXPECT_TRUE(Until([&] { return host.Callbacks().size() == 1; }));
}

// Events back to back while the host sets delays and switches attention.
QX_TEST(Faults, EventStormWhileTheHostActs, 1) {
  Host host;
  host.Init();
  host.Act("init");
  host.Act("set_attention_status", kOn);
  int unexpected = 0, delay = 10;
  for (int i = 0; i < 60;) {
    std::atomic<bool> done{false};
    std::thread events([&] {
      for (int n = 0; !done && n < 250; ++n) FusionSimSetAttention(n % 2, true);
    });
    for (const int end = i + 5; i < end; ++i) {
      delay = 10 + (i * 7) % 51;
      unexpected += host.Act("set_attention_delay", Delay(delay).c_str()) != Answer(delay, 2);
      unexpected += host.Act("get_attention") != Answer(delay, 2);
    }
    done = true;
    events.join();
    unexpected += host.Act("set_attention_status", kOff) != Answer(delay, 1);
    unexpected += host.Act("set_attention_status", kOn) != Answer(delay, 2);
  }
  EXPECT_EQ(unexpected, 0);
  EXPECT_GT(host.Callbacks().size(), 0u);
  EXPECT_EQ(User(L"attention_delay"), Dword(15));
  EXPECT_EQ(host.Act("close"), "");
}

// The service killed while a call waits for its reply; back, the old
// binding works.
QX_TEST(Faults, ServiceKilledDuringACall, 1) {
  SetService(Service::kRunning);
  DeclareExceptions({"Runtime reported exception 0x6be = 1726",
                     "Runtime reported exception 0x6ba = 1722",
                     "Runtime reported exception 0x6ba = 1722"});
  Host host;
  host.Init();
  host.Act("init");
  host.Act("set_attention_status", kOn);
  ASSERT_TRUE(FusionSimHoldReplies(true));
  Mark m = Now();
  std::string answer;
  std::thread call([&] { answer = host.Act("set_attention_delay", Delay(40).c_str()); });
  QX_ANCHORS(Calls, m, {"SetSensorParam 6 4 28000000 -> pending"});
  KillService();
  call.join();
  EXPECT_EQ(answer, Answer(10, 2));
  QX_ANCHORS(Records, m,
             {"INF AttentionFuntion(182) Set delay: 40 ，resp:1",
              "INF AttentionPlugin.cpp(329) set attention delay fail,resp: 1"});
  EXPECT_EQ(User(L"attention_delay"), Dword(10));
  m = Now();
  EXPECT_EQ(host.Act("set_attention_status", kOff), Answer(10, 1));
  QX_ANCHORS(Records, m, {"INF AttentionFuntion(276) attention_stop =1 SetFusionActive 0"});
  EXPECT_EQ(host.Act("set_attention_status", kOn), Answer(10, 2));
  SetService(Service::kRunning);
  m = Now();
  EXPECT_EQ(host.Act("set_attention_delay", Delay(40).c_str()), Answer(40, 2));
  QX_ANCHORS(Calls, m, {"SetSensorParam 6 4 28000000"});
  ExpectSummary(4, "service_not_answering",
                {"starting the sensor failed 0x1 <- 1722", "service check: running",
                 "do:  the service runs but does not answer"});
}

// qx_plugin_init deletes a log of 1 MiB, not one a byte shorter.
QX_TEST(Faults, LogCutAtOneMebibyte, 1) {
  Host host(true);
  host.Init();
  const std::wstring log = PluginLog();
  const std::string record = testsupport::ReadFileBytes(log);
  ASSERT_GT(record.size(), 10u);
  for (std::size_t size : {(1u << 20) - 1, 1u << 20}) {
    std::string bytes;
    while (bytes.size() + record.size() <= size) bytes += record;
    bytes.resize(size);
    testsupport::WriteFileBytes(log, bytes);
    host.Init();
    const std::size_t now = testsupport::ReadFileBytes(log).size();
    EXPECT_EQ(now, size < (1u << 20) ? size + record.size() : record.size()) << size;
  }
  testsupport::WriteFileBytes(log, record);  // a log the rules can read
}
