// fusion-sim: a simulator of the sensor fusion service, for tests and for
// trying the plug-in by hand. See kDescription and kFooter below, and
// FusionSimCtl.h.
#include "FusionEvents.h"
#include "FusionRpc.h"
#include "FusionSimCtl.h"

#include <windows.h>

#include <CLI/CLI.hpp>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

namespace {

const char kDescription[] =
    "fusion-sim: simulator of the sensor fusion service \"VantoqSensorFusion\".\n"
    "\n"
    "Serves the seven FusionRpc procedures over ncacn_np at\n"
    "\\pipe\\Vantoq.SensorFusion.EndPoint_edc08f (no authentication required), creates the\n"
    "service's seven Global\\Vantoq.SensorFusion.* events (auto-reset), keeps a sensor model\n"
    "(status word, delay, 4-byte attention record) and records every call it receives.\n"
    "At start it creates %ProgramData%\\Vantoq\\SensorFusion\\ as the installed service would.\n"
    "One simulator per Wine prefix (or machine) at a time. Without a command it runs\n"
    "in console mode (as \"run\").\n";

const char kFooter[] =
    "Options of run / install / service:\n"
    "  --status WORD          initial status word (default 0x10000000: supported, stopped;\n"
    "                         0x10000001 active; 0 unsupported)\n"
    "  --delay N              initial delay (default 30)\n"
    "  --attention N          initial attention record (default 1: looking at the screen)\n"
    "  --no-attention-event   do not create Global\\Vantoq.SensorFusion.AttentionEVENT\n"
    "  --quiet                do not print the calls (console mode)\n"
    "  --auth                 also accept authenticated binds (registers NTLM, RPC_C_AUTHN_WINNT,\n"
    "                         with RpcServerRegisterAuthInfo); without it, an authenticated\n"
    "                         bind is refused\n"
    "Numbers are decimal, or hexadecimal with 0x; a leading - gives the two's complement.\n"
    "\n"
    "Control commands (fusion-sim ctl COMMAND [ARG]...):\n"
    "  look-away              attention record 0, then signal the attention event\n"
    "  look-back              attention record 1, then signal the attention event\n"
    "  attention N [nosignal] set the attention record (and signal unless nosignal)\n"
    "  signal INDEX           signal the event of sensor INDEX (0, 2-6, 31)\n"
    "  status WORD            set the status word answered by opnum 4\n"
    "  delay N                set the delay answered by opnum 6\n"
    "  force OPNUM CODE       make procedure OPNUM (0-6, or -1 for all) return CODE\n"
    "  unforce OPNUM          back to normal answers (-1: all)\n"
    "  reply-delay MS         every reply waits MS milliseconds before it leaves\n"
    "  hold | release         stop answering (calls are recorded, replies held) / answer again\n"
    "  drop-event | restore-event   close / create again the attention event (a named event\n"
    "                         lives while any process holds it: the client keeps its handle,\n"
    "                         so drop it before the client's InitFusion, or start the\n"
    "                         simulator with --no-attention-event)\n"
    "  model                  print status, delay, attention, event present, held, reply delay\n"
    "  calls                  print the call record, one line per call:\n"
    "                           seq opnum arg0 arg1 result answered len hexbytes\n"
    "                         arg0 = mask (opnums 0, 5) or sensor id; arg1 = size or start param;\n"
    "                         bytes = sent by the client (opnum 2) or sent back (1, 4, 6)\n"
    "  clear-calls            empty the call record\n"
    "  wait-calls N MS        wait up to MS ms until N calls were received\n"
    "  wait-ready MS          wait up to MS ms for a simulator to be ready\n"
    "  quit                   end the console simulator (a service: use stop)\n"
    "\n"
    "Exit codes:\n"
    "  0  done (run: the simulator ended normally)\n"
    "  1  failed: ctl found no simulator or it did not do it (a wait ran out), the\n"
    "     service could not be installed, started, stopped or removed, or the\n"
    "     simulator could not start serving\n"
    "  2  usage error: an unknown command or option, a missing or extra argument, or\n"
    "     a number that does not parse\n"
    "\n"
    "From a C++ test under Wine, link qx_fusion_sim_ctl and include FusionSimCtl.h: the same\n"
    "operations as functions (FusionSimLaunch, FusionSimSetAttention, FusionSimForceResult,\n"
    "FusionSimHoldReplies, FusionSimReadCalls, FusionSimInstallService, ...). From CMake,\n"
    "include(FusionSim) gives qx_fusion_sim_service_fixture() and qx_fusion_sim_test().";

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

struct Options {
  std::uint32_t status = QX_STATUS_SUPPORTED_STOPPED;
  std::uint32_t delay = 30;
  std::uint32_t attention = 1;
  bool attentionEvent = true;
  bool quiet = false;
  bool auth = false;
};

HANDLE g_mapping;
HANDLE g_mutex;
HANDLE g_commandEvent;
HANDLE g_quitEvent;
HANDLE g_commandThread;
HANDLE g_sensorEvents[32];
FusionSimShared* g_block;
std::atomic<bool> g_quitting{false};
bool g_quiet;

SERVICE_STATUS_HANDLE g_serviceHandle;
SERVICE_STATUS g_serviceStatus;
Options g_serviceOptions;

// Named objects get a null DACL: on Windows the service runs as LocalSystem in
// session 0 while tests and the plug-in run as the user.
SECURITY_ATTRIBUTES* OpenSecurity() {
  static SECURITY_DESCRIPTOR sd;
  static SECURITY_ATTRIBUTES sa;
  InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
  SetSecurityDescriptorDacl(&sd, TRUE, nullptr, FALSE);
  sa = {sizeof sa, &sd, FALSE};
  return &sa;
}

void Lock() { WaitForSingleObject(g_mutex, INFINITE); }
void Unlock() { ReleaseMutex(g_mutex); }

void CreateAttentionEvent() {
  if (!g_sensorEvents[6])
    g_sensorEvents[6] =
        CreateEventW(OpenSecurity(), FALSE, FALSE, FusionGlobalEventName(6).c_str());
}

// --- the procedures ---------------------------------------------------------

// Records a call on arrival, then applies the reply delay and the hold.
// Returns the record slot (or -1 when the record is full).
int BeginCall(int opnum, long a0, long a1, const unsigned char* in, long inLen) {
  Lock();
  std::uint32_t seq = ++g_block->callCount;
  int slot = seq <= static_cast<std::uint32_t>(kFusionSimMaxCalls) ? static_cast<int>(seq - 1) : -1;
  if (slot >= 0) {
    FusionSimCall& c = g_block->calls[slot];
    std::memset(&c, 0, sizeof c);
    c.seq = seq;
    c.opnum = opnum;
    c.arg0 = a0;
    c.arg1 = a1;
    if (in && inLen > 0) {
      c.dataLen = static_cast<std::uint32_t>(inLen);
      std::memcpy(c.data, in, inLen < kFusionSimMaxBytes ? inLen : kFusionSimMaxBytes);
    }
  }
  std::uint32_t delay = g_block->replyDelayMs;
  Unlock();
  if (delay) Sleep(delay);
  for (;;) {
    Lock();
    bool hold = g_block->holdReplies != 0;
    Unlock();
    if (!hold || g_quitting) break;
    Sleep(5);
  }
  return slot;
}

// Records the answer (and the bytes sent back) and prints the call.
long EndCall(int slot, int opnum, long result, const unsigned char* out, long outLen) {
  Lock();
  if (g_block->forceActive[opnum]) result = g_block->forceResult[opnum];
  if (g_block->forceActive[opnum] == kFusionSimForceOnce) g_block->forceActive[opnum] = 0;
  if (slot >= 0) {
    FusionSimCall& c = g_block->calls[slot];
    if (out && outLen > 0) {
      c.dataLen = static_cast<std::uint32_t>(outLen);
      std::memcpy(c.data, out, outLen < kFusionSimMaxBytes ? outLen : kFusionSimMaxBytes);
    }
    c.result = result;
    c.answered = 1;
    if (!g_quiet) std::printf("call %s\n", FusionSimFormatCall(c).c_str());
  }
  Unlock();
  if (!g_quiet) std::fflush(stdout);
  return result;
}

bool Forced(int opnum) {
  Lock();
  bool f = g_block->forceActive[opnum] != 0;
  Unlock();
  return f;
}

void PutWord(unsigned char* data, long size, std::uint32_t value) {
  for (long i = 0; i < size; ++i)
    data[i] = i < 4 ? static_cast<unsigned char>(value >> (8 * i)) : 0;
}

// The reply's record: its count is the size asked for (a size with no arm in
// FusionRecord goes back as that count and no bytes); returns its bytes.
unsigned char* Record(FusionRecord* record, long size) {
  record->size = size;
  std::memset(&record->bytes, 0, sizeof record->bytes);
  return reinterpret_cast<unsigned char*>(&record->bytes);
}

long Fits(long size) {
  return size < 0                                                ? 0
         : size > static_cast<long>(sizeof(FusionRecord::bytes)) ? sizeof(FusionRecord::bytes)
                                                                 : size;
}

}  // namespace

