#include "AttentionPlugin.h"

#include <json/json.h>

#include <cstring>
#include <string>

#include "Logger.h"

namespace {
constexpr wchar_t kLogSource[] = L"AttentionPlugin.cpp";

std::wstring Widen(const std::string& text) {
  if (text.empty()) return std::wstring();
  const int length = MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length > 0 ? length : 0), L'\0');
  if (length > 0)
    MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
  return wide;
}

std::string build_error_response(int code) {
  Json::Value response;
  response["error_code"] = code;
  return Json::FastWriter().write(response);
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

int PluginAction(const char* action, const char* params, char** result) {
  const std::string name(action);
  std::string response = build_error_response(4);

  QX_LOG(LogInfo, 341, L"resp: %s", Widen(response).c_str());
  char* buffer = static_cast<char*>(PluginAllocate(static_cast<int>(response.size() + 1)));
  std::memcpy(buffer, response.c_str(), response.size() + 1);
  *result = buffer;
  return 0;
}
