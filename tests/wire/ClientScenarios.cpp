// client_scenarios FILE: the fusion client through the scenarios of FILE
// (format: peer.txt). A fresh child of this program (the client's state is
// process-wide) with a fresh %ProgramData% makes the calls of the steps and
// prints what each gave back; this process plays the raw DCE/RPC peer
// (WirePeer.h), starts fusion-sim or serves nothing, then judges the answers,
// the requests or the simulator's calls, the binds and the sensor library log.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "FusionClient.h"
#include "FusionClientState.h"
#include "FusionSimCtl.h"
#include "SensorLibLog.h"
#include "TestSupport.h"
#include "WirePeer.h"

using namespace testsupport;

namespace {

// Spelt out again from the wire contract.
constexpr wchar_t kPipe[] = L"Vantoq.SensorFusion.EndPoint_edc08f";
constexpr wchar_t kAttentionEvent[] = L"Global\\Vantoq.SensorFusion.AttentionEVENT";
constexpr char kBind[] =
    "bind ctx 0: 7745c01b-9375-4881-9ab5-bbc087ec41f5 v1.0 [8a885d04-1ceb-11c9-9fe8-08002b104860 "
    "v2.0]";

// A scenario: its lines by their first word ("step", "log", ...; "==" holds its name).
using Scenario = std::map<std::string, std::vector<std::string>>;
const std::set<std::string> kWords = {"==",  "service", "step",    "pipe",  "call",     "auth",
                                      "log", "thread",  "threads", "count", "unordered"};

std::vector<Scenario> Load(const std::string& path) {
  std::vector<Scenario> all;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    line.erase(0, line.find_first_not_of(' '));
    const std::string word = line.substr(0, line.find(' '));
    std::string rest = line.size() > word.size() ? line.substr(word.size() + 1) : "";
    static const std::regex repeat("(.)<([0-9]+)>");  // "x<3>" is "xxx"
    for (std::smatch m; std::regex_search(rest, m, repeat);)
      rest.replace(m.position(), m.length(), std::stoul(m[2]), m.str(1)[0]);
    if (word.empty() || word[0] == '#') continue;
    if (word == "==") all.emplace_back();
    if (all.empty() || !kWords.count(word)) return ADD_FAILURE() << path << ": " << line, all;
    all.back()[word].push_back(rest);
  }
  return all;
}

// The part of "LEFT | RIGHT" before (0) or after (1) the bar.
std::string Part(const std::string& line, int i) {
  const std::size_t bar = line.find(" | ");
  return i == 0 ? line.substr(0, bar) : bar == std::string::npos ? "" : line.substr(bar + 3);
}

// ---- the child: makes the calls ---------------------------------------------

std::string Hex(std::uint32_t v) { return (std::ostringstream() << std::hex << v).str(); }
std::string Escaped(std::string s) {
  for (std::size_t at; (at = s.find('\n')) != std::string::npos;) s.replace(at, 1, "\\n");
  return s;
}

struct Capture {
  HANDLE done = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  std::string text;  // sensor callback: id, "null" or the record; host callback: its arguments
  unsigned char record[64];
  bool eventThread = false;
} g_sensor, g_host;
HANDLE g_watched, g_spawned;  // the last waiting thread seen; a call on a thread of its own

void OnSensorData(void*, std::int32_t id, void* data) {
  g_sensor.text = data ? Hex(id) : std::to_string(id) + " null";
  if (data) std::memcpy(g_sensor.record, data, sizeof g_sensor.record);
  g_sensor.eventThread =
      g_fusion.threadHandles[6] && GetThreadId(g_fusion.threadHandles[6]) == GetCurrentThreadId();
  SetEvent(g_sensor.done);
}

int OnHost(const char* kind, const char* name, const char* json, std::uintptr_t reserved,
           std::int32_t flags) {
  g_host.text = Escaped(std::string(kind) + '|' + name + '|' + json + '|' +
                        std::to_string(reserved) + '|' + std::to_string(flags));
  SetEvent(g_host.done);
  return 0;
}

Plugin g_plugin;