extern "C" {

void* __RPC_USER MIDL_user_allocate(SIZE_T size) { return HeapAlloc(GetProcessHeap(), 0, size); }
void __RPC_USER MIDL_user_free(void* p) { HeapFree(GetProcessHeap(), 0, p); }

LONG __cdecl FusionRpcSetting(handle_t, LONG mask) {
  int slot = BeginCall(0, mask, 0, nullptr, 0);
  return EndCall(slot, 0, 0, nullptr, 0);
}

LONG __cdecl FusionRpcGetSensorData(handle_t, LONG id, LONG size, FusionRecord* record) {
  int slot = BeginCall(1, id, size, nullptr, 0);
  unsigned char* data = Record(record, size);
  size = Fits(size);
  Lock();
  std::uint32_t attention = g_block->attention;
  Unlock();
  if (id == 6)
    PutWord(data, size, attention);
  else
    for (long i = 0; i < size; ++i) data[i] = static_cast<byte>(id * 16 + i);
  return EndCall(slot, 1, 0, data, size);
}

LONG __cdecl FusionRpcSetSensorParam(handle_t, LONG id, LONG size, byte* data) {
  int slot = BeginCall(2, id, size, data, size);
  if (!Forced(2) && id == 6 && size >= 4) {
    Lock();
    g_block->delay =
        data[0] | (data[1] << 8) | (data[2] << 16) | (static_cast<std::uint32_t>(data[3]) << 24);
    Unlock();
  }
  return EndCall(slot, 2, 0, nullptr, 0);
}

LONG __cdecl FusionRpcStartSensor(handle_t, LONG id, LONG param) {
  int slot = BeginCall(3, id, param, nullptr, 0);
  if (!Forced(3) && id == 6) {
    Lock();
    // Only a supported sensor changes state; 0 (unsupported) stays 0.
    if ((g_block->statusWord & ~1u) == QX_STATUS_SUPPORTED_STOPPED && (param == 0 || param == 1))
      g_block->statusWord = QX_STATUS_SUPPORTED_STOPPED | static_cast<std::uint32_t>(param);
    Unlock();
  }
  return EndCall(slot, 3, 0, nullptr, 0);
}

LONG __cdecl FusionRpcGetSensorStatus(handle_t, LONG id, LONG size, FusionRecord* record) {
  int slot = BeginCall(4, id, size, nullptr, 0);
  unsigned char* data = Record(record, size);
  size = Fits(size);
  Lock();
  std::uint32_t word = id == 6 ? g_block->statusWord : 0;
  Unlock();
  PutWord(data, size, word);
  return EndCall(slot, 4, 0, data, size);
}

LONG __cdecl FusionRpcUnInit(handle_t, LONG mask) {
  int slot = BeginCall(5, mask, 0, nullptr, 0);
  return EndCall(slot, 5, 0, nullptr, 0);
}

LONG __cdecl FusionRpcGetSensorParam(handle_t, LONG id, LONG size, FusionRecord* record) {
  int slot = BeginCall(6, id, size, nullptr, 0);
  unsigned char* data = Record(record, size);
  size = Fits(size);
  Lock();
  std::uint32_t delay = id == 6 ? g_block->delay : 0;
  Unlock();
  PutWord(data, size, delay);
  return EndCall(slot, 6, 0, data, size);
}

}  // extern "C"

