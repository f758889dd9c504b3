// `scenario_runner FILE.scn`: each scenario of the file is a GoogleTest case,
// which puts the machine into its known state (README.md) and runs each "host"
// session as a new process of this program (`--role session FILE NAME N STDOUT`).
// A session runs the steps, compares after each what happened with the
// expectations below it, and reports the differences on standard error.
#include <gtest/gtest.h>
#include <shlobj.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <thread>

#include "FusionClient.h"
#include "FusionSimCtl.h"
#include "LogFrameReader.h"
#include "ScenarioFile.h"
#include "SensorLibLog.h"
#include "TestSupport.h"
#include "WirePeer.h"
// After windows.h.
#include <tlhelp32.h>

using namespace scenario;
using namespace testsupport;

namespace {

constexpr wchar_t kKey[] = L"SOFTWARE\\Vantoq\\Quillomatic";
const char* const kProcedures[kFusionSimOpnums] = {
    "Setting",         "GetSensorData", "SetSensorParam", "StartSensor",
    "GetSensorStatus", "UnInit",        "GetSensorParam"};
char* const kPoison = reinterpret_cast<char*>(static_cast<std::uintptr_t>(0xdeadbeef));

std::wstring PluginLog() {
  return CommonAppData() + L"\\Vantoq\\Quillomatic\\logs\\QXAttentionPlugin.log.logdat";
}
std::wstring SensorLog() {
  return CommonAppData() + L"\\Vantoq\\SensorFusion\\Logs\\SensorLibLog.log";
}
// The service's pipe and attention event, and the one bind a client may make:
// the interface with NDR 2.0 alone. Written out from the wire contract.
constexpr wchar_t kPipe[] = L"Vantoq.SensorFusion.EndPoint_edc08f";
constexpr wchar_t kAttentionEvent[] = L"Global\\Vantoq.SensorFusion.AttentionEVENT";
constexpr char kBind[] =
    "bind ctx 0: 7745c01b-9375-4881-9ab5-bbc087ec41f5 v1.0 [8a885d04-1ceb-11c9-9fe8-08002b104860 "
    "v2.0]";
constexpr char kException[] = "Runtime reported exception";
std::wstring ConfigFolder() { return CommonAppData() + L"\\Vantoq\\Quillomatic\\config"; }
HKEY Hive(const std::string& name) {
  return name == "HKLM" ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
}
long long Number(const std::string& token) { return std::strtoll(token.c_str(), nullptr, 0); }
// A procedure's opnum; another word gives one the simulator refuses.
int Procedure(const std::string& name) {
  return static_cast<int>(std::find(kProcedures, kProcedures + kFusionSimOpnums, name) -
                          kProcedures);
}

DWORD ThreadCount() {
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry = {};
  entry.dwSize = sizeof(entry);
  DWORD count = 0;
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
    count += entry.th32OwnerProcessID == GetCurrentProcessId();
  return CloseHandle(snapshot), count;
}

// The simulator as the stopped or running service (installed with `args`), as a
// console process (`fusion-sim run args`) with the service removed, or absent.
bool SetService(const std::string& mode, const std::wstring& args) {
  if (FusionSimServiceState() != 0 && FusionSimServiceState() != SERVICE_STOPPED)
    FusionSimStopService();
  if (FusionSimWaitReady(0)) FusionSimQuit(10000);  // a console simulator
  // A new simulator needs the shared block of the old one gone with its process.
  for (int i = 0; i < 400 && FusionSimWaitReady(0); ++i) Sleep(25);
  const bool installed = mode == "stopped" || mode == "running";
  if (!(installed ? FusionSimInstallService(L"--quiet " + args) : FusionSimUninstallService()))
    return false;
  if (mode == "running") return FusionSimStartService();
  if (mode == "console") return FusionSimLaunch(args, 15000, nullptr);
  return installed || mode == "absent";
}

// ---------------------------------------------------------------------------
// A host session.

Plugin g_plugin;

DWORD g_hostThread = 0;
std::mutex g_lock;
std::vector<Tokens> g_callbacks;

int OnHostCallback(const char* kind, const char* name, const char* json, std::uintptr_t reserved,
                   std::int32_t flags) {
  auto text = [](const char* s) { return s ? Quote(s) : std::string("null"); };
  std::lock_guard<std::mutex> lock(g_lock);
  g_callbacks.push_back(
      {"callback", GetCurrentThreadId() == g_hostThread ? "host-thread" : "event-thread",
       text(kind), text(name), text(json), std::to_string(reserved), std::to_string(flags)});
  return 0x7777;  // not looked at by the plug-in
}
std::vector<Tokens> CallbacksSince(std::size_t mark) {
  std::lock_guard<std::mutex> lock(g_lock);
  return std::vector<Tokens>(g_callbacks.begin() + static_cast<std::ptrdiff_t>(mark),
                             g_callbacks.end());
}
std::size_t CallbackCount() { return CallbacksSince(0).size(); }

std::string Hex(std::uint32_t v) {
  char text[16];
  return std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(v)), text;
}