// What one step (see peer.txt) gives back.
std::string RunStep(const std::string& line) {
  std::istringstream in(line);
  std::string call, arg;
  in >> call;
  std::getline(in >> std::ws, arg);
  const std::string arg2 = arg.substr(std::min(arg.size(), arg.find(' ') + 1));
  const auto number = [&](int base = 10) {
    return static_cast<std::int32_t>(std::stoul(arg, nullptr, base));
  };
  unsigned char out[64];
  std::memset(out, 0xcc, sizeof out);
  const auto u32 = reinterpret_cast<std::uint32_t*>(out);
  // The result, then the bytes of `out` up to the last one the call changed.
  const auto withOut = [&](std::int32_t result) {
    std::size_t changed = sizeof out;
    while (changed && out[changed - 1] == 0xcc) --changed;
    return Hex(result) + (changed ? " " + wire::ToHex(wire::Bytes(out, out + changed)) : "");
  };
  const auto sim = [](bool ok) { return ok ? "" : "no simulator"; };

  if (call == "open-log") return SensorLibLogOpen(), "";
  if (call == "register") return RegisterSensorDataCallback(OnSensorData, nullptr), "";
  if (call == "bind") return Hex(BindFusionService());
  if (call == "InitFusion") return Hex(InitFusion());
  if (call == "UnInitial") return Hex(UnInitial());
  if (call == "StartFusion") return Hex(StartFusion(nullptr, number()));
  if (call == "SensorDataCallback") return Hex(SensorDataCallback(number()));
  if (call == "SetFusionDelay") return *u32 = number(), Hex(SetFusionDelay(nullptr, u32));
  if (call == "GetFusionStatus") return withOut(GetFusionStatus(nullptr, u32));
  if (call == "GetFusionDelay") return withOut(GetFusionDelay(nullptr, u32));
  if (call == "GetSensorData") return withOut(GetSensorData(number(), out));
  if (call == "state") {  // the mask; whether the last waiting thread seen ended; a thread now
    std::string text = Hex(g_fusion.FusionStatus);
    if (g_watched)
      text += WaitForSingleObject(g_watched, 0) == WAIT_OBJECT_0 ? " ended" : " running";
    if (g_watched) CloseHandle(g_watched), g_watched = nullptr;
    if (g_fusion.threadHandles[6])
      DuplicateHandle(GetCurrentProcess(), g_fusion.threadHandles[6], GetCurrentProcess(),
                      &g_watched, SYNCHRONIZE, FALSE, 0);
    return text + (g_watched ? " thread" : "");
  }
  if (call == "spawn") {
    static std::uint32_t status;
    g_spawned = CreateThread(
        nullptr, 0, [](void*) -> DWORD { return GetFusionStatus(nullptr, &status); }, nullptr, 0,
        nullptr);
    return "";
  }
  if (call == "joined")
    return WaitForSingleObject(g_spawned, number()) == WAIT_OBJECT_0 ? "yes" : "no";
  if (call == "signal") {
    HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, kAttentionEvent);
    const bool set = event && SetEvent(event);
    if (event) CloseHandle(event);
    return set ? "" : "no event";
  }
  if (call == "wait-callback" || call == "callback") {
    if (WaitForSingleObject(g_sensor.done, call == "callback" ? 0 : 10000) != WAIT_OBJECT_0)
      return "none";
    if (g_sensor.text.find("null") != std::string::npos) return g_sensor.text;
    return g_sensor.text + " " +
           wire::ToHex(wire::Bytes(g_sensor.record, g_sensor.record + number())) +
           (call == "wait-callback" && !g_sensor.eventThread ? " not on the waiting thread" : "");
  }
  if (call == "load") {
    if (!LoadPlugin(Widen(arg), &g_plugin)) return "no DLL";
    return std::to_string(g_plugin.init(nullptr, OnHost));
  }
  if (call == "action") {
    char* result = nullptr;
    const std::string name = arg.substr(0, arg.find(' ')),
                      params = arg.size() > name.size() ? arg2 : "";
    const int r = g_plugin.action(name.c_str(), params.empty() ? nullptr : params.c_str(), &result);
    const std::string text = result ? Escaped(result) : "(null)";
    g_plugin.free(result);
    return std::to_string(r) + (text.empty() ? "" : " " + text);
  }
  if (call == "wait-host")
    return WaitForSingleObject(g_host.done, 10000) == WAIT_OBJECT_0 ? g_host.text : "none";
  if (call == "sleep") return Sleep(number()), "";
  if (call == "env")
    return SetEnvironmentVariableA(arg.substr(0, arg.find(' ')).c_str(), arg2.c_str()), "";
  if (call == "write-log") return SensorLibLogWrite("%s", arg.c_str()), "";
  if (call == "sim-status") return sim(FusionSimSetStatus(number(16)));
  if (call == "sim-attention") return sim(FusionSimSetAttention(number(16), true));
  if (call == "sim-event") return sim(FusionSimDropAttentionEvent(arg == "drop"));
  if (call == "sim-force")
    return sim(FusionSimForceResult(number(), std::stoul(arg2, nullptr, 16)));
  if (call == "sim-clear") return sim(FusionSimClearForced(number()));
  return "unknown step " + call;
}

// ---- the parent: the service and the judgement ------------------------------

