// Cost of each action through the plug-in's exports against the floor of what
// that action must do, measured in the same run:
//
//  - actions: the floor of an action is its remote calls (bare widl stub calls
//    of the same opnums, on a binding of our own to the same pipe), its log
//    records (Logger::Write of the same records into the same file, under the
//    same global mutex, and the sensor library's lines into its file) and its
//    registry write, in the order the action does them;
//  - the attention event: from SetEvent on the service's attention event to the
//    host callback, against a thread of our own woken by an event that does the
//    same fetch (opnum 1) and writes the same records before its "callback";
//  - "init": against its fixed pauses (200 ms + 200 ms with the service
//    running) and its child processes, the same net.exe commands run bare.
//
// Plug-in and floor run in alternating rounds (the order flips every round) so
// that the drift of a shared machine hits both alike; figures are medians.
//
// Needs the simulator registered as the service "VantoqSensorFusion" in the
// prefix (scripts/bench.sh does it) and QXAttentionPlugin-noauth.dll beside it.
//
//   action_bench [calls-per-round=200] [rounds=10] [events=300] [init-rounds=9]
//   action_bench --trace [calls]   runs each kind `calls` times, plug-in then
//                                  floor, between marker events (for counting
//                                  server requests per call)
#include <windows.h>
#include <process.h>
#include <rpc.h>
#include <shellapi.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "BenchPlugin.h"
#include "FusionRpc.h"
#include "FusionSimCtl.h"
#include "Logger.h"
#include "SensorLibLog.h"

namespace {

using bench::Seconds;

FILE* g_out = stdout;
bench::Plugin g_plugin;
RPC_BINDING_HANDLE g_binding = nullptr;

constexpr wchar_t kPluginSource[] = L"AttentionPlugin.cpp";
constexpr wchar_t kInfoSource[] = L"AttentionInfo.cpp";
constexpr wchar_t kControllerSource[] = L"AttentionFuntion";
constexpr wchar_t kProductKey[] = L"SOFTWARE\\Vantoq\\Quillomatic";

// ---------------------------------------------------------------------------
// Floor building blocks

template <class... Args>
void Rec(const wchar_t* source, unsigned line, const wchar_t* format, Args... args) {
  Logger::Instance().Write(LogInfo, format, source, line, args...);
}

void RegistryWrite(const wchar_t* name, DWORD value) {
  HKEY key = nullptr;
  if (RegCreateKeyExW(HKEY_CURRENT_USER, kProductKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                      nullptr) != ERROR_SUCCESS)
    return;
  if (RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                     sizeof(value)) == ERROR_SUCCESS)
    RegFlushKey(key);
  RegCloseKey(key);
}

bool Bind() {
  RPC_WSTR text = nullptr;
  if (RpcStringBindingComposeW(
          nullptr, reinterpret_cast<RPC_WSTR>(const_cast<wchar_t*>(L"ncacn_np")), nullptr,
          reinterpret_cast<RPC_WSTR>(const_cast<wchar_t*>(kFusionSimEndpoint)), nullptr,
          &text) != RPC_S_OK)
    return false;
  const bool ok = RpcBindingFromStringBindingW(text, &g_binding) == RPC_S_OK;
  RpcStringFreeW(&text);
  return ok;
}

// A waiting thread's life as StartFusion makes and ends it: stop event, the
// named attention event opened, the thread started and holding its pair; then
// stop signalled, joined, closed.
struct FloorThread {
  HANDLE stop = nullptr, sensor = nullptr, thread = nullptr;
  HANDLE ready = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  static unsigned __stdcall Proc(void* self) {
    auto* t = static_cast<FloorThread*>(self);
    // The waiting thread's own two lines: one before the starter may go on,
    // one before the join completes.
    SensorLibLogWrite("GetSensorDataProc:index %d,FusionFlag %d", 6, 6);
    HANDLE pair[2] = {t->sensor, t->stop};
    SetEvent(t->ready);
    for (;;) {
      const DWORD w = WaitForMultipleObjects(2, pair, FALSE, INFINITE);
      if (w == WAIT_OBJECT_0 + 1) break;
    }
    SensorLibLogWrite("Thread exit %u", 6u);
    return 0;
  }
  void Start() {
    stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    sensor = OpenEventW(GENERIC_READ | SYNCHRONIZE, FALSE,
                        L"Global\\Vantoq.SensorFusion.AttentionEVENT");
    thread = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, Proc, this, 0, nullptr));
    WaitForSingleObject(ready, 5000);
  }
  void Stop() {
    SetEvent(stop);
    WaitForSingleObject(thread, 1000);
    CloseHandle(thread);
    CloseHandle(stop);
    CloseHandle(
        sensor);  // the plug-in leaves it open (deliberately); closing costs less than nothing here
  }
} g_floorThread;