// "client CALL [ARG]": one call of the fusion client linked into this program
// (the test variant, without authentication). The result line holds the code
// and, for calls with an out buffer, its bytes up to the last one the call
// changed (64 bytes of 0xcc before it). False for an unknown call.
bool Client(const Tokens& t, Tokens* result) {
  const std::string call = t[1], arg = t.size() > 2 ? Unquote(t[2]) : "";
  std::uint8_t out[64];
  std::memset(out, 0xcc, sizeof out);
  const std::uint32_t value = static_cast<std::uint32_t>(Number(arg));
  std::int32_t rc = 0;
  if (call == "open-log") return SensorLibLogOpen(), true;
  if (call == "write-log") return SensorLibLogWrite("%s", arg.c_str()), true;
  if (call == "bind")
    rc = BindFusionService();
  else if (call == "GetFusionStatus")
    rc = GetFusionStatus(nullptr, reinterpret_cast<std::uint32_t*>(out));
  else if (call == "SetFusionDelay")
    rc = SetFusionDelay(nullptr, &value);
  else if (call == "SensorDataCallback")
    rc = SensorDataCallback(static_cast<std::int32_t>(value));
  else
    return false;
  std::size_t changed = sizeof out;
  while (changed && out[changed - 1] == 0xcc) --changed;
  *result = {"result", Hex(static_cast<std::uint32_t>(rc))};
  if (changed) result->push_back(Quote(wire::ToHex(wire::Bytes(out, out + changed))));
  return true;
}

// The "result" line of one action: return code and text, or what escaped.
Tokens RunAction(const Tokens& t) {
  const std::string name = Unquote(t[1]), params = t.size() > 2 ? Unquote(t[2]) : "";
  char* result = kPoison;
  int rc = 0;
  try {
    rc = g_plugin.action(name.c_str(), t.size() > 2 ? params.c_str() : nullptr, &result);
  } catch (const std::exception& e) {
    return {"result", "throws", Quote(e.what())};
  }
  if (result == kPoison || !result)
    return {"result", std::to_string(rc), result ? "no-result" : "null"};
  Tokens out = {"result", std::to_string(rc), Quote(result)};
  g_plugin.free(result);
  return out;
}

struct Session {
  std::wstring stdoutPath;
  std::vector<std::string> failures;
  std::thread worker;  // "action-in-thread"
  std::atomic<bool> workerDone{false};
  Tokens workerResult;
  std::vector<void*> blocks;  // from "qx_plugin_new", freed at the end
  DWORD threadsAtHost = 0;
  std::unique_ptr<wire::Peer> peer;  // "peer": the raw wire peer serves the pipe
  HANDLE attentionEvent = nullptr;   // the peer's (auto-reset)
  std::string auth;                  // what every bind carries after kBind
  SYSTEMTIME started = {};           // no stamp in the sensor library log before it
  // Where the current step's window starts.
  std::size_t logMark = 0, stdoutMark = 0, callbackMark = 0, sensorMark = 0, pipeMark = 0;
  void Fail(int line, const std::string& what) {
    failures.push_back("line " + std::to_string(line) + ": " + what);
  }
};

