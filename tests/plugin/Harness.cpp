#include "Harness.h"

#include <shlobj.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <regex>
#include <set>

#include "LogFrameReader.h"
#include "QxPluginLoader.h"
#include "TestSupport.h"

using namespace testsupport;

namespace qx {
namespace {

constexpr wchar_t kKey[] = L"SOFTWARE\\Vantoq\\Quillomatic";
constexpr wchar_t kPipe[] = L"Vantoq.SensorFusion.EndPoint_edc08f";
constexpr wchar_t kAttentionEvent[] = L"Global\\Vantoq.SensorFusion.AttentionEVENT";
// The one bind a client may make: the interface, NDR 2.0 alone.
constexpr char kBind[] =
    "bind ctx 0: 7745c01b-9375-4881-9ab5-bbc087ec41f5 v1.0 [8a885d04-1ceb-11c9-9fe8-08002b104860 "
    "v2.0]";
constexpr char kException[] = "Runtime reported exception";
const char* const kProcedures[kFusionSimOpnums] = {
    "Setting",         "GetSensorData", "SetSensorParam", "StartSensor",
    "GetSensorStatus", "UnInit",        "GetSensorParam"};
const char kPayload[] = "{\"action\":\"SA0004\",\"type\":\"Report\"}\n";

int g_session = -1;  // this process's session; -1 in the parent
bool Glob(const std::string& p, const std::string& t) {
  std::size_t i = 0, j = 0, star = std::string::npos, back = 0;
  while (j < t.size()) {
    if (i < p.size() && (p[i] == '?' || p[i] == t[j])) {
      ++i, ++j;
    } else if (i < p.size() && p[i] == '*') {
      star = i++, back = j;
    } else if (star != std::string::npos) {
      i = star + 1, j = ++back;
    } else {
      return false;
    }
  }
  while (i < p.size() && p[i] == '*') ++i;
  return i == p.size();
}
std::wstring SensorLog() {
  return CommonAppData() + L"\\Vantoq\\SensorFusion\\Logs\\SensorLibLog.log";
}
std::wstring ConfigIni() { return CommonAppData() + L"\\Vantoq\\Quillomatic\\config\\config.ini"; }
std::size_t FileSize(const std::wstring& path) {
  WIN32_FILE_ATTRIBUTE_DATA a = {};
  return GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &a) ? a.nFileSizeLow : 0;
}

struct Session {
  SYSTEMTIME started = {};
  Mark start = {};
  qx_plugin::Exports plugin;
  std::set<DWORD> hostThreads;
  std::map<std::wstring, RegValue> machine;  // HKLM values when the host loaded
  std::vector<std::string> exceptions = {};
  int summaryExit = -1;
  std::vector<std::string> summary;  // "category: ..." and the texts
  bool closed = false;
  std::unique_ptr<wire::Peer> peer;
  std::string auth;
  HANDLE attentionEvent = nullptr;
  std::mutex lock;
  std::vector<Callback> callbacks;
};
Session* g_s = nullptr;
Host* g_host = nullptr;

int OnCallback(const char* kind, const char* name, const char* json, qx_uintptr_t reserved,
               qx_int32_t flags) {
  std::lock_guard<std::mutex> hold(g_s->lock);
  g_s->callbacks.push_back({g_s->hostThreads.count(GetCurrentThreadId()) > 0,
                            kind ? kind : "(null)", name ? name : "(null)", json ? json : "(null)",
                            reserved, flags});
  return 0;
}

std::map<std::wstring, RegValue> MachineValues() {
  std::map<std::wstring, RegValue> out;
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, KEY_READ, &key) != ERROR_SUCCESS) return out;
  wchar_t name[256];
  BYTE data[1024];
  for (DWORD i = 0, n = 256, size = sizeof data, type = 0;
       RegEnumValueW(key, i, name, &n, nullptr, &type, data, &size) == ERROR_SUCCESS;
       ++i, n = 256, size = sizeof data)
    out[name] = {true, type, std::string(reinterpret_cast<char*>(data), size)};
  RegCloseKey(key);
  return out;
}