std::wstring Resp(int status) {
  return L"{\"cmd\":\"get_attention\",\"delay\":30,\"status\":" + std::to_wstring(status) + L"}\n";
}

// "set_attention_status" 2 or 1: the fusion client's lines and call of
// StartFusion and the plug-in's records, with the values the steady state
// gives. `toggle`: the waiting thread is started or stopped on the way (the
// status changes); otherwise it stays as it was (on for 2, off for 1).
void FloorStatus(int status, bool toggle) {
  const unsigned long mask =
      (status == 2) != toggle ? 64ul : 0ul;  // the sensor's bit before the call
  Rec(kInfoSource, 57, L"set_attention_ctrl %d", status);
  if (status == 2) {
    Rec(kControllerSource, 258, L"attention_start begin w:%d e:%d", mask ? 1 : 0, 1);
    SensorLibLogWrite("start fusion %d,Param %d,%lu\n", 6, 1, mask);
    FusionRpcStartSensor(g_binding, 6, 1);
    SensorLibLogWrite("start fusion %d,mask %lu,%lu\n", 6, mask, mask);
    if (toggle) g_floorThread.Start();
    Rec(kControllerSource, 265, L"SetFusionActive 1");
    Rec(kControllerSource, 267, L"tof_start end%d", 0);
  } else {
    SensorLibLogWrite("start fusion %d,Param %d,%lu\n", 6, 0, mask);
    SensorLibLogWrite("start fusion %d,mask %lu,%lu\n", 6, mask, mask);
    if (toggle) g_floorThread.Stop();
    FusionRpcStartSensor(g_binding, 6, 0);
    Rec(kControllerSource, 276, L"attention_stop =%d SetFusionActive %d", 0, 0);
  }
  Rec(kPluginSource, 281, L"status value: %d", status);
  RegistryWrite(L"attention_state", status);
  Rec(kPluginSource, 341, L"resp: %s", Resp(status).c_str());
}

void FloorDelay() {
  Rec(kPluginSource, 312, L"delay value: %d", 30);
  byte value[4] = {30, 0, 0, 0};
  FusionRpcSetSensorParam(g_binding, 6, 4, value);
  Rec(kControllerSource, 182, L"Set delay: %d \xFF0Cresp:%d", 30, 0);
  RegistryWrite(L"attention_delay", 30);
  Rec(kPluginSource, 325, L"set attention delay success!");
  Rec(kPluginSource, 341, L"resp: %s", Resp(2).c_str());
}

// ---------------------------------------------------------------------------
// Alternating rounds

struct Figures {
  std::vector<double> plugin, floor;
};

void Report(const char* name, const Figures& f, double target) {
  const double p = bench::Median(f.plugin) * 1e6, q = bench::Median(f.floor) * 1e6;
  std::fprintf(g_out, "%-36s %10.1f %10.1f %7.3f  %-4s  (p90 %.0f / %.0f us, n=%zu)\n", name, p, q,
               p / q, p / q <= target ? "met" : "MISS", bench::Quantile(f.plugin, 0.9) * 1e6,
               bench::Quantile(f.floor, 0.9) * 1e6, f.plugin.size());
}

// `pluginCall` and `floorCall` each do one unit of work; timed one by one.
Figures Alternate(int rounds, int calls, const std::function<void()>& pluginCall,
                  const std::function<void()>& floorCall) {
  Figures f;
  auto batch = [&](const std::function<void()>& call, std::vector<double>& into) {
    for (int i = 0; i < calls; ++i) {
      const double t0 = Seconds();
      call();
      into.push_back(Seconds() - t0);
    }
  };
  for (int r = 0; r < rounds; ++r) {
    if (r % 2 == 0) {
      batch(pluginCall, f.plugin);
      batch(floorCall, f.floor);
    } else {
      batch(floorCall, f.floor);
      batch(pluginCall, f.plugin);
    }
  }
  return f;
}