std::vector<Tokens> LogSince(std::size_t mark) {
  const std::string bytes = ReadFileBytes(PluginLog());
  std::vector<logframe::Record> frames;
  logframe::FrameDecoder decoder;
  if (mark > bytes.size()) mark = 0;  // deleted by the size check in between
  decoder.Feed(bytes.data() + mark, bytes.size() - mark, frames);
  std::vector<Tokens> out;
  long last = -1;
  for (const logframe::Record& f : frames) {
    // "MM-DD hh:mm:ss:mmm : [INF][00036] Source(line) text\n"
    int h = 0, m = 0, sec = 0, ms = 0, at = 0;
    char level[8] = {};
    std::sscanf(f.text.c_str(), "%*d-%*d %d:%d:%d:%d : [%7[A-Z]][%*d] %n", &h, &m, &sec, &ms, level,
                &at);
    const std::size_t place = f.text.find(") ", at);
    if (!at || place == std::string::npos) {
      out.push_back({"log", "unreadable", Quote(f.text)});
      continue;
    }
    const long now = ((h * 60L + m) * 60 + sec) * 1000 + ms;
    Tokens t = {"log"};
    if (last >= 0 && now - last >= 50) t.push_back("+" + std::to_string(now - last));
    last = now;
    t.insert(t.end(), {level, f.text.substr(at, place + 1 - at),
                       Quote(f.text.substr(place + 2, f.text.size() - place - 3))});
    out.push_back(t);
  }
  return out;
}

// A local time as a number that grows with it (within a year).
long long When(int mo, int d, int h, int mi, int sec, int ms) {
  return ((((mo * 32LL + d) * 24 + h) * 60 + mi) * 60 + sec) * 1000 + ms;
}

// The sensor library log's lines from byte `mark` on, without their stamps.
// Every line but the version line and empty ones carries the local time as
// "[MM-DD-hh-mm-ss:ms]" (ms not padded), within this session: `wrong` gets
// each line that does not.
std::vector<Tokens> SensorLogSince(const Session& s, std::size_t mark,
                                   std::vector<std::string>* wrong = nullptr) {
  const std::string text = ReadFileBytes(SensorLog());
  static const std::regex stamp(R"(\[(\d\d)-(\d\d)-(\d\d)-(\d\d)-(\d\d):(0|[1-9]\d{0,2})\](.*))");
  SYSTEMTIME now;
  GetLocalTime(&now);
  const SYSTEMTIME& a = s.started;
  const long long from = When(a.wMonth, a.wDay, a.wHour, a.wMinute, a.wSecond, a.wMilliseconds),
                  to = When(now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond,
                            now.wMilliseconds);
  std::vector<Tokens> out;
  for (std::size_t at = std::min(mark, text.size()), end;
       (end = text.find("\r\n", at)) != std::string::npos; at = end + 2) {
    const std::string line = text.substr(at, end - at);
    std::smatch m;
    const bool stamped = std::regex_match(line, m, stamp);
    bool ok = line.empty() || line.rfind("Version:", 0) == 0;
    if (stamped) {
      auto n = [&](int i) { return std::stoi(m[i]); };
      const long long t = When(n(1), n(2), n(3), n(4), n(5), n(6));
      ok = t >= from && t <= to;
    }
    if (!ok && wrong) wrong->push_back(line);
    out.push_back({"sensorlog", Quote(stamped ? m.str(7) : line)});
  }
  return out;
}

std::vector<Tokens> PipeSince(const Session& s) {
  std::vector<Tokens> out;
  const auto requests = s.peer ? s.peer->Get(s.peer->requests) : wire::Peer::Seen();
  for (std::size_t i = s.pipeMark; i < requests.size(); ++i) {
    const std::size_t colon = requests[i].find(": ");
    out.push_back({"pipe", requests[i].substr(0, colon), Quote(requests[i].substr(colon + 2))});
  }
  return out;
}

std::vector<Tokens> SimCalls() {
  std::vector<FusionSimCall> calls;
  std::vector<Tokens> out;
  FusionSimReadCalls(&calls);
  for (const FusionSimCall& c : calls) {
    Tokens t = {
        "rpc",
        c.opnum >= 0 && c.opnum < kFusionSimOpnums ? kProcedures[c.opnum] : std::to_string(c.opnum),
        std::to_string(c.arg0), std::to_string(c.arg1)};
    char hex[2 * kFusionSimMaxBytes + 16] = {};
    for (std::uint32_t i = 0; i < c.dataLen && i < kFusionSimMaxBytes; ++i)
      std::sprintf(hex + 2 * i, "%02x", c.data[i]);
    if (*hex) t.push_back(hex);
    if (!c.answered || c.result)
      t.insert(t.end(), {"->", c.answered ? Hex(static_cast<std::uint32_t>(c.result)) : "pending"});
    out.push_back(t);
  }
  return out;
}