// A plug-in record: "MM-DD hh:mm:ss:mmm : [LVL][THREAD] Source(line) text\n".
struct Rec {
  long ms = -1;  // time of day
  std::string level, source, text;
  int line = 0;
  std::string Show() const {
    return level + " " + source + "(" + std::to_string(line) + ") " + text;
  }
};
std::vector<Rec> ParsedRecords(std::size_t from) {
  const std::string bytes = ReadFileBytes(PluginLog());
  if (from > bytes.size()) from = 0;  // deleted by the size check in between
  std::vector<logframe::Record> frames;
  logframe::FrameDecoder decoder;
  decoder.Feed(bytes.data() + from, bytes.size() - from, frames);
  std::vector<Rec> out;
  static const std::regex form(
      R"(\d\d-\d\d (\d\d):(\d\d):(\d\d):(\d\d\d) : \[([A-Z]+)\]\[\d+\] ([^(]+)\((\d+)\) ([\s\S]*)\n)");
  for (const logframe::Record& f : frames) {
    std::smatch m;
    Rec r;
    if (std::regex_match(f.text, m, form)) {
      r.ms = ((std::stol(m[1]) * 60 + std::stol(m[2])) * 60 + std::stol(m[3])) * 1000 +
             std::stol(m[4]);
      r = {r.ms, m[5], m[6], m[8], std::stoi(m[7])};
    } else {
      r.text = "unreadable record: " + f.text;
    }
    out.push_back(r);
  }
  if (decoder.status() != logframe::FrameDecoder::Status::kOk)
    out.push_back({-1, "", "", "undecodable frame at " + std::to_string(decoder.frame_offset())});
  return out;
}

