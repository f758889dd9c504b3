#include "FusionSimCtl.h"

#include "FusionEvents.h"

#include <cstdio>
#include <cstring>

namespace {

// A view of the simulator's shared block plus its mutex, for one operation.
class SimView {
 public:
  SimView() {
    mapping_ = OpenFileMappingW(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, kFusionSimStateName);
    if (!mapping_) return;
    block_ = static_cast<FusionSimShared*>(
        MapViewOfFile(mapping_, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, sizeof(FusionSimShared)));
    mutex_ = OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, kFusionSimMutexName);
    if (block_ && (block_->magic != kFusionSimMagic || !block_->ready)) {
      UnmapViewOfFile(block_);
      block_ = nullptr;
    }
  }
  ~SimView() {
    if (locked_) ReleaseMutex(mutex_);
    if (block_) UnmapViewOfFile(block_);
    if (mutex_) CloseHandle(mutex_);
    if (mapping_) CloseHandle(mapping_);
  }
  SimView(const SimView&) = delete;
  SimView& operator=(const SimView&) = delete;

  // Takes the mutex (bounded: the simulator holds it only for a few copies).
  FusionSimShared* Lock() {
    if (!block_ || !mutex_) return nullptr;
    DWORD w = WaitForSingleObject(mutex_, 5000);
    if (w != WAIT_OBJECT_0 && w != WAIT_ABANDONED) return nullptr;
    locked_ = true;
    return block_;
  }
  void Unlock() {
    if (locked_) ReleaseMutex(mutex_);
    locked_ = false;
  }

 private:
  HANDLE mapping_ = nullptr;
  HANDLE mutex_ = nullptr;
  FusionSimShared* block_ = nullptr;
  bool locked_ = false;
};

template <class F>
bool WithBlock(F&& f) {
  SimView view;
  FusionSimShared* b = view.Lock();
  if (!b) return false;
  f(*b);
  return true;
}

bool SendCommand(FusionSimCommand code, std::uint32_t arg, DWORD timeoutMs) {
  std::uint32_t seq = 0;
  if (!WithBlock([&](FusionSimShared& b) {
        seq = ++b.commandSeq;
        b.commandCode = code;
        b.commandArg = arg;
      }))
    return false;
  HANDLE ev = OpenEventW(EVENT_MODIFY_STATE, FALSE, kFusionSimCommandName);
  if (!ev) return false;
  SetEvent(ev);
  CloseHandle(ev);
  DWORD start = GetTickCount();
  for (;;) {
    bool done = false;
    bool alive = WithBlock([&](FusionSimShared& b) { done = b.commandDone >= seq; });
    if (done) return true;
    if (!alive) return code == kFusionSimCmdQuit;  // the block is gone: the simulator ended
    if (GetTickCount() - start > timeoutMs) return false;
    Sleep(5);
  }
}

SC_HANDLE OpenSim(DWORD access) {
  SC_HANDLE scm = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
  if (!scm) return nullptr;
  SC_HANDLE svc = OpenServiceW(scm, kFusionSimServiceName, access);
  CloseServiceHandle(scm);
  return svc;
}

bool WaitServiceState(SC_HANDLE svc, DWORD state, DWORD timeoutMs) {
  DWORD start = GetTickCount();
  for (;;) {
    SERVICE_STATUS st{};
    if (!QueryServiceStatus(svc, &st)) return false;
    if (st.dwCurrentState == state) return true;
    if (GetTickCount() - start > timeoutMs) return false;
    Sleep(20);
  }
}

}  // namespace

std::wstring FusionSimExePath() {
  wchar_t buf[MAX_PATH * 2];
  DWORD n = GetEnvironmentVariableW(L"FUSION_SIM_EXE", buf, MAX_PATH * 2);
  if (n > 0 && n < MAX_PATH * 2) {
    std::wstring p(buf);
    if (!p.empty() && p[0] == L'/') {  // a Unix path given by the build: Wine's Z: drive
      for (auto& c : p)
        if (c == L'/') c = L'\\';
      p = L"Z:" + p;
    }
    return p;
  }
  n = GetModuleFileNameW(nullptr, buf, MAX_PATH * 2);
  std::wstring p(buf, n);
  auto slash = p.find_last_of(L"\\/");
  return (slash == std::wstring::npos ? L"" : p.substr(0, slash + 1)) + L"fusion-sim.exe";
}

