// The attention controller: the ability check and the thin, logged steps over
// the fusion client through which the bridge sets attention up, switches it,
// configures it and hears of status changes.
//
// The log lines given to QX_LOG are the numbers support engineers know these
// records by; they are part of each record and must not drift.
#include "AttentionFuntion.h"

#include <windows.h>

#include <cstdio>

#include "FusionClient.h"
#include "Logger.h"
#include "ServiceNames.h"

namespace {

// The misspelling is the name the records have always carried.
constexpr wchar_t kLogSource[] = L"AttentionFuntion";

constexpr wchar_t kProductKey[] = L"SOFTWARE\\Vantoq\\Quillomatic";
constexpr wchar_t kAbilityValue[] = L"attention__ability";  // two underscores

// Status word of the service.
constexpr std::uint32_t kStatusStopped = QX_STATUS_SUPPORTED_STOPPED;
constexpr std::uint32_t kStatusActive = QX_STATUS_SUPPORTED_ACTIVE;
constexpr std::uint32_t kStatusNotSupported = 0;
constexpr std::uint32_t kNoAnswer = 0xFFFFFFFF;

// InitFusion's "attention event could not be opened yet" for index 0; the
// service may still be creating its events right after the restart.
constexpr std::int32_t kInitRetryCode = 0x10000000;
constexpr DWORD kInitRetryPauseMs = 400;

// Result codes of GetFusionDelay that are told apart.
constexpr std::int32_t kDelayConnectFailed = 1;
constexpr std::int32_t kDelaySensorConnectFailed = 0x30000020;
constexpr std::int32_t kDelayRefused = 0x60000006;

// g_startLock lives exactly as long as the module: created while the module's
// static objects are constructed (load), deleted while they are destroyed
// (unload), so attention_start can take it at any time in between.
class StartLock {
 public:
  StartLock() { InitializeCriticalSection(&m_section); }
  ~StartLock() { DeleteCriticalSection(&m_section); }
  StartLock(const StartLock&) = delete;
  StartLock& operator=(const StartLock&) = delete;
  void Enter() { EnterCriticalSection(&m_section); }
  void Leave() { LeaveCriticalSection(&m_section); }

 private:
  CRITICAL_SECTION m_section;
};

StartLock g_startLock;

// One line of 8-bit text on standard output, flushed at once: the event thread
// writes these while the host may be writing its own output.
void PrintLine(const char* text) {
  std::fputs(text, stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

// Writes the negative verdict of the service into the user hive. Failures are
// silent: the answer is 0 either way.
void StoreNotSupported() {
  HKEY key = nullptr;
  if (RegCreateKeyExW(HKEY_CURRENT_USER, kProductKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                      nullptr) == ERROR_SUCCESS) {
    const DWORD zero = 0;
    if (RegSetValueExW(key, kAbilityValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&zero),
                       sizeof(zero)) == ERROR_SUCCESS) {
      RegFlushKey(key);
    }
  }
  if (key) RegCloseKey(key);
}

}  // namespace

std::int32_t g_attentionEnabled = 0;
std::int32_t g_attentionWorking = 0;
// -1 so that the first report of any status counts as a change.
std::uint32_t g_lastAttentionStatus = 0xFFFFFFFF;
AttentionEventFn g_statusCallback = nullptr;

// ---------------------------------------------------------------------------
// Ability check

std::int32_t CheckAttentionAbility() {
  DWORD cacheWord = kNoAnswer;
  std::int32_t cached = 0;

  // The cache is read from the machine hive and written to the user hive (see
  // StoreNotSupported), so this check never reads back its own verdict: a
  // machine-hive value can only come from outside the plug-in.
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProductKey, 0, KEY_READ, &key) == ERROR_SUCCESS) {
    DWORD size = sizeof(cacheWord);
    // The reported type is not checked: any 4-byte value is taken as the number
    // it holds; a longer one fails the query and counts as unknown.
    if (RegQueryValueExW(key, kAbilityValue, nullptr, nullptr, reinterpret_cast<BYTE*>(&cacheWord),
                         &size) == ERROR_SUCCESS) {
      cached = 1;
    }
  }
  if (key) RegCloseKey(key);

  QX_LOG(LogDebug, 93, L"CheckAttentionAbility  begin reg=%d dw:%d", cached,
         static_cast<int>(cacheWord));

  if (cached) {
    if (cacheWord == 1) return 1;
    QX_LOG(LogWarning, 99, L"Cache not .. support attention");
    return 0;
  }

  std::uint32_t status = kNoAnswer;
  const std::int32_t code = GetFusionStatus(nullptr, &status);
  QX_LOG(LogInfo, 105, L"CheckAttentionAbility InitFusion %x", code);

  switch (status) {
    case kStatusStopped:
      QX_LOG(LogInfo, 109, L"Attention stop");
      return 1;
    case kStatusActive:
      QX_LOG(LogInfo, 115, L"Attention active");
      return 1;
    case kStatusNotSupported:
      StoreNotSupported();
      return 0;
    default:
      // Includes the untouched preset when the service could not be asked;
      // nothing is stored, so the next process asks again.
      QX_LOG(LogInfo, 124, L"Attention active :%d", static_cast<int>(status));
      return 0;
  }
}

// ---------------------------------------------------------------------------
// Status, delay