// ---------------------------------------------------------------------------
// Attention event -> host callback

HANDLE g_callbackEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
volatile double g_callbackAt = 0;
volatile LONG g_callbacks = 0;

int HostCallbackFn(const char*, const char*, const char*, std::uintptr_t, std::int32_t) {
  g_callbackAt = Seconds();
  InterlockedIncrement(&g_callbacks);
  SetEvent(g_callbackEvent);
  return 0;
}

// The floor thread of the event path: woken by an event of its own, it does
// what the plug-in's thread must do before the host callback: the "Event!"
// line, the 4-byte fetch (opnum 1), the callback line, the controller's three
// console lines, the bridge's record, then "calls back".
HANDLE g_floorWake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
HANDLE g_floorQuit = CreateEventW(nullptr, TRUE, FALSE, nullptr);
HANDLE g_floorDone = CreateEventW(nullptr, FALSE, FALSE, nullptr);
volatile double g_floorAt = 0;

void ConsoleLine(const char* text) {
  std::fputs(text, stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

unsigned __stdcall FloorEventThread(void*) {
  HANDLE pair[2] = {g_floorWake, g_floorQuit};
  while (WaitForMultipleObjects(2, pair, FALSE, INFINITE) == WAIT_OBJECT_0) {
    SYSTEMTIME t;
    GetLocalTime(&t);
    char text[256];
    std::snprintf(text, sizeof text, "Event occur: %d.%d:%d:%d:%d:%d", t.wMonth, t.wDay, t.wHour,
                  t.wMinute, t.wSecond, t.wMilliseconds);
    SensorLibLogWrite("Event!%s", text);
    FusionRecord record;
    FusionRpcGetSensorData(g_binding, 6, 4, &record);
    SensorLibLogWrite("SensorDataCallback,id %d\n", 6);
    char line[64];
    std::snprintf(line, sizeof line, "attention_status changed:%u", 0u);
    ConsoleLine(line);
    ConsoleLine("attention change");
    ConsoleLine("attention change 0");
    Rec(kInfoSource, 84, L"callback_event");
    g_floorAt = Seconds();
    SetEvent(g_floorDone);
  }
  return 0;
}

// The simulator's count of calls received (its shared block), to know when the
// plug-in's thread has fetched the record of a "look back" event.
const volatile std::uint32_t* SimCallCount() {
  HANDLE mapping = OpenFileMappingW(FILE_MAP_READ, FALSE, kFusionSimStateName);
  if (!mapping) return nullptr;
  auto* block = static_cast<const FusionSimShared*>(MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0));
  return block ? &block->callCount : nullptr;
}

void EventBench(int events) {
  HANDLE attention =
      OpenEventW(EVENT_MODIFY_STATE, FALSE, L"Global\\Vantoq.SensorFusion.AttentionEVENT");
  const volatile std::uint32_t* calls = SimCallCount();
  if (!attention || !calls) {
    std::fprintf(g_out, "event path: cannot open the attention event or the simulator's block\n");
    return;
  }
  HANDLE floorThread =
      reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, FloorEventThread, nullptr, 0, nullptr));
  Figures f;
  int lost = 0;
  for (int i = 0; i < events; ++i) {
    // The user looks back first (no callback), and the plug-in's thread has
    // fetched that record before the measured event is fired.
    const std::uint32_t before = *calls;
    FusionSimSetAttention(1, false);
    SetEvent(attention);
    for (int w = 0; w < 2000 && *calls == before; ++w) Sleep(1);
    Sleep(10);
    FusionSimSetAttention(0, false);
    auto plugin = [&] {
      ResetEvent(g_callbackEvent);
      const double t0 = Seconds();
      SetEvent(attention);
      if (WaitForSingleObject(g_callbackEvent, 5000) != WAIT_OBJECT_0) {
        ++lost;
        return;
      }
      f.plugin.push_back(g_callbackAt - t0);
    };
    auto floor = [&] {
      const double t0 = Seconds();
      SetEvent(g_floorWake);
      WaitForSingleObject(g_floorDone, 5000);
      f.floor.push_back(g_floorAt - t0);
    };
    if (i % 2 == 0) {
      plugin();
      Sleep(5);
      floor();
    } else {
      floor();
      Sleep(5);
      plugin();
    }
    Sleep(10);  // the plug-in's thread writes its last records after the callback
  }
  SetEvent(g_floorQuit);
  WaitForSingleObject(floorThread, 5000);
  CloseHandle(floorThread);
  CloseHandle(attention);
  Report("event -> host callback", f, 1.20);
  if (lost) std::fprintf(g_out, "  (%d events brought no callback within 5 s)\n", lost);
}