std::vector<Tokens> StdoutSince(const Session& s) {
  const std::string text = ReadFileBytes(s.stdoutPath);
  std::vector<Tokens> out;
  for (std::size_t at = std::min(s.stdoutMark, text.size()), end;
       (end = text.find('\n', at)) != std::string::npos; at = end + 1)
    out.push_back(
        {"stdout", Quote(text.substr(at, end - at - (end > at && text[end - 1] == '\r')))});
  return out;
}

Tokens Registry(const std::string& hive, const std::string& name) {
  DWORD type = 0, value = 0, size = sizeof(value);
  Tokens t = {"reg", hive, name, "absent"};
  if (RegGetValueW(Hive(hive), kKey, Widen(name).c_str(), RRF_RT_ANY, &type, &value, &size) ==
      ERROR_SUCCESS)
    t.back() = std::to_string(value);
  if (t.back() != "absent" && type != REG_DWORD)
    t.push_back(type == REG_BINARY ? "binary" : "type" + std::to_string(type));
  return t;
}

// The reports a run of fetched attention records implies: one for each record
// that changes the status to 0, the first record fetched counting as a change.
std::size_t ImpliedReports() {
  std::size_t reports = 0;
  std::string last;  // the record of the last fetch answered with 0 and 4 bytes
  for (const Tokens& t : SimCalls())
    if (t[1] == "GetSensorData" && t.size() == 5 && t[4].size() == 8)
      reports += t[4] == "00000000" && last != t[4], last = t[4];
  return reports;
}

// "storm ROUNDS": on this thread, ROUNDS rounds of a new delay (10 + 7i mod 51)
// and get_attention while another thread fires look-away and look-back events
// back to back; after every fifth round the events stop and attention is
// switched off and on (a waiting thread kept busy by its sensor event could
// miss its stop). The result counts the answers that were not the expected ones.
Tokens Storm(int rounds) {
  int unexpected = 0;
  auto act = [&](const char* name, const char* member, int value, int delay, int status) {
    const std::string params =
        "{\"F4010\":{\"" + std::string(member) + "\":" + std::to_string(value) + "}}";
    const std::string answer = "{\"cmd\":\"get_attention\",\"delay\":" + std::to_string(delay) +
                               ",\"status\":" + std::to_string(status) + "}\n";
    unexpected +=
        RunAction({"action", name, Quote(params)}) != Tokens{"result", "0", Quote(answer)};
  };
  for (int i = 0, delay = 0; i < rounds;) {
    // 250 events a burst at most: the simulator's call record keeps every fetch.
    std::atomic<bool> done{false};
    std::thread events([&] {
      for (int n = 0; !done && n < 250; ++n) FusionSimSetAttention(n % 2, true);
    });
    for (const int end = std::min(rounds, i + 5); i < end; ++i) {
      delay = 10 + (i * 7) % 51;
      act("set_attention_delay", "delay", delay, delay, 2);
      act("get_attention", "", 0, delay, 2);
    }
    done = true;
    events.join();
    act("set_attention_status", "status", 1, delay, 1);
    act("set_attention_status", "status", 2, delay, 2);
  }
  return {"result", std::to_string(unexpected), "unexpected-answers"};
}

bool Sim(const Tokens& t) {
  auto arg = [&](std::size_t i) { return i < t.size() ? t[i] : std::string(); };
  const std::string what = arg(1);
  if (what == "look-away" || what == "look-back")
    return FusionSimSetAttention(what == "look-back", true);
  if (what == "unforce") return FusionSimClearForced(Procedure(arg(2)));
  if (what == "reply-delay")
    return FusionSimSetReplyDelay(static_cast<std::uint32_t>(Number(arg(2))));
  if (what == "hold") return FusionSimHoldReplies(true);
  if (what == "event" && arg(2) == "back") return FusionSimDropAttentionEvent(false);
  if (what == "wait-calls")
    return FusionSimWaitCalls(static_cast<std::uint32_t>(Number(arg(2))), 10000);
  if (what == "force")  // "once": the simulator lifts it as it answers
    return FusionSimForceResult(Procedure(arg(2)), static_cast<std::int32_t>(Number(arg(3))),
                                arg(4) == "once");
  if (what == "kill") {
    FusionSimModel model = {};
    HANDLE p = FusionSimGetModel(&model)
                   ? OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, model.pid)
                   : nullptr;
    const bool ok = p && TerminateProcess(p, 9) && WaitForSingleObject(p, 10000) == WAIT_OBJECT_0;
    if (p) CloseHandle(p);
    return ok;
  }
  return false;
}

