// The fusion client: binding to the sensor fusion service, the wrappers of its
// seven remote procedures, and the event threads that fetch sensor records.
// Every message goes to the sensor library log (SensorLibLog.h).
#include "FusionClientState.h"

#include "FusionEvents.h"
#include "FusionRpc.h"
#include "FusionSehGuard.h"
#include "SensorLibLog.h"
#include "SensorLibTexts.h"
#include "ServiceNames.h"

#include <process.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>

FusionClientState g_fusion;

namespace {

// The client's lock is valid for the whole life of the module: initialised
// here, at module load, before the host can call anything, and never deleted
// while the module lives. The host may send "ability" or a "set_" action
// before "init" and after "close"; those reach GetFusionStatus, SetFusionDelay
// and friends, which enter the lock. A lock first made by InitFusion would be
// a zeroed CRITICAL_SECTION there (which blocks forever under Wine, and is
// undefined on Windows), and one deleted by UnInitial would be used after
// deletion. Re-initialising it in InitFusion is no better: another thread may
// hold it (a waiting thread fetching a record, or the FusionSetting early
// return below), and re-initialising a held lock breaks it.
struct FusionLockOwner {
  FusionLockOwner() {
    InitializeCriticalSection(&g_fusion.lock);
    threadReady = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  }
  // No destructor on purpose: threads of the client may still run at unload.
  HANDLE threadReady;  // see StartSensorThread
} g_fusionLockOwner;

// The holds that a refused FusionSetting left on the lock, and the thread that
// took them (see FusionSetting and InitFusion).
DWORD g_refusedSettingThread;
int g_refusedSettingHolds;

// The binding handle for a stub call. Windows' stubs raise RPC_S_INVALID_BINDING
// for a null primitive binding handle (a wrapper called before InitFusion or
// after UnInitial), and so does Wine 10's NdrClientCall2; Wine 8's returns 0
// without calling anything. Raising it here gives all of them the same path:
// caught by the guard, one exception line, result 1.
RPC_BINDING_HANDLE Binding() {
  RPC_BINDING_HANDLE h = g_fusion.bindingHandle;
  if (!h) RpcRaiseException(RPC_S_INVALID_BINDING);
  return h;
}

constexpr char kExceptionText[] = QX_SENSOR_EXCEPTION "\n";
constexpr char kExceptionTextNoLf[] = QX_SENSOR_EXCEPTION;

// Runs `call` inside the structured exception guard. On an exception the line
// `text` is written with the code twice and the result is 1; otherwise the
// result is whatever `call` stored.
template <class Call>
std::int32_t Guarded(const char* text, Call&& call) {
  std::int32_t result = 1;
  struct Frame {
    Call* call;
    std::int32_t* result;
  } frame{&call, &result};
  unsigned long code = FusionSehCall(
      [](void* p) {
        auto* f = static_cast<Frame*>(p);
        *f->result = (*f->call)();
      },
      &frame);
  if (code != 0) {
    SensorLibLogWrite(text, code, static_cast<long>(code));
    return 1;
  }
  return result;
}

// Record sizes fetched by SensorDataCallback, by sensor index.
std::int32_t CallbackRecordSize(std::int32_t id) {
  switch (id) {
    case 0:
    case 2:
    case 3:
    case 4:
      return 8;
    case 1:
    case 6:
      return 4;
    case 5:
      return 34;
    case 31:
      return 12;
    default:
      return 0;
  }
}

// Sizes used by GetSensorData: deliberately not the table above (3 and 6 are 0).
std::int32_t GetSensorDataSize(std::int32_t id) {
  switch (id) {
    case 0:
    case 2:
    case 4:
      return 8;
    case 1:
      return 4;
    case 5:
      return 34;
    case 31:
      return 12;
    default:
      return 0;
  }
}

byte* Bytes(void* p) { return static_cast<byte*>(p); }

// Copies a fetched record into `out`, which holds `size` bytes. A reply whose
// count is not the size asked for is refused before anything is copied (the
// stubs check no correlated argument: see FusionRpc.idl), with the code the RPC
// runtime raises for a malformed reply, RPC_X_BAD_STUB_DATA: raised inside the
// guard, it ends the call with one exception line and result 1, and the
// caller's buffer keeps what it held.
void TakeRecord(const FusionRecord& record, std::int32_t size, void* out) {
  if (record.size != size || size < 0 || static_cast<std::size_t>(size) > sizeof record.bytes)
    RpcRaiseException(RPC_X_BAD_STUB_DATA);
  if (size > 0) std::memcpy(out, &record.bytes, static_cast<std::size_t>(size));
}

// One GetSensorData call under the client lock; `out` (size bytes) receives the
// record only when the reply carries exactly size bytes.
std::int32_t FetchSensorRecord(std::int32_t id, std::int32_t size, void* out) {
  EnterCriticalSection(&g_fusion.lock);
  std::int32_t result = Guarded(kExceptionText, [&] {
    FusionRecord record;
    std::int32_t r = FusionRpcGetSensorData(Binding(), id, size, &record);
    TakeRecord(record, size, out);
    return r;
  });
  LeaveCriticalSection(&g_fusion.lock);
  return result;
}

// Stop event, named sensor event and thread of one index (FusionSetting step 4,
// StartFusion 1). Returns 0, 0x10000000 + index or 0x20000000 + index.
std::int32_t StartSensorThread(int index) {
  g_fusion.stopEvents[index] = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  g_fusion.sensorEvents[index] =
      OpenEventW(GENERIC_READ | SYNCHRONIZE, FALSE, g_fusion.eventNames[index]);
  g_fusion.threadHandles[index] = nullptr;
  if (!g_fusion.sensorEvents[index]) return 0x10000000 + index;  // the stop event stays, as it is
  g_fusion.threadArgs[index].index = index;
  g_fusion.threadArgs[index].fusionFlag = index;
  g_fusion.threadHandles[index] = reinterpret_cast<HANDLE>(
      _beginthreadex(nullptr, 0, GetSensorDataProc, &g_fusion.threadArgs[index], 0, nullptr));
  if (!g_fusion.threadHandles[index]) return 0x20000000 + index;
  // The thread copies its two handles when it starts. A StartFusion(0) or
  // UnInitial right after this (the attention controller stops attention at
  // once after InitFusion) nulls sensorEvents[index]; a thread that had not
  // copied yet would then wait on a null handle, fail, and retry without
  // end. So the starter waits (bounded) until the thread holds its pair.
  WaitForSingleObject(g_fusionLockOwner.threadReady, 5000);
  g_fusion.FusionStatus |= 1u << index;
  return 0;
}

}  // namespace