bool FusionSimWaitReady(DWORD timeoutMs) {
  DWORD start = GetTickCount();
  for (;;) {
    if (WithBlock([](FusionSimShared&) {})) return true;
    if (GetTickCount() - start > timeoutMs) return false;
    Sleep(10);
  }
}

bool FusionSimLaunch(const std::wstring& args, DWORD timeoutMs, FusionSimProcess* out) {
  if (WithBlock([](FusionSimShared&) {})) return false;  // one is running already
  std::wstring cmd = L"\"" + FusionSimExePath() + L"\" run --quiet " + args;
  STARTUPINFOW si{};
  si.cb = sizeof si;
  PROCESS_INFORMATION pi{};
  if (!CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi))
    return false;
  CloseHandle(pi.hThread);
  DWORD start = GetTickCount();
  while (!WithBlock([](FusionSimShared&) {})) {
    if (WaitForSingleObject(pi.hProcess, 10) == WAIT_OBJECT_0 ||
        GetTickCount() - start > timeoutMs) {
      TerminateProcess(pi.hProcess, 1);
      CloseHandle(pi.hProcess);
      return false;
    }
  }
  if (out) {
    out->process = pi.hProcess;
    out->pid = pi.dwProcessId;
  } else {
    CloseHandle(pi.hProcess);
  }
  return true;
}

bool FusionSimQuit(DWORD timeoutMs, FusionSimProcess* proc) {
  bool ok = SendCommand(kFusionSimCmdQuit, 0, timeoutMs);
  if (proc && proc->process) {
    if (WaitForSingleObject(proc->process, timeoutMs) != WAIT_OBJECT_0) {
      TerminateProcess(proc->process, 1);
      WaitForSingleObject(proc->process, 2000);
      ok = false;
    }
    CloseHandle(proc->process);
    proc->process = nullptr;
  }
  return ok;
}

bool FusionSimSetStatus(std::uint32_t statusWord) {
  return WithBlock([&](FusionSimShared& b) { b.statusWord = statusWord; });
}

bool FusionSimSetDelay(std::uint32_t delay) {
  return WithBlock([&](FusionSimShared& b) { b.delay = delay; });
}

bool FusionSimSetAttention(std::uint32_t record, bool signal) {
  if (!WithBlock([&](FusionSimShared& b) { b.attention = record; })) return false;
  return !signal || FusionSimSignal(6);
}

bool FusionSimSignal(int index) {
  std::wstring name = FusionGlobalEventName(index);
  if (name.empty()) return false;
  HANDLE ev = OpenEventW(EVENT_MODIFY_STATE, FALSE, name.c_str());
  if (!ev) return false;
  bool ok = SetEvent(ev) != 0;
  CloseHandle(ev);
  return ok;
}

bool FusionSimForceResult(int opnum, std::int32_t code, bool once) {
  if (opnum < -1 || opnum >= kFusionSimOpnums) return false;
  return WithBlock([&](FusionSimShared& b) {
    for (int i = 0; i < kFusionSimOpnums; ++i)
      if (opnum == -1 || opnum == i) {
        b.forceActive[i] = once ? kFusionSimForceOnce : 1;
        b.forceResult[i] = code;
      }
  });
}

bool FusionSimClearForced(int opnum) {
  if (opnum < -1 || opnum >= kFusionSimOpnums) return false;
  return WithBlock([&](FusionSimShared& b) {
    for (int i = 0; i < kFusionSimOpnums; ++i)
      if (opnum == -1 || opnum == i) b.forceActive[i] = 0;
  });
}

bool FusionSimSetReplyDelay(std::uint32_t ms) {
  return WithBlock([&](FusionSimShared& b) { b.replyDelayMs = ms; });
}

bool FusionSimHoldReplies(bool hold) {
  return WithBlock([&](FusionSimShared& b) { b.holdReplies = hold ? 1 : 0; });
}

bool FusionSimDropAttentionEvent(bool drop, DWORD timeoutMs) {
  return SendCommand(kFusionSimCmdDropAttentionEvent, drop ? 1 : 0, timeoutMs);
}

bool FusionSimGetModel(FusionSimModel* model) {
  return WithBlock([&](FusionSimShared& b) {
    model->statusWord = b.statusWord;
    model->delay = b.delay;
    model->attention = b.attention;
    model->attentionEventPresent = b.attentionEventPresent != 0;
    model->holdingReplies = b.holdReplies != 0;
    model->replyDelayMs = b.replyDelayMs;
    model->pid = b.pid;
  });
}

