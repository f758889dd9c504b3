// The JSON side of the action protocol: action names, reading the parameter
// document, the range checks and the response documents. No Windows API and
// no plug-in state here, so that this unit also builds natively (tests,
// sanitizers, fuzzing).
#pragma once

#include <cstdint>
#include <string>

// The actions, in the order the names are compared.
enum class PluginActionKind {
  Ability,             // "ability"
  Init,                // "init"
  Close,               // "close"
  GetAttention,        // "get_attention"
  SetAttentionStatus,  // "set_attention_status"
  SetAttentionDelay,   // "set_attention_delay"
  Unknown,             // any other name, the empty one included
};

// Whole-string, case-sensitive comparison: "Init" and "init " are unknown.
PluginActionKind classify_action(const std::string& name);

// Outcome of reading a parameter document of the "set_" actions.
enum class ParamRead {
  Ok,               // the member was read
  DocumentInvalid,  // unparsable text, or the document is not an object
  SectionInvalid,   // its member "F4010" is not an object
};

// Reads `params` (zero-terminated JSON text, must not be null) with
// Json::Reader, comments collected, and then {"F4010":{member: n}}. On Ok,
// `*value` is jsoncpp's integer conversion of the member (a missing member or
// null reads 0, true 1, a real number is truncated); otherwise `*value` is left
// untouched. A member that jsoncpp cannot convert (a string, array, object, or
// a number outside the 32-bit range) throws Json::LogicError, which is left to
// propagate. A document nested so deeply that the reader itself throws counts
// as DocumentInvalid.
ParamRead read_feature_member(const char* params, const char* member, int* value);

// 1 (off) and 2 (on) are the statuses the host may set.
bool status_in_range(int status);
// 10 to 60, both inclusive.
bool delay_in_range(int delay);

// Response documents, written by Json::FastWriter with its default settings
// (members in key order, one trailing line feed).
std::string build_ability_response(std::uint32_t ability, std::int32_t status, std::int32_t delay);
std::string build_attention_response(std::int32_t status, std::int32_t delay);
std::string build_error_response(int code);

// The telemetry payload {"action":"SA0004","type":"Report"} with its line feed.
std::string build_bigdata_payload();
