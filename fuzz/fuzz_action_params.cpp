// libFuzzer target: the parameter handling of the two "set_" actions and the
// response documents.
//
// The input is the parameter text the host hands over (zero-terminated: an
// embedded zero ends it, as it would at the boundary). For each of the members
// "status" and "delay" it goes through what the action does: read the
// document, check "F4010", convert the member, check the range, build the
// response. The outcome is compared with what jsoncpp's own reading of the same
// text says it must be, and every response must read back as the JSON it was
// built from.
//
// A member jsoncpp cannot convert to an integer raises Json::LogicError; the
// plug-in lets that exception go to the host on purpose, so here it is the
// expected outcome (and only then). Any other exception or crash surfaces.
#include "ActionParams.h"

#include <json/json.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

#define CHECK(cond)                                                                         \
  do {                                                                                      \
    if (!(cond)) {                                                                          \
      std::fprintf(stderr, "fuzz_action_params.cpp:%d: check failed: %s\n", __LINE__, #cond); \
      std::abort();                                                                         \
    }                                                                                       \
  } while (0)

constexpr int kPoison = static_cast<int>(0xDEADBEEFu);

// What reading `member` must give, from jsoncpp's rules for asInt: null (or
// missing) 0, true 1, false 0, integers within 32 bits as they are, real
// numbers within 32 bits truncated; anything else throws.
struct Expected {
  ParamRead read = ParamRead::DocumentInvalid;
  bool throws = false;
  int value = 0;
};

Expected ReadIndependently(const char* params, const char* member) {
  Expected e;
  Json::Value root;
  bool parsed = false;
  try {
    Json::Reader reader;
    parsed = reader.parse(params, params + std::strlen(params), root, true);
  } catch (const Json::RuntimeError&) {
    parsed = false;  // nesting deeper than the reader's stack limit
  }
  if (!parsed || !root.isObject()) return e;
  const Json::Value& section = static_cast<const Json::Value&>(root)["F4010"];
  if (!section.isObject()) {
    e.read = ParamRead::SectionInvalid;
    return e;
  }
  e.read = ParamRead::Ok;
  const Json::Value& v = section[member];
  switch (v.type()) {
    case Json::nullValue:
      e.value = 0;
      break;
    case Json::booleanValue:
      e.value = v.asBool() ? 1 : 0;
      break;
    case Json::intValue: {
      const Json::LargestInt n = v.asLargestInt();
      e.throws = n < INT_MIN || n > INT_MAX;
      e.value = e.throws ? 0 : static_cast<int>(n);
      break;
    }
    case Json::uintValue: {
      const Json::LargestUInt n = v.asLargestUInt();
      e.throws = n > static_cast<Json::LargestUInt>(INT_MAX);
      e.value = e.throws ? 0 : static_cast<int>(n);
      break;
    }
    case Json::realValue: {
      const double d = v.asDouble();
      e.throws = !(d >= static_cast<double>(INT_MIN) && d <= static_cast<double>(INT_MAX));
      e.value = e.throws ? 0 : static_cast<int>(d);
      break;
    }
    default:  // string, array, object
      e.throws = true;
      break;
  }
  return e;
}

// Reads a response back; it must be one JSON object followed by exactly one
// line feed.
Json::Value ReadBack(const std::string& text) {
  CHECK(text.size() >= 3 && text.back() == '\n' && text[text.size() - 2] != '\n');
  Json::Value doc;
  Json::Reader reader;
  CHECK(reader.parse(text, doc, false));
  CHECK(doc.isObject());
  return doc;
}

void CheckErrorResponse(int code) {
  const std::string text = build_error_response(code);
  CHECK(text == "{\"error_code\":" + std::to_string(code) + "}\n");
  const Json::Value doc = ReadBack(text);
  CHECK(doc.size() == 1 && doc["error_code"].isInt() && doc["error_code"].asInt() == code);
}

void CheckAttentionResponse(std::int32_t status, std::int32_t delay) {
  const std::string text = build_attention_response(status, delay);
  CHECK(text == "{\"cmd\":\"get_attention\",\"delay\":" + std::to_string(delay) +
                    ",\"status\":" + std::to_string(status) + "}\n");
  const Json::Value doc = ReadBack(text);
  CHECK(doc.size() == 3 && doc["cmd"].asString() == "get_attention");
  CHECK(doc["delay"].isInt() && doc["delay"].asInt() == delay);
  CHECK(doc["status"].isInt() && doc["status"].asInt() == status);
}

void CheckAbilityResponse(std::uint32_t ability, std::int32_t status, std::int32_t delay) {
  const std::string text = build_ability_response(ability, status, delay);
  CHECK(text == "{\"ability\":" + std::to_string(ability) + ",\"id\":\"F4010\",\"items\":{\"delay\":" +
                    std::to_string(delay) + ",\"status\":" + std::to_string(status) +
                    "},\"plugin\":\"Attention\"}\n");
  const Json::Value doc = ReadBack(text);
  CHECK(doc.size() == 4 && doc["ability"].asLargestUInt() == ability && doc["id"].asString() == "F4010");
  CHECK(doc["items"].isObject() && doc["items"].size() == 2);
  CHECK(doc["items"]["delay"].asInt() == delay && doc["items"]["status"].asInt() == status);
  CHECK(doc["plugin"].asString() == "Attention");
}

// One "set_" action over `params`: `member` is "status" or "delay".
void RunSetAction(const char* params, const char* member, bool (*in_range)(int), int low, int high,
                  std::int32_t other) {
  const Expected expected = ReadIndependently(params, member);

  int value = kPoison;
  ParamRead read = ParamRead::DocumentInvalid;
  bool threw = false;
  try {
    read = read_feature_member(params, member, &value);
  } catch (const Json::LogicError&) {
    threw = true;  // what the plug-in lets reach the host
  }
  CHECK(threw == expected.throws);
  if (threw) {
    CHECK(value == kPoison);
    return;
  }
  CHECK(read == expected.read);
  if (read != ParamRead::Ok) {
    CHECK(value == kPoison);  // left untouched
    CheckErrorResponse(-3);
    return;
  }
  CHECK(value == expected.value);
  if (!in_range(value)) {
    CHECK(value < low || value > high);
    CheckErrorResponse(1);
    return;
  }
  CHECK(value >= low && value <= high);
  // The accepted value is what the response then carries.
  if (std::strcmp(member, "status") == 0)
    CheckAttentionResponse(value, other);
  else
    CheckAttentionResponse(other, value);
}

std::int32_t Word(const std::uint8_t* data, std::size_t size, std::size_t at) {
  std::uint32_t w = 0;
  for (std::size_t i = 0; i < 4; ++i) w = (w << 8) | (at + i < size ? data[at + i] : 0u);
  return static_cast<std::int32_t>(w);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An exact-size heap copy with its terminating zero: a read past the zero is
  // an AddressSanitizer report.
  std::unique_ptr<char[]> params(new char[size + 1]);
  std::memcpy(params.get(), data, size);
  params[size] = '\0';

  RunSetAction(params.get(), "status", status_in_range, 1, 2, Word(data, size, 0));
  RunSetAction(params.get(), "delay", delay_in_range, 10, 60, Word(data, size, 4));

  // The same text as an action name: only the six exact names are known.
  const std::string name(params.get());
  const PluginActionKind kind = classify_action(name);
  const char* const known[] = {"ability", "init", "close", "get_attention", "set_attention_status",
                               "set_attention_delay"};
  bool is_known = false;
  for (std::size_t i = 0; i < 6; ++i) {
    if (name == known[i]) {
      CHECK(kind == static_cast<PluginActionKind>(i));
      is_known = true;
    }
  }
  if (!is_known) CHECK(kind == PluginActionKind::Unknown);

  // Response documents over the whole value range, values drawn from the input.
  CheckAbilityResponse(static_cast<std::uint32_t>(Word(data, size, 8)), Word(data, size, 0),
                       Word(data, size, 4));
  CheckAttentionResponse(Word(data, size, 4), Word(data, size, 0));
  CheckErrorResponse(Word(data, size, 12));
  return 0;
}