bool FusionSimReadCalls(std::vector<FusionSimCall>* calls) {
  return WithBlock([&](FusionSimShared& b) {
    std::uint32_t n = b.callCount < static_cast<std::uint32_t>(kFusionSimMaxCalls)
                          ? b.callCount
                          : kFusionSimMaxCalls;
    calls->assign(b.calls, b.calls + n);
  });
}

bool FusionSimClearCalls() {
  return WithBlock([](FusionSimShared& b) { b.callCount = 0; });
}

bool FusionSimWaitCalls(std::uint32_t count, DWORD timeoutMs) {
  DWORD start = GetTickCount();
  for (;;) {
    std::uint32_t n = 0;
    if (!WithBlock([&](FusionSimShared& b) { n = b.callCount; })) return false;
    if (n >= count) return true;
    if (GetTickCount() - start > timeoutMs) return false;
    Sleep(5);
  }
}

std::string FusionSimFormatCall(const FusionSimCall& c) {
  char line[64 + 3 * kFusionSimMaxBytes];
  int n = std::snprintf(line, sizeof line, "%u %d %d %d 0x%x %u %u", c.seq, c.opnum, c.arg0, c.arg1,
                        static_cast<unsigned>(c.result), c.answered, c.dataLen);
  std::string s(line, n > 0 ? n : 0);
  for (std::uint32_t i = 0; i < c.dataLen && i < static_cast<std::uint32_t>(kFusionSimMaxBytes);
       ++i) {
    std::snprintf(line, sizeof line, "%s%02x", i ? "" : " ", c.data[i]);
    s += line;
  }
  return s;
}

bool FusionSimInstallService(const std::wstring& args) {
  std::wstring bin = L"\"" + FusionSimExePath() + L"\" service " + args;
  SC_HANDLE scm = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE | SC_MANAGER_CONNECT);
  if (!scm) return false;
  SC_HANDLE svc = CreateServiceW(scm, kFusionSimServiceName, L"Vantoq Sensor Fusion (simulator)",
                                 SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                                 SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, bin.c_str(), nullptr,
                                 nullptr, nullptr, nullptr, nullptr);
  bool ok = svc != nullptr;
  if (!svc && GetLastError() == ERROR_SERVICE_EXISTS) {
    svc = OpenServiceW(scm, kFusionSimServiceName, SERVICE_CHANGE_CONFIG);
    ok = svc &&
         ChangeServiceConfigW(svc, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                              bin.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  }
  if (svc) CloseServiceHandle(svc);
  CloseServiceHandle(scm);
  return ok;
}

bool FusionSimStartService(DWORD timeoutMs) {
  SC_HANDLE svc = OpenSim(SERVICE_START | SERVICE_QUERY_STATUS);
  if (!svc) return false;
  bool ok = (StartServiceW(svc, 0, nullptr) || GetLastError() == ERROR_SERVICE_ALREADY_RUNNING) &&
            WaitServiceState(svc, SERVICE_RUNNING, timeoutMs);
  CloseServiceHandle(svc);
  return ok && FusionSimWaitReady(timeoutMs);
}

bool FusionSimStopService(DWORD timeoutMs) {
  SC_HANDLE svc = OpenSim(SERVICE_STOP | SERVICE_QUERY_STATUS);
  if (!svc) return false;
  SERVICE_STATUS st{};
  ControlService(svc, SERVICE_CONTROL_STOP, &st);
  bool ok = WaitServiceState(svc, SERVICE_STOPPED, timeoutMs);
  CloseServiceHandle(svc);
  return ok;
}

bool FusionSimUninstallService(DWORD timeoutMs) {
  SC_HANDLE svc = OpenSim(SERVICE_STOP | SERVICE_QUERY_STATUS | DELETE);
  if (!svc) return GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST;
  SERVICE_STATUS st{};
  if (QueryServiceStatus(svc, &st) && st.dwCurrentState != SERVICE_STOPPED) {
    ControlService(svc, SERVICE_CONTROL_STOP, &st);
    WaitServiceState(svc, SERVICE_STOPPED, timeoutMs);
  }
  bool ok = DeleteService(svc) != 0;
  CloseServiceHandle(svc);
  return ok;
}

DWORD FusionSimServiceState() {
  SC_HANDLE svc = OpenSim(SERVICE_QUERY_STATUS);
  if (!svc) return 0;
  SERVICE_STATUS st{};
  DWORD state = QueryServiceStatus(svc, &st) ? st.dwCurrentState : 0;
  CloseServiceHandle(svc);
  return state;
}