namespace {

// --- server life ------------------------------------------------------------

DWORD WINAPI CommandThread(void*) {
  HANDLE waits[2] = {g_commandEvent, g_quitEvent};
  std::uint32_t done = 0;
  for (;;) {
    DWORD w = WaitForMultipleObjects(2, waits, FALSE, INFINITE);
    if (w != WAIT_OBJECT_0) return 0;
    Lock();
    std::uint32_t seq = g_block->commandSeq, code = g_block->commandCode, arg = g_block->commandArg;
    Unlock();
    if (seq == done) continue;
    done = seq;
    if (code == kFusionSimCmdDropAttentionEvent) {
      if (arg) {
        if (g_sensorEvents[6]) CloseHandle(g_sensorEvents[6]);
        g_sensorEvents[6] = nullptr;
      } else {
        CreateAttentionEvent();
      }
      Lock();
      g_block->attentionEventPresent = g_sensorEvents[6] != nullptr;
      g_block->commandDone = seq;
      Unlock();
    } else if (code == kFusionSimCmdQuit) {
      SetEvent(g_quitEvent);  // commandDone is not needed: the block goes away
    } else {
      Lock();
      g_block->commandDone = seq;
      Unlock();
    }
  }
}

// The installed service owns "%ProgramData%\Vantoq\SensorFusion\" (the fusion
// client creates only the last level of it, and "Logs\" below): make it as
// the real installation would, so the client's SensorLibLog.log can be written.
void MakeServiceFolder() {
  wchar_t path[MAX_PATH];
  if (!ExpandEnvironmentStringsW(L"%ProgramData%\\Vantoq", path, MAX_PATH)) return;
  CreateDirectoryW(path, nullptr);
  std::wstring sub = std::wstring(path) + L"\\SensorFusion";
  CreateDirectoryW(sub.c_str(), nullptr);
}

bool StartServer(const Options& o) {
  MakeServiceFolder();
  g_quiet = o.quiet;
  g_quitEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  g_mutex = CreateMutexW(OpenSecurity(), FALSE, kFusionSimMutexName);
  g_mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, OpenSecurity(), PAGE_READWRITE, 0,
                                 sizeof(FusionSimShared), kFusionSimStateName);
  if (!g_mapping || GetLastError() == ERROR_ALREADY_EXISTS) {
    std::fprintf(stderr,
                 "fusion-sim: another simulator is running (or the state block cannot be made)\n");
    return false;
  }
  g_block = static_cast<FusionSimShared*>(MapViewOfFile(g_mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0));
  g_commandEvent = CreateEventW(OpenSecurity(), FALSE, FALSE, kFusionSimCommandName);
  if (!g_mutex || !g_block || !g_commandEvent) return false;
  Lock();
  std::memset(g_block, 0, sizeof *g_block);
  g_block->magic = kFusionSimMagic;
  g_block->pid = GetCurrentProcessId();
  g_block->statusWord = o.status;
  g_block->delay = o.delay;
  g_block->attention = o.attention;
  Unlock();
  for (int i = 0; i < 32; ++i)
    if (FusionSensorEventName(i) && (i != 6 || o.attentionEvent))
      g_sensorEvents[i] =
          CreateEventW(OpenSecurity(), FALSE, FALSE, FusionGlobalEventName(i).c_str());