// Does one step; answers why not when it could not be done.
std::string Run(Session& s, const Tokens& t, Tokens* result) {
  auto arg = [&](std::size_t i) { return i < t.size() ? Unquote(t[i]) : std::string(); };
  const std::string& w = t[0];
  if (w == "config") {
    const std::wstring ini = ConfigFolder() + L"\\config.ini";
    SHCreateDirectoryExW(nullptr, ConfigFolder().c_str(), nullptr);
    WritePrivateProfileStringW(L"config", Widen(arg(1)).c_str(), Widen(arg(2)).c_str(),
                               ini.c_str());
    // Flushes the profile cache.
    WritePrivateProfileStringW(nullptr, nullptr, nullptr, ini.c_str());
  } else if (w == "service") {
    std::wstring args;
    for (std::size_t i = 2; i < t.size(); ++i) args += Widen(arg(i)) + L" ";
    if (!SetService(arg(1), args)) return "the simulator could not be set up so";
  } else if (w == "write") {
    const DWORD value = static_cast<DWORD>(Number(arg(3)));
    if (RegSetKeyValueW(Hive(arg(1)), kKey, Widen(arg(2)).c_str(),
                        arg(4) == "binary" ? REG_BINARY : REG_DWORD, &value,
                        sizeof(value)) != ERROR_SUCCESS)
      return "the value could not be written";
  } else if (w == "delete") {
    RegDeleteKeyValueW(Hive(arg(1)), kKey, Widen(arg(2)).c_str());
  } else if (w == "host") {
    if (!LoadPlugin(
            arg(1) == "shipped" ? L"QXAttentionPlugin.dll" : L"QXAttentionPlugin-noauth.dll",
            &g_plugin))
      return "the DLL or one of its exports is missing";
    g_hostThread = GetCurrentThreadId();
    s.threadsAtHost = ThreadCount();
  } else if (w == "qx_plugin_init") {
    *result = {"result", std::to_string(g_plugin.init(
                             nullptr, arg(1) == "no-callback" ? nullptr : OnHostCallback))};
  } else if (w == "qx_plugin_new") {
    void* block = g_plugin.create(static_cast<int>(Number(arg(1))));
    const bool again = std::find(s.blocks.begin(), s.blocks.end(), block) != s.blocks.end();
    *result = {"result", !block ? "null" : again ? "reused" : "new"};
    if (block && !again)
      std::memset(block, 0x5a, static_cast<std::size_t>(Number(arg(1)))), s.blocks.push_back(block);
  } else if (w == "action") {
    *result = RunAction(t);
  } else if (w == "action-in-thread") {
    s.worker = std::thread([&s, t] {
      s.workerResult = RunAction(t);
      s.workerDone = true;
    });
  } else if (w == "join") {
    for (long long waited = 0; !s.workerDone && waited < Number(arg(1)); waited += 10) Sleep(10);
    *result = s.workerDone ? s.workerResult : Tokens{"result", "pending"};
    if (s.workerDone && s.worker.joinable()) s.worker.join();
  } else if (w == "storm") {
    *result = Storm(static_cast<int>(Number(arg(1))));
  } else if (w == "sim") {
    if (!Sim(t)) return "the simulator did not do it (is one running?)";
  } else if (w == "peer" && arg(1) == "signal") {
    if (!s.attentionEvent || !SetEvent(s.attentionEvent)) return "no peer to signal for";
  } else if (w == "peer") {
    s.auth = arg(1) == "auth" ? arg(2) : "";
    s.peer = std::make_unique<wire::Peer>();
    if (!s.peer->Start(kPipe)) return "another server owns the pipe";
    s.attentionEvent = CreateEventW(nullptr, FALSE, FALSE, kAttentionEvent);
  } else if (w == "client") {
    if (t.size() < 2 || !Client(t, result)) return "no such client call";
  }
  return "";
}

