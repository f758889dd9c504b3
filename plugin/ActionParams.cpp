#include "ActionParams.h"

#include <json/json.h>

#include <cstring>
#include <exception>

#include "qx_plugin.h"

PluginActionKind classify_action(const std::string& name) {
  if (name == QX_ACTION_ABILITY) return PluginActionKind::Ability;
  if (name == QX_ACTION_INIT) return PluginActionKind::Init;
  if (name == QX_ACTION_CLOSE) return PluginActionKind::Close;
  if (name == QX_ACTION_GET_ATTENTION) return PluginActionKind::GetAttention;
  if (name == QX_ACTION_SET_ATTENTION_STATUS) return PluginActionKind::SetAttentionStatus;
  if (name == QX_ACTION_SET_ATTENTION_DELAY) return PluginActionKind::SetAttentionDelay;
  return PluginActionKind::Unknown;
}

ParamRead read_feature_member(const char* params, const char* member, int* value) {
  Json::Value root;
  bool parsed = false;
  try {
    Json::Reader reader;
    parsed = reader.parse(params, params + std::strlen(params), root, true);
  } catch (const std::exception&) {
    // The reader gives up on very deep nesting by throwing; for the host that
    // is just unreadable parameters.
    parsed = false;
  }
  if (!parsed || !root.isObject()) return ParamRead::DocumentInvalid;

  const Json::Value section = root[QX_FEATURE_ID];
  if (!section.isObject()) return ParamRead::SectionInvalid;

  // Deliberately outside any try block: an unconvertible member raises
  // jsoncpp's conversion exception to the caller.
  *value = section[member].asInt();
  return ParamRead::Ok;
}

bool status_in_range(int status) { return static_cast<unsigned>(status) - 1u <= 1u; }

bool delay_in_range(int delay) { return static_cast<unsigned>(delay) - 10u <= 50u; }

std::string build_ability_response(std::uint32_t ability, std::int32_t status, std::int32_t delay) {
  Json::Value items;
  items["delay"] = delay;
  items["status"] = status;
  Json::Value response;
  response["ability"] = static_cast<Json::UInt>(ability);
  response["id"] = QX_FEATURE_ID;
  response["items"] = items;
  response["plugin"] = "Attention";
  return Json::FastWriter().write(response);
}

std::string build_attention_response(std::int32_t status, std::int32_t delay) {
  Json::Value response;
  response["cmd"] = "get_attention";
  response["delay"] = delay;
  response["status"] = status;
  return Json::FastWriter().write(response);
}

std::string build_error_response(int code) {
  Json::Value response;
  response["error_code"] = code;
  return Json::FastWriter().write(response);
}

std::string build_bigdata_payload() {
  Json::Value payload;
  payload["action"] = "SA0004";
  payload["type"] = "Report";
  return Json::FastWriter().write(payload);
}