  RPC_STATUS st = RpcServerUseProtseqEpW(
      reinterpret_cast<RPC_WSTR>(const_cast<wchar_t*>(L"ncacn_np")), RPC_C_PROTSEQ_MAX_REQS_DEFAULT,
      reinterpret_cast<RPC_WSTR>(const_cast<wchar_t*>(kFusionSimEndpoint)), nullptr);
  if (st == RPC_S_OK && o.auth)
    st = RpcServerRegisterAuthInfoW(nullptr, RPC_C_AUTHN_WINNT, nullptr, nullptr);
  if (st == RPC_S_OK)
    st = RpcServerRegisterIfEx(FusionRpc_v1_0_s_ifspec, nullptr, nullptr,
                               RPC_IF_ALLOW_CALLBACKS_WITH_NO_AUTH, RPC_C_LISTEN_MAX_CALLS_DEFAULT,
                               nullptr);
  if (st == RPC_S_OK) st = RpcServerListen(1, RPC_C_LISTEN_MAX_CALLS_DEFAULT, TRUE);
  if (st != RPC_S_OK) {
    std::fprintf(stderr, "fusion-sim: RPC server set-up failed: %lu\n",
                 static_cast<unsigned long>(st));
    return false;
  }
  g_commandThread = CreateThread(nullptr, 0, CommandThread, nullptr, 0, nullptr);
  Lock();
  g_block->attentionEventPresent = g_sensorEvents[6] != nullptr;
  g_block->ready = 1;
  Unlock();
  if (!g_quiet) {
    std::printf("fusion-sim: serving %ls (status 0x%x, delay %u, attention event %s)\n",
                kFusionSimEndpoint, o.status, o.delay, o.attentionEvent ? "created" : "left out");
    std::fflush(stdout);
  }
  return true;
}