// A step's window starts: what happens from here on is the step's.
void Mark(Session& s) {
  FusionSimClearCalls();
  s.logMark = ReadFileBytes(PluginLog()).size();
  s.stdoutMark = ReadFileBytes(s.stdoutPath).size();
  s.callbackMark = CallbackCount();
  s.sensorMark = ReadFileBytes(SensorLog()).size();
  s.pipeMark = s.peer ? s.peer->Get(s.peer->requests).size() : 0;
}

// The lists of lines (log, sensorlog, rpc, pipe, callback, stdout) the step's
// expectations name, and what happened of each kind in its window. A pipe
// line's reply (its fourth word) is the peer's to send, not compared.
std::map<std::string, std::vector<Tokens>> Lists(const Step& step) {
  std::map<std::string, std::vector<Tokens>> lists;
  const std::string kinds = " log sensorlog rpc pipe callback stdout ";
  for (const Line& e : step.expect) {
    const std::string& w = e.tokens[0];
    if (kinds.find(" " + w + " ") == std::string::npos) continue;
    std::vector<Tokens>& list = lists[w];  // "none": checked as empty
    if (e.tokens[1] != "none")
      list.emplace_back(e.tokens.begin(), e.tokens.begin() + (w == "pipe" ? 3 : e.tokens.size()));
  }
  return lists;
}
std::vector<Tokens> Actual(const Session& s, const std::string& what) {
  return what == "log"         ? LogSince(s.logMark)
         : what == "sensorlog" ? SensorLogSince(s, s.sensorMark)
         : what == "rpc"       ? SimCalls()
         : what == "pipe"      ? PipeSince(s)
         : what == "stdout"    ? StdoutSince(s)
                               : CallbacksSince(s.callbackMark);
}
std::size_t Exceptions(const std::vector<Tokens>& lines) {
  return std::count_if(lines.begin(), lines.end(), [](const Tokens& t) {
    return t.size() > 1 && t[1].find(kException) != std::string::npos;
  });
}

// Waits (10 s at most) until what the step set off on other threads matches
// its lists. After the simulator's or the peer's steps, a storm or a join,
// what must not happen can only be judged after a while: then until the logs,
// the calls, the requests and the callbacks have also been quiet for 300 ms.
void Settle(Session& s, const Step& step) {
  const auto lists = Lists(step);
  const auto met = [&] {
    for (const auto& [what, expected] : lists)
      if (!Matches(expected, Actual(s, what))) return false;
    return true;
  };
  for (int i = 0; i < 500 && !met(); ++i) Sleep(20);
  const std::string& w = step.line.tokens[0];
  if (w != "sim" && w != "peer" && w != "join" && w != "storm") return;
  for (std::size_t i = 0, quiet = 0, before = 0, now; i < 250 && quiet < 15;
       ++i, Sleep(20), before = now)
    quiet = (now = ReadFileBytes(PluginLog()).size() + ReadFileBytes(SensorLog()).size() +
                   SimCalls().size() + CallbackCount() + PipeSince(s).size()) == before
                ? quiet + 1
                : 0;
}

std::string Dump(const std::vector<Tokens>& lines, std::string out = "") {
  for (const Tokens& t : lines) out += "      " + Join(t) + "\n";
  return out.empty() ? "      (none)\n" : out;
}

// These steps wait for what the step before set off: its window goes on.
bool Continues(const Tokens& t) {
  return t[0] == "join" || (t[0] == "sim" && t.size() > 1 && t[1] == "wait-calls");
}

