// Persistence of the attention status and delay, and the telemetry report.
// Records carry the source name of the action protocol they belong to.
#include <windows.h>

#include <string>

#include "ActionParams.h"
#include "AttentionInfo.h"
#include "AttentionPlugin.h"
#include "Logger.h"

namespace {
constexpr wchar_t kLogSource[] = L"AttentionPlugin.cpp";
constexpr wchar_t kAttentionKey[] = L"SOFTWARE\\Vantoq\\Quillomatic";
constexpr wchar_t kStateValue[] = L"attention_state";
constexpr wchar_t kDelayValue[] = L"attention_delay";
constexpr std::uint32_t kDefaultDelay = 10;

// What the registry last gave; a failed read leaves the previous value, which
// the load record then shows (-1 before any successful read).
std::int32_t g_stored_status = -1;
std::int32_t g_stored_delay = -1;
}  // namespace

int read_attention_value(const wchar_t* name, std::uint32_t* out) {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, kAttentionKey, 0, KEY_READ, &key) != ERROR_SUCCESS) return 0;
  DWORD value = 0;
  DWORD size = sizeof(value);
  // The stored type is not checked: any 4-byte value reads as a number.
  const LONG rc =
      RegQueryValueExW(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size);
  RegCloseKey(key);
  if (rc != ERROR_SUCCESS) return 0;
  *out = value;
  return 1;
}

int write_attention_value(const wchar_t* name, std::uint32_t value) {
  HKEY key = nullptr;
  if (RegCreateKeyExW(HKEY_CURRENT_USER, kAttentionKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                      &key, nullptr) != ERROR_SUCCESS)
    return 0;
  const DWORD data = value;
  const LONG rc =
      RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&data), sizeof(data));
  if (rc == ERROR_SUCCESS) RegFlushKey(key);
  RegCloseKey(key);
  return rc == ERROR_SUCCESS ? 1 : 0;
}

void load_attention_state(LoadForm form) {
  const bool init = form == LoadForm::Init;
  if (init) {
    g_ability = static_cast<std::uint32_t>(setup_attention_client());
    QX_LOG(LogInfo, 193, L"ability: %d", g_ability);
  } else {
    g_ability = static_cast<std::uint32_t>(check_attention_ability());
    QX_LOG(LogInfo, 72, L"ability: %d", g_ability);
  }

  const bool statusRead =
      read_attention_value(kStateValue, reinterpret_cast<std::uint32_t*>(&g_stored_status)) != 0;
  const bool delayRead =
      read_attention_value(kDelayValue, reinterpret_cast<std::uint32_t*>(&g_stored_delay)) != 0;
  QX_LOG(LogInfo, init ? 196 : 75, L"register attention status: %d, register attention delay:%d ",
         g_stored_status, g_stored_delay);

  if (g_ability == 0) {
    // Not supported: the stored status is overwritten at every load.
    g_status = 0;
    write_attention_value(kStateValue, 0);
  } else if (!statusRead) {
    g_status = 1;
    write_attention_value(kStateValue, 1);
  } else {
    g_status = g_stored_status;  // taken as stored, without a range check
  }

  if (!delayRead) {
    g_stored_delay = kDefaultDelay;
    g_delay = kDefaultDelay;
    write_attention_value(kDelayValue, kDefaultDelay);
  } else {
    g_delay = g_stored_delay;  // taken as stored, without a range check
  }
  g_state_loaded = 1;
}

int attention_divert_handler(std::uint32_t event) {
  if (event == 1) {
    activeBigDataReport();
    QX_LOG(LogInfo, 34, L"Find attention divertd in effect");
  }
  return 0;
}

int activeBigDataReport() {
  const std::string payload = build_bigdata_payload();
  // Called on the attention event thread. The callback is not checked for
  // null: the host must have called qx_plugin_init first.
  g_host_callback("BIGDATA", "BIGDATA", payload.c_str(), 0, 0);
  QX_LOG(LogInfo, 49, L"activeBigDataReport  SA0004");
  return 0;
}