// ---------------------------------------------------------------------------
// "init" against its fixed cost

// net.exe as the plug-in runs it: shell, hidden, waited for without limit.
double NetRun(const wchar_t* parameters) {
  const double t0 = Seconds();
  SHELLEXECUTEINFOW info = {};
  info.cbSize = sizeof(info);
  info.fMask = SEE_MASK_NOCLOSEPROCESS;
  info.lpFile = L"net.exe";
  info.lpParameters = parameters;
  info.nShow = SW_HIDE;
  ShellExecuteExW(&info);
  if (info.hProcess) {
    WaitForSingleObject(info.hProcess, INFINITE);
    CloseHandle(info.hProcess);
  }
  return Seconds() - t0;
}

void InitBench(int rounds) {
  std::vector<double> init, fixed, net, close;
  for (int r = 0; r < rounds; ++r) {
    auto plugin = [&] {
      const double t0 = Seconds();
      g_plugin.Run("init");
      init.push_back(Seconds() - t0);
      const double t1 = Seconds();
      g_plugin.Run("close");
      close.push_back(Seconds() - t1);
    };
    auto floor = [&] {
      // Service running: the check runs nothing; the restart runs
      // "net stop tof service", pauses 200 ms, "net start ...", pauses 200 ms.
      const double a = NetRun(L"stop tof service");
      const double b = NetRun(L"start VantoqSensorFusion");
      net.push_back(a + b);
      fixed.push_back(a + b + 0.400);
    };
    if (r % 2 == 0) {
      plugin();
      floor();
    } else {
      floor();
      plugin();
    }
  }
  const double i = bench::Median(init) * 1e3, x = bench::Median(fixed) * 1e3;
  std::fprintf(
      g_out,
      "%-36s %10.1f %10.1f %7.3f  %-4s  (two bare net.exe runs %.1f ms + 400 ms pauses; n=%zu)\n",
      "init (service running), ms", i, x, i / x, i / x <= 1.05 ? "met" : "MISS",
      bench::Median(net) * 1e3, init.size());
  std::fprintf(g_out, "%-36s %10.1f   (for reference: no floor target)\n", "close, ms",
               bench::Median(close) * 1e3);
  g_plugin.Run("init");
}

}  // namespace