// Memory routines of the stubs: the process heap's plain allocate and free.
extern "C" void* __RPC_USER MIDL_user_allocate(SIZE_T size) {
  return HeapAlloc(GetProcessHeap(), 0, size);
}
extern "C" void __RPC_USER MIDL_user_free(void* p) { HeapFree(GetProcessHeap(), 0, p); }

std::int32_t BindFusionService() {
  // Transfer syntax: the stubs come from widl -Oif (NdrClientCall2) and offer
  // NDR 2.0 only. NDR64 is deliberately not offered: widl cannot generate its
  // format tables, a hand-written table cannot be verified on our machines
  // (Wine does not implement NDR64), and a wrong one would crash the host on
  // Windows. Every Windows RPC server accepts NDR 2.0, so the negotiation
  // simply settles on it.
  RPC_STATUS status = RpcStringBindingComposeW(
      nullptr, reinterpret_cast<RPC_WSTR>(const_cast<wchar_t*>(L"ncacn_np")), nullptr,
      reinterpret_cast<RPC_WSTR>(const_cast<wchar_t*>(QX_SERVICE_ENDPOINT_W)), nullptr,
      &g_fusion.stringBinding);
  if (status == RPC_S_OK)
    status = RpcBindingFromStringBindingW(g_fusion.stringBinding, &g_fusion.bindingHandle);
  if (status != RPC_S_OK) {
    // One text for both steps.
    SensorLibLogWrite(QX_SENSOR_BINDING_FAILED, static_cast<unsigned>(status));
    return status;
  }
#ifndef QX_FUSION_NO_AUTH
  // Packet privacy over NTLM/Kerberos with the caller's own identity. Under
  // Wine no such call can complete (docs/wine.md: its NTLM needs credentials
  // cached in a winbindd, and its RPC server then rejects the client's last
  // NTLM message), which is why the test build (QX_FUSION_NO_AUTH, never
  // shipped) leaves out only this step.
  status = RpcBindingSetAuthInfoW(g_fusion.bindingHandle, nullptr, RPC_C_AUTHN_LEVEL_PKT_PRIVACY,
                                  RPC_C_AUTHN_WINNT, nullptr, RPC_C_AUTHZ_NONE);
  if (status != RPC_S_OK) {
    SensorLibLogWrite(QX_SENSOR_AUTH_FAILED, static_cast<unsigned>(status));
    return status;
  }
#endif
  return 0;
}