void StopServer() {
  g_quitting = true;  // releases held replies
  if (g_block) {
    Lock();
    g_block->ready = 0;
    g_block->magic = 0;
    Unlock();
  }
  RpcMgmtStopServerListening(nullptr);
  RpcMgmtWaitServerListen();
  RpcServerUnregisterIf(nullptr, nullptr, FALSE);
  SetEvent(g_quitEvent);
  if (g_commandThread) {
    WaitForSingleObject(g_commandThread, 5000);
    CloseHandle(g_commandThread);
  }
  for (HANDLE& h : g_sensorEvents)
    if (h) {
      CloseHandle(h);
      h = nullptr;
    }
  if (g_block) UnmapViewOfFile(g_block);
  g_block = nullptr;
  if (g_mapping) CloseHandle(g_mapping);
  if (g_commandEvent) CloseHandle(g_commandEvent);
}

BOOL WINAPI ConsoleHandler(DWORD) {
  if (g_quitEvent) SetEvent(g_quitEvent);
  return TRUE;
}

bool ParseNumber(const std::string& s, std::uint32_t* out) {
  if (s.empty()) return false;
  char* end = nullptr;
  bool neg = s[0] == '-';
  const char* digits = s.c_str() + (neg ? 1 : 0);
  if (!*digits || *digits == '-' || *digits == '+') return false;
  unsigned long v = std::strtoul(digits, &end, 0);
  if (*end) return false;
  *out =
      neg ? static_cast<std::uint32_t>(-static_cast<long long>(v)) : static_cast<std::uint32_t>(v);
  return true;
}

// The options of run / install / service, as given; checked after parsing.
struct OptionText {
  std::string status, delay, attention;
  bool noAttentionEvent = false;
  bool quiet = false;
  bool auth = false;
};

