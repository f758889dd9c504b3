// The plug-in boundary: process-wide state, the allocator pair, initialisation
// and the action protocol.
#include "AttentionPlugin.h"

#include <windows.h>

#include <cstring>
#include <string>

#include "ActionParams.h"
#include "AttentionFuntion.h"
#include "AttentionInfo.h"
#include "Logger.h"

namespace {
constexpr wchar_t kLogSource[] = L"AttentionPlugin.cpp";
constexpr wchar_t kStateValue[] = L"attention_state";
constexpr wchar_t kDelayValue[] = L"attention_delay";

std::wstring Widen(const std::string& text) {
  if (text.empty()) return std::wstring();
  const int length =
      MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length > 0 ? length : 0), L'\0');
  if (length > 0)
    MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
  return wide;
}

std::string RunInit() {
  QX_LOG(LogInfo, 188, L" attention action: init ");
  // The handler goes in before the set-up registers the event function, so an
  // event never finds it missing.
  set_attention_event_handler(attention_divert_handler);
  load_attention_state(LoadForm::Init);

  set_attention_enable(g_status > 0 ? 1 : 0);
  if (g_status > 0) {
    set_attention_ctrl(g_status);
    const int rc = attention_set_delay(g_delay);
    if (rc != 0) QX_LOG(LogInfo, 233, L" set attention delay fail: %d,", rc);
  }
  QX_LOG(LogInfo, 236, L" attention status: %d, attention delay:%d ", g_status, g_delay);
  return std::string();
}

std::string RunClose() {
  attention_un_init();
  QX_LOG(LogInfo, 241, L"close attention client.");
  return std::string();
}

std::string RunSetStatus(const char* params) {
  int status = 0;
  switch (read_feature_member(params, "status", &status)) {
    case ParamRead::DocumentInvalid:
      QX_LOG(LogInfo, 254, L"reader.parse error");
      return build_error_response(QX_ERROR_BAD_PARAMS);
    case ParamRead::SectionInvalid:
      QX_LOG(LogInfo, 261, L"reader.parse error");
      return build_error_response(QX_ERROR_BAD_PARAMS);
    case ParamRead::Ok:
      break;
  }
  if (!status_in_range(status)) {
    QX_LOG(LogInfo, 268, L"invalid status value: %d", status);
    return build_error_response(QX_ERROR_OUT_OF_RANGE);
  }

  int newStatus = 0;
  if (g_ability != 0) {
    set_attention_ctrl(status);
    QX_LOG(LogInfo, 281, L"status value: %d", status);
    newStatus = status;
  } else {
    // From the host's view this still succeeds: status 0 is stored and answered.
    QX_LOG(LogInfo, 275, L"current device not support attention,set parameter_status fail.");
  }
  g_status = newStatus;
  write_attention_value(kStateValue, static_cast<std::uint32_t>(g_status));
  return build_attention_response(g_status, g_delay);
}

std::string RunSetDelay(const char* params) {
  int delay = 0;
  switch (read_feature_member(params, "delay", &delay)) {
    case ParamRead::DocumentInvalid:
      QX_LOG(LogInfo, 294, L"reader.parse error");
      return build_error_response(QX_ERROR_BAD_PARAMS);
    case ParamRead::SectionInvalid:
      QX_LOG(LogInfo, 301, L"reader.parse error");
      return build_error_response(QX_ERROR_BAD_PARAMS);
    case ParamRead::Ok:
      break;
  }
  if (!delay_in_range(delay)) {
    QX_LOG(LogInfo, 308, L"invalid delay value: %d", delay);
    return build_error_response(QX_ERROR_OUT_OF_RANGE);
  }
  QX_LOG(LogInfo, 312, L"delay value: %d", delay);

  if (g_ability != 0) {
    const int rc = attention_set_delay(delay);
    if (rc != 0) {
      QX_LOG(LogInfo, 329, L"set attention delay fail,resp: %d", rc);
    } else {
      g_delay = delay;
      write_attention_value(kDelayValue, static_cast<std::uint32_t>(g_delay));
      QX_LOG(LogInfo, 325, L"set attention delay success!");
    }
  } else {
    QX_LOG(LogInfo, 316, L"current device not support attention,set parameter_delay fail.");
  }
  return build_attention_response(g_status, g_delay);
}
}  // namespace

HostCallback g_host_callback = nullptr;
std::uint32_t g_ability = 0;
std::uint8_t g_state_loaded = 0;
std::int32_t g_status = -1;
std::int32_t g_delay = -1;

void* PluginAllocate(int size) {
  // Sign-extended: a negative size asks for more than exists and the
  // allocator's failure reaches the host, as for any exhausted allocation.
  return new char[static_cast<std::size_t>(static_cast<std::ptrdiff_t>(size))];
}

void PluginFree(void* buffer) { delete[] static_cast<char*>(buffer); }

int PluginInit(void* /*ignored: the feature id is the constant "F4010"*/, HostCallback callback) {
  Logger::Instance().Setup(L"Quillomatic", L"QXAttentionPlugin.log", 0x100000, 1, 1);
  g_host_callback = callback;
  QX_LOG(LogInfo, 170, L" attention plugin init... ");
  return 0;
}

// The host calls one action at a time; nothing here takes a lock. `action`
// must not be null; `params` is read only by the two "set_" actions, for which
// it must not be null either.
int PluginAction(const char* action, const char* params, char** result) {
  const std::string name(action);
  std::string response;
  switch (classify_action(name)) {
    case PluginActionKind::Ability:
      if (!g_state_loaded) load_attention_state(LoadForm::Ability);
      response = build_ability_response(g_ability, g_status, g_delay);
      break;
    case PluginActionKind::Init:
      response = RunInit();
      break;
    case PluginActionKind::Close:
      response = RunClose();
      break;
    case PluginActionKind::GetAttention:
      response = build_attention_response(g_status, g_delay);
      break;
    case PluginActionKind::SetAttentionStatus:
      response = RunSetStatus(params);
      break;
    case PluginActionKind::SetAttentionDelay:
      response = RunSetDelay(params);
      break;
    case PluginActionKind::Unknown:
      response = build_error_response(QX_ERROR_UNKNOWN_ACTION);
      break;
  }

  QX_LOG(LogInfo, 341, L"resp: %s", Widen(response).c_str());
  char* buffer = static_cast<char*>(PluginAllocate(static_cast<int>(response.size() + 1)));
  std::memcpy(buffer, response.c_str(), response.size() + 1);
  *result = buffer;
  return 0;
}