int main(int argc, char** argv) {
  const bool trace = argc > 1 && std::strcmp(argv[1], "--trace") == 0;
  if (trace) {
    --argc;
    ++argv;
  }
  const int calls = argc > 1 ? std::atoi(argv[1]) : 200;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 10;
  const int events = argc > 3 ? std::atoi(argv[3]) : 300;
  const int initRounds = argc > 4 ? std::atoi(argv[4]) : 9;
  g_out = bench::QuietStdout();

  if (FusionSimServiceState() != SERVICE_RUNNING && !FusionSimStartService(15000)) {
    std::fprintf(g_out, "action_bench: the simulator service VantoqSensorFusion does not run\n");
    return 1;
  }
  if (!g_plugin.Load(L"QXAttentionPlugin-noauth.dll")) {
    std::fprintf(g_out, "action_bench: cannot load QXAttentionPlugin-noauth.dll\n");
    return 1;
  }
  g_plugin.init(nullptr, HostCallbackFn);
  // The floor writes into the plug-in's own log file, under the same mutex.
  Logger::Instance().Setup(L"Quillomatic", L"QXAttentionPlugin.log", 0x100000, 1, 1);
  SensorLibLogOpen();
  if (!Bind()) {
    std::fprintf(g_out, "action_bench: cannot bind to the simulator\n");
    return 1;
  }

  g_plugin.Run("init");
  g_plugin.Run("set_attention_status", "{\"F4010\":{\"status\":2}}");
  g_plugin.Run("set_attention_delay", "{\"F4010\":{\"delay\":30}}");
  const std::string check = g_plugin.Run("get_attention");
  if (check != "{\"cmd\":\"get_attention\",\"delay\":30,\"status\":2}\n") {
    std::fprintf(g_out, "action_bench: the plug-in is not in the expected state: %s",
                 check.c_str());
    return 1;
  }

  // Each kind: the plug-in's call, its floor, and the status the plug-in must
  // be in before it (the sensor's thread on or off).
  struct Kind {
    const char* name;
    int statusBefore;
    std::function<void()> plugin, floor;
  };
  const std::vector<Kind> kinds = {
      {"get_attention", 2, [] { g_plugin.Run("get_attention"); },
       [] { Rec(kPluginSource, 341, L"resp: %s", Resp(2).c_str()); }},
      {"ability", 2, [] { g_plugin.Run("ability"); },
       [] {
         Rec(kPluginSource, 341, L"resp: %s",
             L"{\"ability\":1,\"id\":\"F4010\",\"items\":{\"delay\":30,\"status\":2},\"plugin\":"
             L"\"Attention\"}\n");
       }},
      {"set_attention_status 2 (sensor on)", 2,
       [] { g_plugin.Run("set_attention_status", "{\"F4010\":{\"status\":2}}"); },
       [] { FloorStatus(2, false); }},
      {"set_attention_status 1 (sensor off)", 1,
       [] { g_plugin.Run("set_attention_status", "{\"F4010\":{\"status\":1}}"); },
       [] { FloorStatus(1, false); }},
      // Toggling stops and starts the plug-in's waiting thread each time; one
      // unit is the pair of actions.
      {"set_attention_status 2,1 (toggling)", 1,
       [] {
         g_plugin.Run("set_attention_status", "{\"F4010\":{\"status\":2}}");
         g_plugin.Run("set_attention_status", "{\"F4010\":{\"status\":1}}");
       },
       [] {
         FloorStatus(2, true);
         FloorStatus(1, true);
       }},
      {"set_attention_delay 30", 2,
       [] { g_plugin.Run("set_attention_delay", "{\"F4010\":{\"delay\":30}}"); }, FloorDelay},
  };
  auto settle = [](int status) {
    g_plugin.Run("set_attention_status",
                 status == 2 ? "{\"F4010\":{\"status\":2}}" : "{\"F4010\":{\"status\":1}}");
  };

  if (trace) {
    // Profiling aid: with the wineserver tracing its requests (wineserver
    // -f -d2), count the requests between the markers, named events whose
    // creation shows in the trace (scripts/trace-actions.sh does it).
    auto mark = [](const std::string& text) {
      const std::wstring name(text.begin(), text.end());
      CloseHandle(CreateEventW(nullptr, FALSE, FALSE, name.c_str()));
    };
    for (const Kind& k : kinds) {
      settle(k.statusBefore);
      mark(std::string("QXMARK plugin ") + k.name);
      for (int i = 0; i < calls; ++i) k.plugin();
      mark(std::string("QXMARK floor ") + k.name);
      for (int i = 0; i < calls; ++i) k.floor();
      mark("QXMARK end");
    }
    g_plugin.Run("close");
    return 0;
  }

  std::fprintf(
      g_out,
      "Actions through the exports vs their floor; %d rounds x %d calls, alternating; medians\n",
      rounds, calls);
  std::fprintf(g_out, "%-36s %10s %10s %7s  %s\n", "what", "plug-in us", "floor us", "ratio",
               "1.10x");
  for (const Kind& k : kinds) {
    settle(k.statusBefore);
    const bool pair = std::strstr(k.name, "toggling") != nullptr;
    Report(k.name, Alternate(rounds, pair ? calls / 2 : calls, k.plugin, k.floor), 1.10);
  }
  settle(2);

  std::fprintf(g_out, "\nAttention event -> host callback; %d events, alternating; medians\n",
               events);
  std::fprintf(g_out, "%-36s %10s %10s %7s  %s\n", "what", "plug-in us", "floor us", "ratio",
               "1.20x");
  EventBench(events);

  std::fprintf(g_out, "\n\"init\" vs its fixed cost; %d rounds, alternating; medians\n",
               initRounds);
  std::fprintf(g_out, "%-36s %10s %10s %7s  %s\n", "what", "plug-in", "fixed", "ratio", "1.05x");
  InitBench(initRounds);

  g_plugin.Run("close");
  RpcBindingFree(&g_binding);
  return 0;
}