std::vector<std::string> RawSensorLines(std::size_t from) {
  const std::string text = ReadFileBytes(SensorLog());
  std::vector<std::string> out;
  for (std::size_t at = std::min(from, text.size()), end;
       (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
    out.push_back(text.substr(at, end - at));
  return out;
}
const std::regex& Stamp() {
  static const std::regex stamp(
      R"(\[(\d\d)-(\d\d)-(\d\d)-(\d\d)-(\d\d):(0|[1-9]\d{0,2})\]([\s\S]*))");
  return stamp;
}

// The rows of docs/log-records.md: source, line, level and printf format.
struct Row {
  std::string source, level, format;
  int line = 0;
  std::string Key() const { return source + "(" + std::to_string(line) + ") " + format; }
};
std::vector<Row> Catalogue(bool sensor) {
  std::ifstream in(QX_CATALOGUE);
  std::vector<Row> rows;
  bool inSensor = false;
  static const std::regex plugin(R"(\| (\S+) \| (\d+) \| \d `([A-Z]+)` \| `(.*?)` \|.*)"),
      library(R"(\| `(.*?)` \| `.*)");
  for (std::string line; std::getline(in, line);) {
    inSensor |= line.rfind("## The sensor library", 0) == 0;
    std::smatch m;
    if (!inSensor && !sensor && std::regex_match(line, m, plugin))
      rows.push_back({m[1], m[3], m[4], std::stoi(m[2])});
    else if (inSensor && sensor && std::regex_match(line, m, library))
      rows.push_back({"SensorLib", "", m[1]});
  }
  return rows;
}
// A printf format against a text: %d %ld %u %lu %x %lx %s (%s last).
bool Formats(const char* f, const char* t) {
  for (; *f; ++f, ++t) {
    if (*f == '\\' && f[1] == 'n') return !*t && !f[2];  // the line's own end
    if (*f != '%') {
      if (*f != *t) return false;
      continue;
    }
    f += f[1] == 'l';
    if (*++f == 's') return true;
    const char* start = t;
    if (*f == 'd' && *t == '-') ++t;
    while (*f == 'x' ? std::isxdigit(static_cast<unsigned char>(*t)) != 0
                     : std::isdigit(static_cast<unsigned char>(*t)) != 0)
      ++t;
    if (t == start || (t == start + 1 && *start == '-')) return false;
    --t;
  }
  return !*t;
}
void Covered(const std::string& key) {
  const char* file = std::getenv("QX_COVERAGE");
  if (file) std::ofstream(file, std::ios::app | std::ios::binary) << key << "\n";
}

// The rules every session keeps, judged after its last quiet window.
void RuleSensorStamps() {
  SYSTEMTIME now;
  GetLocalTime(&now);
  auto when = [](long long mo, long long d, long long h, long long mi, long long s, long long ms) {
    return ((((mo * 32 + d) * 24 + h) * 60 + mi) * 60 + s) * 1000 + ms;
  };
  const SYSTEMTIME& a = g_s->started;
  const long long from = when(a.wMonth, a.wDay, a.wHour, a.wMinute, a.wSecond, a.wMilliseconds),
                  to = when(now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond,
                            now.wMilliseconds);
  for (const std::string& line : RawSensorLines(g_s->start.sensor)) {
    std::smatch m;
    if (line.empty() || line.rfind("Version:", 0) == 0) continue;
    bool ok = std::regex_match(line, m, Stamp());
    if (ok) {
      auto n = [&](int i) { return std::stoll(m[i]); };
      const long long t = when(n(1), n(2), n(3), n(4), n(5), n(6));
      ok = t >= from && t <= to;
    }
    EXPECT_TRUE(ok) << "sensor library log line not stamped within the session: " << line;
  }
}

void RuleExceptions() {
  std::vector<std::string> seen;
  for (const std::string& line : SensorLines(g_s->start))
    if (line.find(kException) != std::string::npos) seen.push_back(line);
  bool same = seen.size() == g_s->exceptions.size();
  for (std::size_t i = 0; same && i < seen.size(); ++i) same = Glob(g_s->exceptions[i], seen[i]);
  EXPECT_TRUE(same) << "exception lines of the sensor library log: " << testing::PrintToString(seen)
                    << ", declared: " << testing::PrintToString(g_s->exceptions);
}

void RuleCallbacks() {
  // One report per fetched record (4 bytes, answered 0) that turns the status
  // to 0 from what the process saw before (-1 at load).
  std::vector<FusionSimCall> calls;
  std::size_t changes = 0;
  if (FusionSimReadCalls(&calls)) {
    std::int64_t last = -1;
    for (std::size_t i = g_s->start.calls; i < calls.size(); ++i) {
      const FusionSimCall& c = calls[i];
      if (c.opnum != 1 || !c.answered || c.result || c.dataLen != 4) continue;
      std::int32_t v;
      std::memcpy(&v, c.data, 4);
      changes += v == 0 && last != 0;
      last = v;
    }
  } else if (g_s->peer) {
    return;  // the peer's tests count their reports themselves
  }
  const std::vector<Callback> cbs = g_host->Callbacks();
  EXPECT_EQ(cbs.size(), changes) << "callbacks against fetched changes to 0";
  for (const Callback& c : cbs)
    EXPECT_TRUE(!c.onHostThread && c.kind == "BIGDATA" && c.name == "BIGDATA" &&
                c.json == kPayload && c.reserved == 0 && c.flags == 0)
        << "callback " << c.kind << " " << c.name << " " << c.json << " " << c.reserved << " "
        << c.flags << (c.onHostThread ? " on a host thread" : "");
}

// Stamps are taken in 1 ms steps but a pause may end a timer tick early.
constexpr long kClockSlackMs = 16;

// At every "init": the service check, then (not running) its stop command and
// 400 ms, then the restart's stop, 200 ms, start, 200 ms before the set-up;
// the set-up retried only after 0x10000000, once, 400 ms later.
void RuleInitSteps(const std::vector<Rec>& recs) {
  for (std::size_t i = 0; i < recs.size(); ++i) {
    const Rec& r = recs[i];
    if (r.source == "AttentionPlugin.cpp" && r.line == 188) {
      std::size_t j = i + 1;
      while (j < recs.size() && recs[j].source != "AttentionFuntion") ++j;
      EXPECT_TRUE(j < recs.size() && recs[j].line == 25) << "\"init\" without the service check";
    }
    if (r.source == "AttentionFuntion" && r.line == 25) {
      const bool running = r.text == "ServiceInstall ret=0 s:4";
      std::vector<long> runs;
      std::size_t j = i + 1;
      for (; j < recs.size() && !(recs[j].source == "AttentionFuntion" && recs[j].line == 229); ++j)
        if (recs[j].source == "CommonHelper" && recs[j].line == 3188) runs.push_back(recs[j].ms);
      if (j == recs.size()) continue;  // the set-up has not come yet
      runs.push_back(recs[j].ms);
      const std::vector<long> pauses =
          running ? std::vector<long>{200, 200} : std::vector<long>{400, 200, 200};
      bool ok = runs.size() == pauses.size() + 1;
      for (std::size_t k = 0; ok && k < pauses.size(); ++k)
        ok = runs[k + 1] - runs[k] >= pauses[k] - kClockSlackMs;
      EXPECT_TRUE(ok) << r.text << ": " << runs.size() - 1 << " commands (want " << pauses.size()
                      << "), at " << testing::PrintToString(runs);
    }
    if (r.source == "AttentionFuntion" && (r.line == 229 || r.line == 234)) {
      const bool retry = r.line == 229 && r.text == "attention_init initfusion 10000000";
      const Rec* next = nullptr;
      for (std::size_t j = i + 1; j < recs.size() && !next; ++j)
        if (recs[j].source == "AttentionFuntion") next = &recs[j];
      const bool retried = next && next->line == 234;
      EXPECT_TRUE(retry ? retried && next->ms - r.ms >= 400 - kClockSlackMs : !retried)
          << r.text
          << (retried ? " then retried " + std::to_string(next->ms - r.ms) + " ms later"
                      : " not retried");
    }
  }
}

void RuleParamBytes() {
  std::vector<FusionSimCall> calls;
  FusionSimReadCalls(&calls);
  for (std::size_t i = g_s->start.calls; i < calls.size(); ++i)
    EXPECT_TRUE(calls[i].opnum != 2 || (calls[i].arg1 == 4 && calls[i].dataLen == 4))
        << "a sensor parameter call of " << calls[i].arg1 << " bytes";
  for (const std::string& r : Requests(g_s->start))
    EXPECT_TRUE(r.rfind("2: ", 0) != 0 || Glob("2: 06000000 04000000 04000000 ????????", r))
        << "a sensor parameter request not of 4 bytes: " << r;
}

void RuleCatalogue(const std::vector<Rec>& recs) {
  static const std::vector<Row> rows = Catalogue(false), lines = Catalogue(true);
  ASSERT_GT(rows.size(), 40u) << QX_CATALOGUE;
  for (const Rec& r : recs) {
    const auto row = std::find_if(rows.begin(), rows.end(), [&](const Row& w) {
      return w.source == r.source && w.line == r.line && w.level == r.level &&
             Formats(w.format.c_str(), r.text.c_str());
    });
    EXPECT_TRUE(row != rows.end()) << "a record that is no row of the catalogue: " << r.Show();
    if (row != rows.end()) Covered(row->Key());
  }
  // A format ending in \n leaves an empty line after its own.
  const std::vector<std::string> raws = RawSensorLines(g_s->start.sensor);
  for (std::size_t i = 0; i < raws.size(); ++i) {
    std::smatch m;
    const std::string text = std::regex_match(raws[i], m, Stamp()) ? m.str(7) : raws[i];
    const bool lf = i + 1 < raws.size() && raws[i + 1].empty();
    const auto row = std::find_if(lines.begin(), lines.end(), [&](const Row& w) {
      return Formats(w.format.c_str(), text.c_str()) && lf == w.format.ends_with("\\n");
    });
    EXPECT_TRUE(row != lines.end())
        << "a sensor library line that is no row: " << text << (lf ? " (then an empty line)" : "");
    if (row != lines.end()) Covered(row->Key());
    i += lf;
  }
}

void RuleMachineUntouched() {
  EXPECT_EQ(testing::PrintToString(MachineValues()), testing::PrintToString(g_s->machine))
      << "values under HKLM changed";
}

// By the waiting threads' own first and last lines: Wine's worker threads
// may outlive a session, so threads are not counted.
void RuleThreadsGone() {
  if (!g_s->closed) return;
  const auto count = [](const char* prefix) {
    const std::vector<std::string> lines = SensorLines(g_s->start);
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& l) { return l.rfind(prefix, 0) == 0; });
  };
  EXPECT_TRUE(Until([&] { return count("Thread exit ") == count("GetSensorDataProc:index "); }))
      << count("GetSensorDataProc:index ") << " waiting threads started, " << count("Thread exit ")
      << " ended after \"close\"";
}