void AddModelOptions(CLI::App* app, OptionText* t) {
  app->add_option("--status", t->status, "initial status word (default 0x10000000)")
      ->type_name("WORD");
  app->add_option("--delay", t->delay, "initial delay (default 30)")->type_name("N");
  app->add_option("--attention", t->attention, "initial attention record (default 1)")
      ->type_name("N");
  app->add_flag("--no-attention-event", t->noAttentionEvent, "do not create the attention event");
  app->add_flag("--quiet", t->quiet, "do not print the calls (console mode)");
  app->add_flag("--auth", t->auth, "also accept authenticated binds (NTLM)");
}

// Options from their text; false (with a message) when a number does not parse.
bool ToOptions(const OptionText& t, Options* o) {
  const struct {
    const char* name;
    const std::string& text;
    std::uint32_t* value;
  } numbers[] = {{"--status", t.status, &o->status},
                 {"--delay", t.delay, &o->delay},
                 {"--attention", t.attention, &o->attention}};
  for (const auto& n : numbers) {
    if (!n.text.empty() && !ParseNumber(n.text, n.value)) {
      std::fprintf(stderr, "fusion-sim: %s takes a number, not \"%s\"\n", n.name, n.text.c_str());
      return false;
    }
  }
  o->attentionEvent = !t.noAttentionEvent;
  o->quiet = t.quiet;
  o->auth = t.auth;
  return true;
}

void ReportService(DWORD state, DWORD exitCode = NO_ERROR) {
  g_serviceStatus.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  g_serviceStatus.dwCurrentState = state;
  g_serviceStatus.dwControlsAccepted =
      state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
  g_serviceStatus.dwWin32ExitCode = exitCode;
  g_serviceStatus.dwWaitHint = state == SERVICE_RUNNING || state == SERVICE_STOPPED ? 0 : 5000;
  SetServiceStatus(g_serviceHandle, &g_serviceStatus);
}

DWORD WINAPI ServiceControl(DWORD control, DWORD, void*, void*) {
  if (control == SERVICE_CONTROL_STOP || control == SERVICE_CONTROL_SHUTDOWN) {
    ReportService(SERVICE_STOP_PENDING);
    SetEvent(g_quitEvent);
  }
  return NO_ERROR;
}

void WINAPI ServiceMain(DWORD, wchar_t**) {
  g_serviceHandle = RegisterServiceCtrlHandlerExW(kFusionSimServiceName, ServiceControl, nullptr);
  if (!g_serviceHandle) return;
  ReportService(SERVICE_START_PENDING);
  g_serviceOptions.quiet = true;
  if (!StartServer(g_serviceOptions)) {
    StopServer();
    ReportService(SERVICE_STOPPED, ERROR_SERVICE_SPECIFIC_ERROR);
    return;
  }
  ReportService(SERVICE_RUNNING);
  WaitForSingleObject(g_quitEvent, INFINITE);
  StopServer();
  ReportService(SERVICE_STOPPED);
}

