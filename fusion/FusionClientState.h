// The fusion client's process-wide state record and the pieces of the client
// that deal in Windows types (thread procedure, sensor table). Tools and tests
// that need to look inside the client (the benchmark's bare stub call, the
// tests of the event table) include this; the attention controller needs only
// FusionClient.h.
#pragma once

#include "FusionClient.h"

#include <windows.h>
#include <rpc.h>

#include <cstdint>

constexpr int kFusionSensorCount = 32;
constexpr int kFusionAttentionIndex = 6;
// The mask this client follows, whatever its callers ask for: attention only.
constexpr std::uint32_t kFusionMask = 0x40;

struct FusionThreadArgs {
  std::int32_t index;
  std::int32_t fusionFlag;
};

struct FusionClientState {
  std::uint32_t FusionStatus;        // bit i: the waiting thread of index i was started
  CRITICAL_SECTION lock;             // serialises every remote call (see FusionClient.cpp)
  RPC_BINDING_HANDLE bindingHandle;  // passed first to every remote call
  RPC_WSTR stringBinding;            // owned by the RPC runtime
  wchar_t eventNames[kFusionSensorCount][MAX_PATH];  // "Global\..." or empty
  FusionThreadArgs threadArgs[kFusionSensorCount];
  HANDLE threadHandles[kFusionSensorCount];
  HANDLE stopEvents[kFusionSensorCount];
  HANDLE sensorEvents[kFusionSensorCount];
  SensorDataCallbackFn dataCallback;
  void* dataCallbackContext;
};

// Zero at load (static storage); its lock is initialised by a static object
// of FusionClient.cpp before any caller can reach the client.
extern FusionClientState g_fusion;

// Thread procedure of one followed sensor: argument is a FusionThreadArgs*.
unsigned __stdcall GetSensorDataProc(void* argument);
