// Control interface of fusion-sim, the simulator of the sensor fusion service.
//
// The simulator serves the seven procedures of FusionRpc.idl over ncacn_np at
// "\pipe\Vantoq.SensorFusion.EndPoint_edc08f" (no authentication required),
// creates the service's seven "Global\Vantoq.SensorFusion.*" events (auto-reset),
// and keeps a small sensor model: the status word (0x10000000 stopped,
// 0x10000001 active, 0 unsupported), the delay, and the 4-byte attention record.
// It runs as a console program (`fusion-sim run`) or as the Windows service
// "VantoqSensorFusion" (`fusion-sim install`, then net start / StartService).
//
// A running simulator publishes its model, its knobs and the record of every
// call it received in a named shared block ("Global\Vantoq.SensorFusionSim.State",
// guarded by the named mutex "Global\Vantoq.SensorFusionSim.Lock"). This library
// (target qx_fusion_sim_ctl, no RPC, no gtest) reads and changes that block, so
// a C++ test running under Wine drives the simulator with plain calls:
//
//   #include "FusionSimCtl.h"
//   FusionSimProcess sim;
//   ASSERT_TRUE(FusionSimLaunch(L"", 10000, &sim));       // console simulator, ready
//   FusionSimSetStatus(0x10000001);                      // status word of opnum 4
//   FusionSimForceResult(6, 0x60000006);                 // opnum 6 now answers this
//   FusionSimSetAttention(0, true);                      // user looks away + event
//   std::vector<FusionSimCall> calls; FusionSimReadCalls(&calls);
//   FusionSimQuit(5000, &sim);
//
// or, for the real service: FusionSimInstallService(L""), FusionSimStartService(),
// ... FusionSimStopService(), FusionSimUninstallService(). Every function that
// waits takes a bound; nothing here waits forever. Only one simulator runs per
// Wine prefix (the endpoint and the shared block are machine-wide): ctest
// entries that start one should carry RESOURCE_LOCK fusion_sim (see
// cmake/FusionSim.cmake). `fusion-sim ctl ...` is a command line over the same
// functions (`fusion-sim --help`).
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ServiceNames.h"

constexpr wchar_t kFusionSimServiceName[] = QX_SERVICE_NAME_W;
constexpr wchar_t kFusionSimEndpoint[] = QX_SERVICE_ENDPOINT_W;
constexpr wchar_t kFusionSimStateName[] = L"Global\\Vantoq.SensorFusionSim.State";
constexpr wchar_t kFusionSimMutexName[] = L"Global\\Vantoq.SensorFusionSim.Lock";
constexpr wchar_t kFusionSimCommandName[] = L"Global\\Vantoq.SensorFusionSim.Command";

constexpr std::uint32_t kFusionSimMagic = 0x5346534Du;  // "MSFS"
constexpr int kFusionSimOpnums = 7;
constexpr int kFusionSimMaxCalls = 4096;
constexpr int kFusionSimMaxBytes = 64;

// One received call. arg0 is the mask (opnums 0, 5) or the sensor id; arg1 the
// size (opnums 1, 2, 4, 6) or the start param (opnum 3). data holds the bytes
// the client sent (opnum 2) or the bytes sent back (opnums 1, 4, 6), dataLen of
// them (at most kFusionSimMaxBytes kept). result is what the simulator answered
// (it is filled in when the reply leaves; `answered` tells whether it has).
struct FusionSimCall {
  std::uint32_t seq;
  std::int32_t opnum;
  std::int32_t arg0;
  std::int32_t arg1;
  std::int32_t result;
  std::uint32_t answered;
  std::uint32_t dataLen;
  std::uint8_t data[kFusionSimMaxBytes];
};

constexpr std::uint32_t kFusionSimForceOnce = 2;