std::int32_t ReleaseFusionBinding() {
  RPC_STATUS status = RpcStringFreeW(&g_fusion.stringBinding);
  if (status == RPC_S_OK) status = RpcBindingFree(&g_fusion.bindingHandle);
  return status;
}

std::int32_t GetFusionStatus(void*, std::uint32_t* status) {
  EnterCriticalSection(&g_fusion.lock);
  std::int32_t result = Guarded("GetFusionStatus::" QX_SENSOR_EXCEPTION "\n", [&] {
    FusionRecord record;
    std::int32_t r = FusionRpcGetSensorStatus(Binding(), kFusionAttentionIndex, 4, &record);
    TakeRecord(record, 4, status);
    SensorLibLogWrite("%d", static_cast<int>(*status));
    return r;
  });
  LeaveCriticalSection(&g_fusion.lock);
  return result;
}

std::int32_t GetFusionDelay(void*, std::uint32_t* delay) {
  EnterCriticalSection(&g_fusion.lock);
  std::int32_t result = Guarded(kExceptionText, [&] {
    FusionRecord record;
    std::int32_t r = FusionRpcGetSensorParam(Binding(), kFusionAttentionIndex, 4, &record);
    TakeRecord(record, 4, delay);
    return r;
  });
  LeaveCriticalSection(&g_fusion.lock);
  return result;
}

std::int32_t SetFusionDelay(void*, const std::uint32_t* delay) {
  EnterCriticalSection(&g_fusion.lock);
  std::int32_t result = Guarded(kExceptionText, [&] {
    return FusionRpcSetSensorParam(Binding(), kFusionAttentionIndex, 4,
                                   Bytes(const_cast<std::uint32_t*>(delay)));
  });
  LeaveCriticalSection(&g_fusion.lock);
  return result;
}

std::int32_t GetSensorData(std::int32_t id, void* data) {
  if (id < 0 || id >= kFusionSensorCount || !(g_fusion.FusionStatus & (1u << id))) return 2;
  std::int32_t size = GetSensorDataSize(id);
  return FetchSensorRecord(id, size, data);
}

std::int32_t InitFusion() {
  SensorLibLogOpen();
  SensorLibLogWrite("InitFusion:FusionMask: 0x%x", kFusionMask);
  // The lock is not re-initialised here: it lives as long as the module (see
  // FusionLockOwner above). What re-initialising did for the thread calling
  // InitFusion again after a refused FusionSetting (the controller's retry,
  // or the next "init") is done by releasing the holds that refusal left on
  // this very thread. A hold of another thread is left alone.
  if (g_refusedSettingHolds > 0 && g_refusedSettingThread == GetCurrentThreadId()) {
    for (; g_refusedSettingHolds > 0; --g_refusedSettingHolds) LeaveCriticalSection(&g_fusion.lock);
  }
  g_fusion.stringBinding = nullptr;
  if (BindFusionService() != 0) return 1;
  for (int index : {0, 2, 3, 4, 5, 6, 31}) {
    std::memset(g_fusion.eventNames[index], 0, sizeof g_fusion.eventNames[index]);
    // Byte count 260 given to a wide formatter: at most 129 characters and
    // the terminator (kept so; every name fits).
    _snwprintf(g_fusion.eventNames[index], MAX_PATH / sizeof(wchar_t) - 1, L"Global\\%s",
               FusionSensorEventName(index));
  }
  return FusionSetting(kFusionMask);
}