void JudgePeer() {
  g_s->peer->Stop();
  for (const std::string& e : g_s->peer->Get(g_s->peer->errors))
    ADD_FAILURE() << "wire peer: " << e;
  const std::string expected = kBind + (g_s->auth.empty() ? "" : " auth " + g_s->auth);
  for (const std::string& bind : g_s->peer->Get(g_s->peer->binds)) EXPECT_EQ(bind, expected);
}

void JudgeSummary() {
  const std::wstring out = TempDir(L"summary") + L"\\report";
  const HANDLE child = StartProcess(L"\"" + ExeDir() + L"logread.exe\" --summary \"" + PluginLog() +
                                        L"\" \"" + SensorLog() + L"\"",
                                    out);
  ASSERT_TRUE(child) << "logread.exe did not start: " << GetLastError();
  const int code = WaitChild(child, 60000);
  const std::string report = ReadFileBytes(out);
  EXPECT_EQ(code, g_s->summaryExit) << report;
  for (const std::string& t : g_s->summary)
    EXPECT_NE(report.find(t), std::string::npos) << t << " in the summary:\n" << report;
}

void EndSession() {
  Quiet();
  const std::vector<Rec> recs = ParsedRecords(g_s->start.log);
  RuleSensorStamps();
  RuleExceptions();
  RuleInitSteps(recs);
  RuleParamBytes();
  RuleCatalogue(recs);
  if (g_host) RuleCallbacks(), RuleMachineUntouched(), RuleThreadsGone();
  if (g_s->peer) JudgePeer();
  if (!g_s->summary.empty()) JudgeSummary();
}