// The shared block (layout shared by the simulator and this library).
struct FusionSimShared {
  std::uint32_t magic;
  std::uint32_t ready;
  std::uint32_t pid;
  std::uint32_t statusWord;
  std::uint32_t delay;
  std::uint32_t attention;
  std::uint32_t forceActive[kFusionSimOpnums];  // 0 off, 1 on, kFusionSimForceOnce
  std::int32_t forceResult[kFusionSimOpnums];
  std::uint32_t replyDelayMs;
  std::uint32_t holdReplies;
  std::uint32_t attentionEventPresent;
  std::uint32_t commandSeq;
  std::uint32_t commandCode;
  std::uint32_t commandArg;
  std::uint32_t commandDone;
  std::uint32_t callCount;  // calls received in all (the record keeps the first kFusionSimMaxCalls)
  FusionSimCall calls[kFusionSimMaxCalls];
};

enum FusionSimCommand : std::uint32_t {
  kFusionSimCmdNone = 0,
  kFusionSimCmdDropAttentionEvent =
      1,  // arg 1: close the event (it no longer exists); 0: create it again
  kFusionSimCmdQuit = 2,
};

struct FusionSimModel {
  std::uint32_t statusWord;
  std::uint32_t delay;
  std::uint32_t attention;
  bool attentionEventPresent;
  bool holdingReplies;
  std::uint32_t replyDelayMs;
  std::uint32_t pid;
};

struct FusionSimProcess {
  HANDLE process = nullptr;
  DWORD pid = 0;
};

// Path of fusion-sim.exe: the FUSION_SIM_EXE environment variable (a Unix path
// is turned into its Z: form), else fusion-sim.exe beside the running program.
std::wstring FusionSimExePath();

// Waits up to timeoutMs for a running simulator (console or service) to be ready.
bool FusionSimWaitReady(DWORD timeoutMs);
// Starts the console simulator with `args` (options of `fusion-sim run`) and
// waits up to timeoutMs for it to be ready. Fails if one is already running.
bool FusionSimLaunch(const std::wstring& args, DWORD timeoutMs, FusionSimProcess* out);
// Asks the simulator to end and waits up to timeoutMs for it (and for `proc`,
// when given: it is then closed, and killed if it did not end in time).
bool FusionSimQuit(DWORD timeoutMs, FusionSimProcess* proc = nullptr);

// Model and knobs. All return false when no simulator is running.
bool FusionSimSetStatus(std::uint32_t statusWord);
bool FusionSimSetDelay(std::uint32_t delay);
// Sets the 4-byte attention record (0: the user looks away; non-zero: looks at
// the screen) and, when `signal`, signals the attention event afterwards.
bool FusionSimSetAttention(std::uint32_t record, bool signal);
// Signals the named event of sensor `index` (0, 2..6, 31) without changing anything.
bool FusionSimSignal(int index);
// Makes procedure `opnum` answer `code` without touching the model; opnum -1 = all.
// With `once`, only its next answer (the simulator lifts it as it answers).
bool FusionSimForceResult(int opnum, std::int32_t code, bool once = false);
bool FusionSimClearForced(int opnum);  // -1 = all
// Every reply waits this long before it leaves (0: none).
bool FusionSimSetReplyDelay(std::uint32_t ms);
// Stop answering: calls are recorded but their replies are held until released.
bool FusionSimHoldReplies(bool hold);
// Closes (drop = true) or creates again the attention event; waits for the simulator.
bool FusionSimDropAttentionEvent(bool drop, DWORD timeoutMs = 5000);
bool FusionSimGetModel(FusionSimModel* model);

// The call record.
bool FusionSimReadCalls(std::vector<FusionSimCall>* calls);
bool FusionSimClearCalls();
// Waits up to timeoutMs until at least `count` calls were received (answered or not).
bool FusionSimWaitCalls(std::uint32_t count, DWORD timeoutMs);
// One line per call: "seq opnum arg0 arg1 result answered len hexbytes".
std::string FusionSimFormatCall(const FusionSimCall& call);

// The real service in the current prefix (Service Control Manager). `args` are
// options of `fusion-sim run`, stored in the service's command line.
bool FusionSimInstallService(const std::wstring& args);
bool FusionSimStartService(DWORD timeoutMs = 10000);      // waits for RUNNING and ready
bool FusionSimStopService(DWORD timeoutMs = 10000);       // waits for STOPPED
bool FusionSimUninstallService(DWORD timeoutMs = 10000);  // stops it first when running
// Current state (SERVICE_RUNNING ...), 0 when the service does not exist.
DWORD FusionSimServiceState();