// Runs one control command; `args` are its arguments.
int RunCtl(const std::string& cmd, const std::vector<std::string>& args) {
  const std::size_t count = args.size();
  const std::string a1 = count > 0 ? args[0] : std::string();
  const std::string a2 = count > 1 ? args[1] : std::string();
  // How many arguments each command takes (at least, at most).
  struct Arity {
    const char* name;
    std::size_t least, most;
  };
  static const Arity kArity[] = {
      {"look-away", 0, 0},     {"look-back", 0, 0},  {"attention", 1, 2}, {"signal", 1, 1},
      {"status", 1, 1},        {"delay", 1, 1},      {"force", 2, 2},     {"unforce", 1, 1},
      {"reply-delay", 1, 1},   {"hold", 0, 0},       {"release", 0, 0},   {"drop-event", 0, 0},
      {"restore-event", 0, 0}, {"model", 0, 0},      {"calls", 0, 0},     {"clear-calls", 0, 0},
      {"wait-calls", 2, 2},    {"wait-ready", 1, 1}, {"quit", 0, 0},
  };
  bool known = false;
  for (const Arity& a : kArity)
    known = known || (cmd == a.name && count >= a.least && count <= a.most);
  if (!known || (cmd == "attention" && count == 2 && a2 != "nosignal")) {
    std::fprintf(
        stderr,
        "fusion-sim: unknown or incomplete control command \"%s\"%s\nTry \"fusion-sim --help\".\n",
        cmd.c_str(), count ? " with these arguments" : "");
    return kExitUsage;
  }
  std::uint32_t n1 = 0, n2 = 0;
  bool ok = false;
  if (cmd == "look-away")
    ok = FusionSimSetAttention(0, true);
  else if (cmd == "look-back")
    ok = FusionSimSetAttention(1, true);
  else if (cmd == "attention" && ParseNumber(a1, &n1))
    ok = FusionSimSetAttention(n1, !(a2 == "nosignal"));
  else if (cmd == "signal" && ParseNumber(a1, &n1))
    ok = FusionSimSignal(static_cast<int>(n1));
  else if (cmd == "status" && ParseNumber(a1, &n1))
    ok = FusionSimSetStatus(n1);
  else if (cmd == "delay" && ParseNumber(a1, &n1))
    ok = FusionSimSetDelay(n1);
  else if (cmd == "force" && ParseNumber(a1, &n1) && ParseNumber(a2, &n2))
    ok = FusionSimForceResult(static_cast<int>(n1), static_cast<std::int32_t>(n2));
  else if (cmd == "unforce" && ParseNumber(a1, &n1))
    ok = FusionSimClearForced(static_cast<int>(n1));
  else if (cmd == "reply-delay" && ParseNumber(a1, &n1))
    ok = FusionSimSetReplyDelay(n1);
  else if (cmd == "hold" || cmd == "release")
    ok = FusionSimHoldReplies(cmd == "hold");
  else if (cmd == "drop-event" || cmd == "restore-event")
    ok = FusionSimDropAttentionEvent(cmd == "drop-event");
  else if (cmd == "model") {
    FusionSimModel m{};
    ok = FusionSimGetModel(&m);
    if (ok)
      std::printf(
          "status 0x%x\ndelay %u\nattention %u\nattention-event %d\nholding %d\nreply-delay "
          "%u\npid %u\n",
          m.statusWord, m.delay, m.attention, m.attentionEventPresent, m.holdingReplies,
          m.replyDelayMs, m.pid);
  } else if (cmd == "calls") {
    std::vector<FusionSimCall> calls;
    ok = FusionSimReadCalls(&calls);
    for (const auto& c : calls) std::printf("%s\n", FusionSimFormatCall(c).c_str());
  } else if (cmd == "clear-calls")
    ok = FusionSimClearCalls();
  else if (cmd == "wait-calls" && ParseNumber(a1, &n1) && ParseNumber(a2, &n2))
    ok = FusionSimWaitCalls(n1, n2);
  else if (cmd == "wait-ready" && ParseNumber(a1, &n1))
    ok = FusionSimWaitReady(n1);
  else if (cmd == "quit")
    ok = FusionSimQuit(5000);
  else {
    std::fprintf(stderr, "fusion-sim: control command \"%s\": a number does not parse\n",
                 cmd.c_str());
    return kExitUsage;
  }
  if (!ok) std::fprintf(stderr, "fusion-sim ctl %s: failed (no simulator running?)\n", cmd.c_str());
  return ok ? kExitOk : kExitFailed;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  // The arguments as UTF-8 for the parser.
  std::vector<std::string> args;
  for (int i = 0; i < argc; ++i) {
    const int n = WideCharToMultiByte(CP_UTF8, 0, argv[i], -1, nullptr, 0, nullptr, nullptr);
    std::string arg(n > 0 ? n - 1 : 0, '\0');
    if (n > 1) WideCharToMultiByte(CP_UTF8, 0, argv[i], -1, arg.data(), n, nullptr, nullptr);
    args.push_back(std::move(arg));
  }
  std::vector<char*> pointers;
  for (auto& arg : args) pointers.push_back(arg.data());

  CLI::App app(kDescription, "fusion-sim");
  app.footer(kFooter);
  app.set_version_flag("--version", "fusion-sim " QX_VERSION, "print the version and exit");
  app.require_subcommand(0, 1);
  OptionText runText, installText, serviceText;
  CLI::App* run = app.add_subcommand("run", "console mode; ends on Ctrl-C or `ctl quit`");
  AddModelOptions(run, &runText);
  CLI::App* install = app.add_subcommand("install",
                                         "register the service VantoqSensorFusion (demand start) "
                                         "with this executable and these options");
  AddModelOptions(install, &installText);
  CLI::App* uninstall =
      app.add_subcommand("uninstall", "stop (bounded wait) and delete the service");
  CLI::App* start = app.add_subcommand("start", "start the service and wait for it to run");
  CLI::App* stop = app.add_subcommand("stop", "stop the service and wait for it to stop");
  CLI::App* service =
      app.add_subcommand("service", "the service's own entry (used by the SCM only)");
  AddModelOptions(service, &serviceText);
  CLI::App* ctl = app.add_subcommand("ctl", "drive a running simulator (console or service)");
  // COMMAND [ARG]... (see the footer): taken as they are, since arguments
  // may be negative numbers ("force -1 5").
  ctl->prefix_command();

  try {
    app.parse(static_cast<int>(pointers.size()), pointers.data());
  } catch (const CLI::CallForHelp&) {
    std::fputs(app.help().c_str(), stdout);
    return kExitOk;
  } catch (const CLI::CallForVersion& e) {
    std::printf("%s\n", e.what());
    return kExitOk;
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "fusion-sim: %s\nTry \"fusion-sim --help\".\n", e.what());
    return kExitUsage;
  }

  if (ctl->parsed()) {
    const std::vector<std::string> rest = ctl->remaining();
    if (rest.empty()) return RunCtl(std::string(), {});
    return RunCtl(rest.front(), std::vector<std::string>(rest.begin() + 1, rest.end()));
  }
  if (service->parsed()) {
    if (!ToOptions(serviceText, &g_serviceOptions)) return kExitUsage;
    g_quitEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    SERVICE_TABLE_ENTRYW table[] = {{const_cast<wchar_t*>(kFusionSimServiceName), ServiceMain},
                                    {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? kExitOk : kExitFailed;
  }
  if (install->parsed()) {
    Options o;
    if (!ToOptions(installText, &o)) return kExitUsage;
    // The service is registered with the options as they were given.
    std::wstring options;
    for (int i = 2; i < argc; ++i) options += std::wstring(argv[i]) + L" ";
    bool ok = FusionSimInstallService(options);
    std::printf("fusion-sim: install %s\n", ok ? "done" : "failed");
    return ok ? kExitOk : kExitFailed;
  }
  if (uninstall->parsed()) {
    bool ok = FusionSimUninstallService();
    std::printf("fusion-sim: uninstall %s\n", ok ? "done" : "failed");
    return ok ? kExitOk : kExitFailed;
  }
  if (start->parsed() || stop->parsed()) {
    bool ok = start->parsed() ? FusionSimStartService() : FusionSimStopService();
    std::printf("fusion-sim: %s %s\n", start->parsed() ? "start" : "stop", ok ? "done" : "failed");
    return ok ? kExitOk : kExitFailed;
  }
  Options o;
  if (!ToOptions(runText, &o)) return kExitUsage;
  if (!StartServer(o)) {
    StopServer();
    return kExitFailed;
  }
  SetConsoleCtrlHandler(ConsoleHandler, TRUE);
  WaitForSingleObject(g_quitEvent, INFINITE);
  StopServer();
  return kExitOk;
}