std::int32_t attention_get_status() {
  std::uint32_t status = kNoAnswer;
  GetFusionStatus(nullptr, &status);  // the decision rests on the status word alone
  switch (status) {
    case kStatusStopped:
      QX_LOG(LogInfo, 136, L"Attention stop: %d", static_cast<int>(status));
      return 0;
    case kStatusActive:
      QX_LOG(LogInfo, 141, L"Attention active: %d", static_cast<int>(status));
      return 1;
    case kStatusNotSupported:
      QX_LOG(LogInfo, 146, L"Attention not support: %d", 0);
      return -1;
    default:
      return -1;
  }
}

std::int32_t attention_get_delay() {
  std::uint32_t delay = 0;
  const std::int32_t code = GetFusionDelay(nullptr, &delay);
  switch (code) {
    case 0:
      // The service's number, unchecked: its unit and range are the service's.
      QX_LOG(LogInfo, 160, L"Get delayTime success!,delay: %d resp:%d", static_cast<int>(delay), 0);
      return static_cast<std::int32_t>(delay);
    case kDelayConnectFailed:
      QX_LOG(LogInfo, 165, L"Connect to Fusion driver failed! resp:%d", kDelayConnectFailed);
      return -1;
    case kDelaySensorConnectFailed:
      QX_LOG(LogInfo, 169, L"Connect to Fusion driver failed! resp:%d", kDelaySensorConnectFailed);
      return -1;
    case kDelayRefused:
      // "Set" although this is the read path: the text support knows.
      QX_LOG(LogInfo, 173, L"Set failed! resp:%d", kDelayRefused);
      return -1;
    default:
      return -1;
  }
}

std::int32_t attention_set_delay(std::int32_t delay) {
  // Passed through as the host gave it; the action protocol checked the range.
  std::uint32_t value = static_cast<std::uint32_t>(delay);
  const std::int32_t code = SetFusionDelay(nullptr, &value);
  // The comma before "resp" is a full-width comma (U+FF0C).
  QX_LOG(LogInfo, 182, L"Set delay: %d \xFF0Cresp:%d", static_cast<int>(value), code);
  return code;
}

// Not called by the plug-in. Starts sensing whatever `value` is; the value is
// only logged.
std::int32_t SetFusionActive(std::int32_t value) {
  const std::int32_t code = StartFusion(nullptr, 1);
  QX_LOG(LogInfo, 188, L"SetFusionActive tof_set_status %d", value);
  return code;
}

// ---------------------------------------------------------------------------
// Set-up and tear-down

std::int32_t attention_init() {
  Fusion_service_check();
  // Every set-up restarts the service, also when the check found it running.
  Fusion_service_restart();

  std::int32_t code = InitFusion();
  QX_LOG(LogInfo, 229, L"attention_init initfusion %x", code);
  // One retry, on exactly this code only.
  if (code == kInitRetryCode) {
    Sleep(kInitRetryPauseMs);
    code = InitFusion();
    QX_LOG(LogInfo, 234, L"attention_init initfusion2 %x", code);
  }
  if (code != 0) return 0;

  RegisterSensorDataCallback(attention_status_changed, &g_lastAttentionStatus);
  return 1;
}

// Flags, the event function and the registration stay as they are.
std::int32_t attention_un_init() {
  const std::int32_t code = UnInitial();
  QX_LOG(LogInfo, 250, L"attention_un_init %x", code);
  return code;
}

// ---------------------------------------------------------------------------
// Start, stop, enable

std::int32_t attention_start() {
  g_startLock.Enter();
  std::int32_t result;
  QX_LOG(LogInfo, 258, L"attention_start begin w:%d e:%d", g_attentionWorking, g_attentionEnabled);
  if (g_attentionEnabled == 0) {
    QX_LOG(LogWarning, 261, L"attention_start st %d , for enable %d", g_attentionWorking, 0);
    result = -1;
  } else {
    result = StartFusion(nullptr, 1);
    QX_LOG(LogInfo, 265, L"SetFusionActive 1");
    // A failed start still counts as working: the next stop must be sent.
    g_attentionWorking = 1;
    QX_LOG(LogInfo, 267, L"tof_start end%d", result);
  }
  g_startLock.Leave();
  return result;
}

// Deliberately neither locked nor gated by the enable flag: stopping must
// always be possible.
std::int32_t attention_stop() {
  const std::int32_t code = StartFusion(nullptr, 0);
  g_attentionWorking = 0;
  QX_LOG(LogInfo, 276, L"attention_stop =%d SetFusionActive %d", code, 0);
  return code;
}

// Decides the next attention_start only; sensing is neither started nor stopped.
std::int32_t attention_set_enable(std::int32_t value) {
  QX_LOG(LogInfo, 283, L"attention_set_enable %d", value);
  g_attentionEnabled = value > 0 ? 1 : 0;
  return 0;
}

std::int32_t attention_set_callback(AttentionEventFn callback) {
  g_statusCallback = callback;
  return 0;
}

// ---------------------------------------------------------------------------
// Status changes (the fusion client's event thread)

void attention_status_changed(void* context, std::int32_t id, void* data) {
  const std::uint32_t status = *static_cast<const std::uint32_t*>(data);

  char line[64];
  std::snprintf(line, sizeof(line), "attention_status changed:%u", status);
  PrintLine(line);

  if (status == g_lastAttentionStatus) return;
  PrintLine("attention change");
  g_lastAttentionStatus = status;
  if (status != 0) return;

  PrintLine("attention change 0");
  // The bridge registers its event function only after attention_init has
  // returned and the ability check has run, but the event thread is already
  // running by then: the service can report 0 in between. Calling through an
  // empty slot would crash the host's process on this thread; skipping the
  // call only loses an event that nobody has asked for yet.
  const AttentionEventFn callback = g_statusCallback;
  if (callback) callback(status + 1, g_lastAttentionStatus);
}