std::int32_t FusionSetting(std::uint32_t) {
  SensorLibLogWrite("FusionSetting Mask 0x%x", kFusionMask);
  EnterCriticalSection(&g_fusion.lock);
  std::int32_t result = Guarded(kExceptionTextNoLf, [] {
    return FusionRpcSetting(Binding(), static_cast<long>(kFusionMask));
  });
  if (result != 0) {
    // Deliberately returns with the lock still held: every remote call of
    // another thread now blocks; this thread may still enter.
    if (g_refusedSettingThread != GetCurrentThreadId()) g_refusedSettingHolds = 0;
    g_refusedSettingThread = GetCurrentThreadId();
    ++g_refusedSettingHolds;
    return result;
  }
  LeaveCriticalSection(&g_fusion.lock);
  for (int index = 0; index < kFusionSensorCount; ++index) {
    if (!(kFusionMask & (1u << index))) continue;
    std::int32_t r = StartSensorThread(index);
    if (r != 0) return r;
  }
  return 0;
}

unsigned __stdcall GetSensorDataProc(void* argument) {
  auto* args = static_cast<FusionThreadArgs*>(argument);
  int index = args->index;
  SensorLibLogWrite("GetSensorDataProc:index %d,FusionFlag %d", index, args->fusionFlag);
  HANDLE pair[2] = {g_fusion.sensorEvents[index], g_fusion.stopEvents[index]};
  SetEvent(g_fusionLockOwner.threadReady);
  for (;;) {
    DWORD w = WaitForMultipleObjects(2, pair, FALSE, INFINITE);
    if (w == WAIT_OBJECT_0) {
      SYSTEMTIME t;
      GetLocalTime(&t);
      char text[256];
      std::snprintf(text, sizeof text, "Event occur: %d.%d:%d:%d:%d:%d", t.wMonth, t.wDay, t.wHour,
                    t.wMinute, t.wSecond, t.wMilliseconds);
      SensorLibLogWrite("Event!%s", text);
      SensorDataCallback(args->fusionFlag);
    } else if (w == WAIT_OBJECT_0 + 1) {
      break;
    }
    // Any other outcome: wait again at once, deliberately without a pause.
  }
  SensorLibLogWrite("Thread exit %u", static_cast<unsigned>(index));
  return 0;
}

std::int32_t SensorDataCallback(std::int32_t id) {
  // One local record holding a buffer per sensor; not cleared before the fetch.
  struct {
    byte gesture[8];
    byte raw1[4];
    byte color[8];
    byte hod[8];
    byte healthy[8];
    byte intruder[34];
    byte attention[4];
    byte test[12];
  } records;
  byte* buffer = nullptr;
  std::int32_t size = 0;
  if (id >= 0 && id < kFusionSensorCount) {
    size = CallbackRecordSize(id);
    switch (id) {
      case 0:
        buffer = records.gesture;
        break;
      case 1:
        buffer = records.raw1;
        break;
      case 2:
        buffer = records.color;
        break;
      case 3:
        buffer = records.hod;
        break;
      case 4:
        buffer = records.healthy;
        break;
      case 5:
        buffer = records.intruder;
        break;
      case 6:
        buffer = records.attention;
        break;
      case 31:
        buffer = records.test;
        break;
      default:
        break;
    }
  }
  std::int32_t result = FetchSensorRecord(id, size, buffer);
  if (result == 0 && g_fusion.dataCallback) {
    SensorLibLogWrite("SensorDataCallback,id %d\n", id);
    g_fusion.dataCallback(g_fusion.dataCallbackContext, id, buffer);
    SensorLibLogWrite("SensorDataCallback,end\n");
  }
  return result;
}