void ResetMachine() {
  SetService(Service::kStopped);
  for (HKEY hive : {HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE})
    for (const wchar_t* name : {L"attention_state", L"attention_delay", L"attention__ability"})
      RegDeleteKeyValueW(hive, kKey, name);
  DeleteFileW(PluginLog().c_str());
  DeleteFileW(SensorLog().c_str());
  DeleteFileW(ConfigIni().c_str());
  // The vendor's folder, as its installer leaves it.
  SHCreateDirectoryExW(nullptr, (CommonAppData() + L"\\Vantoq").c_str(), nullptr);
}

}  // namespace

std::wstring PluginLog() {
  return CommonAppData() + L"\\Vantoq\\Quillomatic\\logs\\QXAttentionPlugin.log.logdat";
}

void RunSessions(const std::function<void(int)>& body, int sessions) {
  if (g_session >= 0) {
    Session s;
    g_s = &s;
    GetLocalTime(&s.started);
    s.start = Now();
    body(g_session);
    EndSession();
    return;
  }
  ResetMachine();
  const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
  const std::wstring name = Widen(std::string(info->test_suite_name()) + "." + info->name());
  const std::wstring out = TempDir(L"plugin") + L"\\session";
  for (int i = 0; i < sessions && !testing::Test::HasFailure(); ++i) {
    const HANDLE child =
        StartSelf(L"session", {L"--qx-session=" + std::to_wstring(i), L"--gtest_filter=" + name},
                  out + std::to_wstring(i));
    ASSERT_TRUE(child) << "session " << i << " did not start: " << GetLastError();
    const int code = WaitChild(child, 300000);
    const std::string text = ReadFileBytes(out + std::to_wstring(i));
    EXPECT_TRUE(code == 0 && text.find("[  PASSED  ] 1 test.") != std::string::npos)
        << "session " << i << " of " << sessions << " (exit code " << code << "):\n"
        << text;
  }
  ResetMachine();
}