// `windowEnds`: no step after this one continues its window, so its sensor
// library log is complete.
void Judge(Session& s, const Step& step, const Tokens& result, DWORD elapsedMs, bool windowEnds) {
  auto check = [&](const Line& e, const Tokens& actual) {
    if (!Matches({e.tokens}, {actual}))
      s.Fail(e.number, "expected " + Join(e.tokens) + "\n         got " + Join(actual));
  };
  for (const Line& e : step.expect) {
    const Tokens& t = e.tokens;
    const std::string& w = t[0];
    if (w == "result") {
      check(e, result);
    } else if (w == "reg") {
      check(e, Registry(t[1], t[2]));
    } else if (w == "service-state") {
      const DWORD st = FusionSimServiceState();
      check(e, {w, st == SERVICE_RUNNING   ? "running"
                   : st == SERVICE_STOPPED ? "stopped"
                   : st                    ? "other"
                                           : "absent"});
    } else if (w == "within" && elapsedMs >= Number(t[1])) {
      s.Fail(e.number, "the step took " + std::to_string(elapsedMs) + " ms");
    } else if (w == "no-extra-threads") {
      for (int i = 0; i < 50 && ThreadCount() > s.threadsAtHost; ++i) Sleep(100);
      if (ThreadCount() > s.threadsAtHost)
        s.Fail(e.number, std::to_string(ThreadCount()) + " threads, " +
                             std::to_string(s.threadsAtHost) + " at first");
    } else if (w == "callbacks-match-fetches" &&
               (CallbackCount() - s.callbackMark != ImpliedReports() || !ImpliedReports())) {
      s.Fail(e.number, std::to_string(CallbackCount() - s.callbackMark) + " callbacks for " +
                           std::to_string(ImpliedReports()) +
                           " changes to 0 among the fetched records");
    }
  }
  const auto lists = Lists(step);
  for (const auto& [what, expected] : lists) {
    const std::vector<Tokens> actual = Actual(s, what);
    if (!Matches(expected, actual))
      s.Fail(step.line.number,
             what + " lines differ; expected:\n" + Dump(expected) + "    got:\n" + Dump(actual));
  }
  // Every exception line of the sensor library log is one the window's last
  // step names, and every line is stamped within the session.
  std::vector<std::string> wrong;
  const std::vector<Tokens> sensor = SensorLogSince(s, s.sensorMark, &wrong);
  const auto named = lists.count("sensorlog") ? Exceptions(lists.at("sensorlog")) : 0;
  if (windowEnds && Exceptions(sensor) != named)
    s.Fail(step.line.number, std::to_string(Exceptions(sensor)) + " exception lines in the " +
                                 "sensor library log, " + std::to_string(named) + " expected:\n" +
                                 Dump(sensor));
  for (const std::string& line : wrong)
    s.Fail(step.line.number, "sensor library log, not stamped in this session: " + line);
}

// The peer's own judgement at the end of a session: no protocol error, and
// every bind the one offer a client may make (with the expected
// authentication).
void JudgePeer(Session& s) {
  s.peer->Stop();
  for (const std::string& e : s.peer->Get(s.peer->errors)) s.Fail(0, "wire peer: " + e);
  const auto binds = s.peer->Get(s.peer->binds);
  if (binds.empty()) s.Fail(0, "no bind reached the wire peer");
  const std::string expected = kBind + (s.auth.empty() ? "" : " auth " + s.auth);
  for (const std::string& bind : binds)
    if (bind != expected) s.Fail(0, "expected " + expected + "\n         got " + bind);
}

int RunSession(const std::string& file, const std::string& name, int index,
               const std::wstring& stdoutPath) {
  std::string error;
  Session s;
  s.stdoutPath = stdoutPath;
  GetLocalTime(&s.started);
  int session = -1, steps = 0;
  for (const Scenario& scenario : Parse(ReadFileBytes(Widen(file)), &error)) {
    for (std::size_t i = 0; scenario.name == name && i < scenario.steps.size(); ++i) {
      const Step& step = scenario.steps[i];
      const Tokens& t = step.line.tokens;
      session += t[0] == "host";
      if (std::max(session, 0) != index) continue;
      if (!Continues(t)) Mark(s);
      for (const Line& e : step.expect)
        if (e.tokens[0] == "pipe" && e.tokens.size() > 3 && s.peer)
          s.peer->Queue(Unquote(e.tokens[3]));
      const DWORD started = GetTickCount();
      Tokens result;
      const std::string problem = Run(s, t, &result);
      const DWORD elapsed = GetTickCount() - started;
      ++steps;
      if (!problem.empty()) {
        s.Fail(step.line.number, problem);
        break;
      }
      Settle(s, step);
      const bool ends =
          i + 1 == scenario.steps.size() || !Continues(scenario.steps[i + 1].line.tokens);
      Judge(s, step, result, elapsed, ends);
    }
  }
  if (!steps)
    s.Fail(0, "no steps for session " + std::to_string(index) + " of " + name + " " + error);
  if (s.peer) JudgePeer(s);
  if (s.worker.joinable()) s.worker.detach();  // still in the plug-in: ends with the process
  for (void* block : s.blocks) g_plugin.free(block);
  if (g_plugin.free) g_plugin.free(nullptr);
  for (const std::string& f : s.failures) std::fprintf(stderr, "%s\n", f.c_str());
  std::fprintf(stderr, "%s\n", s.failures.empty() ? "session passed" : "session failed");
  std::fflush(stderr);
  // Not a normal exit: threads the plug-in left behind end with the process.
  TerminateProcess(GetCurrentProcess(), s.failures.empty() ? 0 : 1);
  return 1;
}