std::int32_t StartFusion(void*, std::uint32_t param) {
  const int i = kFusionAttentionIndex;
  SensorLibLogWrite("start fusion %d,Param %d,%lu\n", i, static_cast<int>(param),
                    static_cast<unsigned long>(g_fusion.FusionStatus & kFusionMask));
  if (param == 1) {
    EnterCriticalSection(&g_fusion.lock);
    std::int32_t result = Guarded(
        kExceptionText, [] { return FusionRpcStartSensor(Binding(), kFusionAttentionIndex, 1); });
    LeaveCriticalSection(&g_fusion.lock);
    if (result != 0) return result;
    SensorLibLogWrite("start fusion %d,mask %lu,%lu\n", i,
                      static_cast<unsigned long>(g_fusion.FusionStatus),
                      static_cast<unsigned long>(g_fusion.FusionStatus & kFusionMask));
    if (!(g_fusion.FusionStatus & (1u << i))) return StartSensorThread(i);
    return 0;  // thread already running (the usual case after InitFusion)
  }
  if (param == 0) {
    SensorLibLogWrite("start fusion %d,mask %lu,%lu\n", i,
                      static_cast<unsigned long>(g_fusion.FusionStatus),
                      static_cast<unsigned long>(g_fusion.FusionStatus & kFusionMask));
    if (g_fusion.FusionStatus & (1u << i)) {
      g_fusion.sensorEvents[i] = nullptr;  // not closed: kept so deliberately
      if (g_fusion.stopEvents[i]) {
        SetEvent(g_fusion.stopEvents[i]);
        WaitForSingleObject(g_fusion.threadHandles[i], 1000);
        CloseHandle(g_fusion.threadHandles[i]);
        g_fusion.threadHandles[i] = nullptr;
        CloseHandle(g_fusion.stopEvents[i]);
      }
      g_fusion.FusionStatus &= ~(1u << i);
    }
    EnterCriticalSection(&g_fusion.lock);
    std::int32_t result = Guarded(
        kExceptionText, [] { return FusionRpcStartSensor(Binding(), kFusionAttentionIndex, 0); });
    LeaveCriticalSection(&g_fusion.lock);
    return result;
  }
  return 0;
}

std::int32_t UnInitial() {
  std::uint32_t copy = g_fusion.FusionStatus;
  for (int index = 0; index < kFusionSensorCount; ++index) {
    g_fusion.sensorEvents[index] = nullptr;  // not closed, as in StartFusion
    if ((copy & 1u) && g_fusion.stopEvents[index]) {
      SetEvent(g_fusion.stopEvents[index]);
      if (WaitForSingleObject(g_fusion.threadHandles[index], 5000) == WAIT_OBJECT_0)
        SensorLibLogWrite("Tread exit,index:%d", index);
      CloseHandle(g_fusion.threadHandles[index]);
      g_fusion.threadHandles[index] = nullptr;
      CloseHandle(g_fusion.stopEvents[index]);  // the field keeps the stale value
    }
    copy >>= 1;
    SensorLibLogWrite("UnInitial,FusionStatus:%d", static_cast<int>(copy));
  }
  EnterCriticalSection(&g_fusion.lock);
  SensorLibLogWrite("UnInitial,FusionMask:%d", static_cast<int>(g_fusion.FusionStatus));
  std::int32_t result = Guarded(kExceptionTextNoLf, [] {
    return FusionRpcUnInit(Binding(), static_cast<long>(g_fusion.FusionStatus));
  });
  LeaveCriticalSection(&g_fusion.lock);
  if (ReleaseFusionBinding() != RPC_S_OK) result = 1;
  // The lock is not deleted: the host may still call the wrappers after
  // "close" (see FusionLockOwner); they then fail cleanly with result 1.
  return result;
}

std::int32_t RegisterSensorDataCallback(SensorDataCallbackFn callback, void* context) {
  g_fusion.dataCallback = callback;
  g_fusion.dataCallbackContext = context;
  return 0;
}