bool Until(const std::function<bool()>& condition, DWORD timeoutMs) {
  for (const DWORD start = GetTickCount(); !condition();) {
    if (GetTickCount() - start > timeoutMs) return false;
    Sleep(20);
  }
  return true;
}

void Quiet() {
  std::size_t before = SIZE_MAX, quietSince = GetTickCount();
  for (const DWORD start = GetTickCount(); GetTickCount() - start < 20000; Sleep(20)) {
    const Mark m = Now();
    const std::size_t now = m.log + m.sensor + m.calls + m.pipe + m.callbacks;
    if (now != before) before = now, quietSince = GetTickCount();
    if (GetTickCount() - quietSince >= kQuietMs) return;
  }
  ADD_FAILURE() << "never quiet for " << kQuietMs << " ms within 20 s";
}

void SetService(Service mode, const std::wstring& args) {
  if (FusionSimServiceState() != 0 && FusionSimServiceState() != SERVICE_STOPPED)
    FusionSimStopService();
  if (FusionSimWaitReady(0)) FusionSimQuit(10000);  // a console simulator
  // A new simulator needs the shared block of the old one gone with its process.
  Until([] { return !FusionSimWaitReady(0); });
  const bool installed = mode != Service::kConsole && mode != Service::kAbsent;
  bool ok = installed ? FusionSimInstallService(L"--quiet " + args) : FusionSimUninstallService();
  if (mode == Service::kRunning) ok = ok && FusionSimStartService();
  if (mode == Service::kConsole) ok = ok && FusionSimLaunch(args, 15000, nullptr);
  ASSERT_TRUE(ok) << "the simulator could not be set up (mode " << int(mode) << ")";
}

void KillService() {
  FusionSimModel model = {};
  HANDLE p = FusionSimGetModel(&model)
                 ? OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, model.pid)
                 : nullptr;
  EXPECT_TRUE(p && TerminateProcess(p, 9) && WaitForSingleObject(p, 10000) == WAIT_OBJECT_0);
  if (p) CloseHandle(p);
}

void Config(const wchar_t* name, const wchar_t* value) {
  const std::wstring ini = ConfigIni();
  SHCreateDirectoryExW(nullptr, ini.substr(0, ini.rfind(L'\\')).c_str(), nullptr);
  WritePrivateProfileStringW(L"config", name, value, ini.c_str());
  WritePrivateProfileStringW(nullptr, nullptr, nullptr, ini.c_str());  // flushes the cache
}

RegValue Dword(DWORD v, DWORD type) {
  return {true, type, std::string(reinterpret_cast<const char*>(&v), sizeof v)};
}
void PrintTo(const RegValue& v, std::ostream* os) {
  *os << (v.present ? "type " + std::to_string(v.type) + ": " +
                          wire::ToHex(wire::Bytes(v.bytes.begin(), v.bytes.end()))
                    : "absent");
}
void SetReg(HKEY hive, const wchar_t* name, const RegValue& v) {
  ASSERT_EQ(RegSetKeyValueW(hive, kKey, name, v.type, v.bytes.data(), DWORD(v.bytes.size())),
            ERROR_SUCCESS);
}
RegValue Reg(HKEY hive, const wchar_t* name) {
  BYTE data[1024];
  DWORD type = 0, size = sizeof data;
  const LSTATUS rc = RegGetValueW(hive, kKey, name, RRF_RT_ANY | RRF_NOEXPAND, &type, data, &size);
  if (rc == ERROR_FILE_NOT_FOUND) return kAbsent;
  EXPECT_EQ(rc, ERROR_SUCCESS) << "reading a registry value";
  return {true, type, std::string(reinterpret_cast<char*>(data), size)};
}