// ---------------------------------------------------------------------------
// The GoogleTest side.

void Reset() {
  EXPECT_TRUE(SetService("stopped", L""))
      << "the simulator could not be installed as the stopped service";
  for (HKEY hive : {HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE})
    for (const wchar_t* name : {L"attention_state", L"attention_delay", L"attention__ability"})
      RegDeleteKeyValueW(hive, kKey, name);
  DeleteFileW(PluginLog().c_str());
  DeleteFileW(SensorLog().c_str());
  // The vendor's folder, as its installer leaves it: the sensor library makes
  // only the two levels below it.
  SHCreateDirectoryExW(nullptr, (CommonAppData() + L"\\Vantoq").c_str(), nullptr);
  DeleteFileW((ConfigFolder() + L"\\config.ini").c_str());
}

class ScenarioCase : public testing::Test {
 public:
  ScenarioCase(std::string file, std::string name, int sessions)
      : file_(std::move(file)), name_(std::move(name)), sessions_(sessions) {}
  void TestBody() override {
    Reset();
    const std::wstring dir = TempDir(L"scenario");
    sessions_ = std::max(sessions_, 1);  // a scenario without "host" is one session
    for (int i = 0; i < sessions_ && !HasFailure(); ++i) {
      const std::wstring n = std::to_wstring(i), out = dir + L"\\stdout" + n,
                         report = dir + L"\\report" + n;
      const HANDLE child = StartSelf(L"session", {Widen(file_), Widen(name_), n, out}, out, report);
      if (!child) {
        ADD_FAILURE() << "session " << i + 1 << ": its process did not start (error "
                      << GetLastError() << ")";
        break;
      }
      const int code = WaitChild(child, 300000);
      const std::string text = ReadFileBytes(report);
      if (code != 0 || text.find("session passed") == std::string::npos)
        ADD_FAILURE() << "session " << i + 1 << " of " << sessions_ << " (exit code " << code
                      << (code == -1 ? ", or killed after 300 s" : "") << "):\n"
                      << text;
    }
    Reset();
  }

 private:
  std::string file_, name_;
  int sessions_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc == 7 && std::strcmp(argv[1], "--role") == 0)  // session FILE NAME N STDOUT
    return RunSession(argv[3], argv[4], std::atoi(argv[5]), Widen(argv[6]));
  testing::InitGoogleTest(&argc, argv);
  if (argc != 2) {
    std::fprintf(stderr, "usage: scenario_runner FILE.scn [GoogleTest options]\n");
    return 2;
  }
  std::string path = argv[1], error;
  if (path[0] == '/') path = "Z:" + path;  // a Unix path from the build: Wine's Z: drive
  std::replace(path.begin(), path.end(), '/', '\\');
  const std::vector<Scenario> scenarios = Parse(ReadFileBytes(Widen(path)), &error);
  if (scenarios.empty()) {
    std::fprintf(stderr, "%s: %s\n", path.c_str(), error.empty() ? "no scenario" : error.c_str());
    return 2;
  }
  const std::size_t slash = path.rfind('\\') + 1;
  const std::string suite = path.substr(slash, path.rfind('.') - slash);
  for (const Scenario& s : scenarios)
    testing::RegisterTest(
        suite.c_str(), s.name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
        [=]() -> testing::Test* { return new ScenarioCase(path, s.name, s.sessions); });
  return RUN_ALL_TESTS();
}