std::vector<std::string> Lines(const std::string& text, const std::string& end) {
  std::vector<std::string> lines;
  std::size_t at = 0;
  for (std::size_t e; (e = text.find(end, at)) != std::string::npos; at = e + end.size())
    lines.push_back(text.substr(at, e - at));
  return lines;
}

// An expected line: alternatives separated by " || "; "*" at the end matches any rest.
bool Matches(const std::string& message, const std::string& expected) {
  for (const std::string& e : Lines(expected + " || ", " || "))
    if (e.empty() || e.back() != '*' ? message == e
                                     : message.compare(0, e.size() - 1, e, 0, e.size() - 1) == 0)
      return true;
  return false;
}

// The first non-empty line of `expected` not found in `log` in this order.
std::string Missing(const std::vector<std::string>& log, const std::vector<std::string>& expected) {
  auto at = log.begin();
  for (const std::string& e : expected) {
    if (e.empty()) continue;
    at = std::find_if(at, log.end(), [&](const std::string& m) { return Matches(m, e); });
    if (at++ == log.end()) return e;
  }
  return "";
}

void Judge(const std::string& file, Scenario s) {
  const std::string service = s["service"].empty() ? "none" : s["service"][0];
  for (const wchar_t* value : {L"attention_state", L"attention_delay"})
    RegDeleteKeyValueW(HKEY_CURRENT_USER, L"SOFTWARE\\Vantoq\\Quillomatic", value);
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Vantoq\\Quillomatic", L"attention__ability");
  // "init" starts the service with net.exe: none may be registered.
  ASSERT_EQ(0u, FusionSimServiceState()) << "the service is installed in this prefix";
  ASSERT_FALSE(FusionSimWaitReady(0)) << "a simulator is running";
  wire::Peer peer;
  FusionSimProcess sim;
  HANDLE event = nullptr;  // the peer's attention event (auto-reset); the simulator makes its own
  if (service == "peer") {
    for (const std::string& exchange : s["pipe"]) peer.Queue(Part(exchange, 1));
    ASSERT_TRUE(peer.Start(kPipe)) << "another server owns the pipe";
    event = CreateEventW(nullptr, FALSE, FALSE, kAttentionEvent);
  } else if (service.rfind("sim", 0) == 0) {
    ASSERT_TRUE(FusionSimLaunch(Widen(service.substr(3)), 20000, &sim));
  }
  const std::wstring fresh = TempDir(L"scenario-data"),
                     out = TempDir(L"scenario-out") + L"\\stdout.txt";
  CreateDirectoryW((fresh + L"\\Vantoq").c_str(), nullptr);
  SetEnvironmentVariableW(L"ProgramData", fresh.c_str());
  // The log is looked for where the child's last "env ProgramData" puts it.
  std::wstring data = fresh;
  for (const std::string& step : s["step"])
    if (step.rfind("env ProgramData ", 0) == 0) data = Widen(Part(step, 0).substr(16));
  const std::wstring logFile = data + L"\\Vantoq\\SensorFusion\\Logs\\SensorLibLog.log";
  DeleteFileW(logFile.c_str());
  SYSTEMTIME from, to;  // the child's run: every stamp falls in it
  GetLocalTime(&from);
  const int exitCode =
      WaitChild(StartSelf(L"scenario", {Widen(file), Widen(s["=="][0])}, out), 120000);
  GetLocalTime(&to);
  SetEnvironmentVariableW(L"ProgramData", nullptr);
  std::vector<FusionSimCall> calls;
  if (sim.process && !FusionSimReadCalls(&calls)) ADD_FAILURE() << "no call record";
  if (sim.process) FusionSimQuit(10000, &sim);
  peer.Stop();
  if (event) CloseHandle(event);
  EXPECT_EQ(0, exitCode) << "the child crashed, hung or failed";

  // "answer TEXT\r" (stdout is in text mode), among what the DLL prints.
  std::vector<std::string> answers;
  for (const std::string& line : Lines(ReadFileBytes(out), "\n"))
    if (line.rfind("answer ", 0) == 0) answers.push_back(line);
  for (std::size_t i = 0; i < s["step"].size(); ++i)
    EXPECT_EQ("answer " + Part(s["step"][i], 1) + "\r", i < answers.size() ? answers[i] : "")
        << s["step"][i];

  // Client to service: every request (peer) or call (simulator), in order.
  std::vector<std::string> requests, recorded;
  for (const std::string& exchange : s["pipe"]) requests.push_back(Part(exchange, 0));
  EXPECT_EQ(requests, peer.requests);
  EXPECT_EQ(std::vector<std::string>(), peer.errors);
  const std::string auth = s["auth"].empty() ? "" : " auth " + s["auth"][0];
  for (const std::string& bind : peer.binds) EXPECT_EQ(kBind + auth, bind);
  EXPECT_EQ(service == "peer", !peer.binds.empty());
  for (const FusionSimCall& c : calls)
    recorded.push_back(
        std::to_string(c.opnum) + " " + Hex(c.arg0) + " " + std::to_string(c.arg1) +
        (c.dataLen ? " " + wire::ToHex(wire::Bytes(c.data, c.data + c.dataLen)) : ""));
  if (s.count("unordered"))
    std::sort(recorded.begin(), recorded.end()), std::sort(s["call"].begin(), s["call"].end());
  EXPECT_EQ(s["call"], recorded);

  // The sensor library log: every line but the version line stamped with the
  // local time of the run, "[MM-DD-hh-mm-ss:ms]" (ms not padded); exactly the
  // exception lines expected; the expected lines, all of them in order or,
  // when other threads write too, each list as an ordered subsequence.
  std::vector<std::string> log;
  std::string all;
  const std::regex stamp(R"(\[(\d\d)-(\d\d)-(\d\d)-(\d\d)-(\d\d):(0|[1-9]\d{0,2})\](.*))");
  const auto when = [](long long mo, long long d, long long h, long long mi, long long sec,
                       long long ms) {
    return ((((mo * 32 + d) * 24 + h) * 60 + mi) * 60 + sec) * 1000 + ms;
  };
  const long long start = when(from.wMonth, from.wDay, from.wHour, from.wMinute, from.wSecond,
                               from.wMilliseconds),
                  end =
                      when(to.wMonth, to.wDay, to.wHour, to.wMinute, to.wSecond, to.wMilliseconds);
  for (const std::string& line : Lines(ReadFileBytes(logFile), "\r\n")) {
    std::smatch m;
    long long t = 0;
    if (std::regex_match(line, m, stamp))
      t = when(std::stoi(m[1]), std::stoi(m[2]), std::stoi(m[3]), std::stoi(m[4]), std::stoi(m[5]),
               std::stoi(m[6]));
    EXPECT_TRUE(line.empty() || line.rfind("Version:", 0) == 0 ||
                (!m.empty() && t >= start && t <= end))
        << line;
    log.push_back(m.empty() ? line : m.str(7));
    all += log.back() + "\n";
  }
  const auto exceptions = [](const std::vector<std::string>& lines) {
    return std::count_if(lines.begin(), lines.end(),
                         [](auto& l) { return l.find("Runtime reported exception") != l.npos; });
  };
  // (before s["thread"] below adds the key)
  const bool threaded = s.count("thread") || s.count("threads");
  EXPECT_EQ(exceptions(s["log"]) + exceptions(s["thread"]), exceptions(log)) << "exception lines";
  if (!threaded) {
    std::vector<std::string> shown = log;
    for (std::size_t i = 0; i < std::min(log.size(), s["log"].size()); ++i)
      if (Matches(log[i], s["log"][i])) shown[i] = s["log"][i];
    EXPECT_EQ(s["log"], shown);
  }
  for (const char* list : {"log", "thread"})
    EXPECT_EQ("", Missing(log, s[list])) << "not in the log, or out of order; the log:\n" << all;
  for (const std::string& c : s["count"]) {
    const std::string text = c.substr(c.find(' ') + 1);
    EXPECT_EQ(std::stoi(c),
              std::count_if(log.begin(), log.end(), [&](auto& m) { return Matches(m, text); }))
        << text;
  }
}

std::string g_file;
std::vector<Scenario> g_scenarios;
class ScenarioTest : public testing::TestWithParam<Scenario> {};
TEST_P(ScenarioTest, Judge) { Judge(g_file, GetParam()); }
INSTANTIATE_TEST_SUITE_P(File, ScenarioTest, testing::ValuesIn(g_scenarios), [](const auto& info) {
  std::string name = info.param.at("==")[0];
  std::replace_if(
      name.begin(), name.end(), [](char c) { return !isalnum(static_cast<unsigned char>(c)); },
      '_');
  return name;
});

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 5 && std::string(argv[1]) == "--role") {
    for (Scenario& s : Load(argv[3]))
      for (std::size_t i = 0; s["=="][0] == argv[4] && i < s["step"].size(); ++i)
        std::printf("answer %s\n", RunStep(Part(s["step"][i], 0)).c_str()), std::fflush(stdout);
    return 0;
  }
  if (argc < 2)
    return std::fprintf(stderr, "usage: client_scenarios FILE [GoogleTest options]\n"), 2;
  g_scenarios = Load(g_file = argv[1]);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