wire::Peer& StartPeer(const std::string& auth) {
  g_s->auth = auth;
  g_s->peer = std::make_unique<wire::Peer>();
  EXPECT_TRUE(g_s->peer->Start(kPipe)) << "another server owns the pipe";
  g_s->attentionEvent = CreateEventW(nullptr, FALSE, FALSE, kAttentionEvent);
  return *g_s->peer;
}
void SignalPeerEvent() { EXPECT_TRUE(SetEvent(g_s->attentionEvent)); }

Host::Host(bool shipped) {
  g_s->machine = MachineValues();
  g_s->hostThreads.insert(GetCurrentThreadId());
  const std::string error = qx_plugin::Load(
      ExeDir() + (shipped ? L"QXAttentionPlugin.dll" : L"QXAttentionPlugin-noauth.dll"),
      &g_s->plugin);
  EXPECT_EQ(error, "");
  g_host = this;
}
int Host::Init(bool withCallback) {
  return g_s->plugin.init(nullptr, withCallback ? OnCallback : nullptr);
}
std::string Host::Act(const std::string& name, const char* params) {
  {
    std::lock_guard<std::mutex> hold(g_s->lock);
    g_s->hostThreads.insert(GetCurrentThreadId());
  }
  char* result = reinterpret_cast<char*>(static_cast<std::uintptr_t>(0xdeadbeef));
  int rc = 0;
  try {
    rc = g_s->plugin.action(name.c_str(), params, &result);
  } catch (const std::exception& e) {
    return std::string("throws: ") + e.what();
  }
  if (name == "close") g_s->closed = true;
  if (name == "init") g_s->closed = false;
  if (rc || !result || result == reinterpret_cast<char*>(static_cast<std::uintptr_t>(0xdeadbeef)))
    return "rc " + std::to_string(rc) + (result ? "" : " null");
  const std::string text = result;
  g_s->plugin.release(result);
  return text;
}
void* Host::New(int size) { return g_s->plugin.create(size); }
void Host::Delete(void* block) { g_s->plugin.release(block); }
std::vector<Callback> Host::Callbacks() {
  std::lock_guard<std::mutex> hold(g_s->lock);
  return g_s->callbacks;
}

Mark Now() {
  std::vector<FusionSimCall> calls;
  FusionSimReadCalls(&calls);
  std::size_t callbacks = 0;
  if (g_s) {
    std::lock_guard<std::mutex> hold(g_s->lock);
    callbacks = g_s->callbacks.size();
  }
  return {FileSize(PluginLog()), FileSize(SensorLog()), calls.size(),
          g_s && g_s->peer ? g_s->peer->Get(g_s->peer->requests).size() : 0, callbacks};
}

std::vector<std::string> Records(const Mark& from) {
  std::vector<std::string> out;
  for (const Rec& r : ParsedRecords(from.log)) out.push_back(r.Show());
  return out;
}

std::vector<std::string> SensorLines(const Mark& from) {
  std::vector<std::string> out;
  for (const std::string& line : RawSensorLines(from.sensor)) {
    std::smatch m;
    out.push_back(std::regex_match(line, m, Stamp()) ? m.str(7) : line);
  }
  return out;
}

std::vector<std::string> Calls(const Mark& from) {
  std::vector<FusionSimCall> calls;
  if (!FusionSimReadCalls(&calls)) return {"(no simulator to read)"};
  std::vector<std::string> out;
  for (std::size_t i = from.calls; i < calls.size(); ++i) {
    const FusionSimCall& c = calls[i];
    char head[64], code[16];
    std::snprintf(head, sizeof head, c.opnum == 0 || c.opnum == 5 ? "%s 0x%x %d" : "%s %d %d",
                  c.opnum >= 0 && c.opnum < kFusionSimOpnums ? kProcedures[c.opnum] : "?",
                  unsigned(c.arg0), c.arg1);
    std::snprintf(code, sizeof code, " -> 0x%x", unsigned(c.result));
    const auto data = c.data + std::min<std::uint32_t>(c.dataLen, kFusionSimMaxBytes);
    out.push_back(head + (c.dataLen ? " " + wire::ToHex(wire::Bytes(c.data, data)) : "") +
                  (!c.answered ? " -> pending"
                   : c.result  ? code
                               : ""));
  }
  return out;
}

std::vector<std::string> Requests(const Mark& from) {
  if (!g_s || !g_s->peer) return {};
  const auto all = g_s->peer->Get(g_s->peer->requests);
  return std::vector<std::string>(all.begin() + std::ptrdiff_t(std::min(from.pipe, all.size())),
                                  all.end());
}

void Anchors(const std::function<std::vector<std::string>()>& what,
             const std::vector<std::string>& expected) {
  std::vector<std::string> actual;
  const auto found = [&] {
    std::size_t k = 0;
    for (const std::string& a : actual = what()) k += k < expected.size() && Glob(expected[k], a);
    return k == expected.size();
  };
  EXPECT_TRUE(Until(found)) << "expected, in this order:\n  " << testing::PrintToString(expected)
                            << "\ngot:\n  " << testing::PrintToString(actual);
}

void DeclareExceptions(const std::vector<std::string>& lines) { g_s->exceptions = lines; }

void ExpectSummary(int exit, const std::string& category, std::vector<std::string> texts) {
  texts.insert(texts.begin(), "category: " + category);
  g_s->summaryExit = exit;
  g_s->summary = texts;
}

}  // namespace qx

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], "--qx-session=", 13) == 0) qx::g_session = std::atoi(argv[i] + 13);
  testing::InitGoogleTest(&argc, argv);
  if (qx::g_session >= 0) {
    const int rc = RUN_ALL_TESTS();
    std::fflush(stdout);
    // Threads the plug-in left behind end with the process.
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(rc));
  }
  // The rows no test produced, against unproduced.txt (the rows no session
  // can write, with why): after a whole run, or (--qx-coverage FILE...) from
  // the rows files of runs in parts, which ctest's entries leave.
  std::string seen = "\n";
  const auto unseen = [&seen] {
    std::set<std::string> listed, rows;
    std::ifstream in(QX_UNPRODUCED);
    for (std::string line; std::getline(in, line);)
      if (!line.empty() && line[0] != '#') listed.insert(line);
    for (bool sensor : {false, true})
      for (const auto& row : qx::Catalogue(sensor)) rows.insert(row.Key());
    int rc = listed.empty();
    std::printf("Catalogue rows no test produced:\n");
    for (const std::string& key : rows) {
      const bool produced = seen.find("\n" + key + "\n") != std::string::npos,
                 known = listed.count(key);
      if (!produced || known)
        std::printf("  %s%s\n", key.c_str(),
                    produced ? "  (produced now: take it off unproduced.txt)"
                    : known  ? ""
                             : "  (not in unproduced.txt: no test writes it any more)");
      rc |= produced == known;
    }
    for (const std::string& key : listed)
      if (!rows.count(key)) std::printf("  %s  (in unproduced.txt, no row)\n", key.c_str()), rc = 1;
    return rc;
  };
  if (argc > 1 && std::strcmp(argv[1], "--qx-coverage") == 0) {
    int rc = 0;
    for (int i = 2; i < argc; ++i) {
      const std::wstring rows = testsupport::Widen(argv[i]);
      if (GetFileAttributesW(rows.c_str()) == INVALID_FILE_ATTRIBUTES)
        rc = 1, std::printf("No rows in %s: its part did not run.\n", argv[i]);
      seen += testsupport::ReadFileBytes(rows);
      DeleteFileW(rows.c_str());  // a later run in part reads only its own
    }
    return unseen() | rc;
  }
  std::wstring coverage = testsupport::TempDir(L"coverage") + L"\\rows";
  if (const char* given = std::getenv("QX_COVERAGE"))
    DeleteFileW((coverage = testsupport::Widen(given)).c_str());
  SetEnvironmentVariableW(L"QX_COVERAGE", coverage.c_str());
  int rc = RUN_ALL_TESTS();
  if (GTEST_FLAG_GET(filter) == "*") seen += testsupport::ReadFileBytes(coverage), rc |= unseen();
  return rc;
}
