// libFuzzer target: the parameters of the two "set_" actions and the action
// names. The input is the parameter text the host hands over (an embedded
// zero ends it, as at the boundary). For "status" and "delay" it goes through
// what the action does (read the document, check "F4010", convert the member,
// check the range, build the response), compared with jsoncpp's own reading.
// A member jsoncpp cannot convert to an integer raises Json::LogicError, which
// the plug-in lets go to the host on purpose: expected then, and only then.
#include <json/json.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "ActionParams.h"
#include "FuzzCheck.h"

namespace {

constexpr int kPoison = static_cast<int>(0xDEADBEEFu);

// What reading `member` must give, from jsoncpp's rules for asInt: null (or
// missing) 0, true 1, false 0, integers and truncated reals within 32 bits;
// anything else throws.
struct Expected {
  ParamRead read = ParamRead::DocumentInvalid;
  bool throws = false;
  int value = 0;
};

Expected ReadIndependently(const char* params, const char* member) {
  Expected e;
  Json::Value root;
  try {
    if (!Json::Reader().parse(params, params + std::strlen(params), root, true) || !root.isObject())
      return e;
  } catch (const Json::RuntimeError&) {
    return e;  // nesting deeper than the reader's stack limit
  }
  const Json::Value& section = static_cast<const Json::Value&>(root)["F4010"];
  e.read = section.isObject() ? ParamRead::Ok : ParamRead::SectionInvalid;
  const Json::Value& v = section.isObject() ? section[member] : section;
  double number = 0;
  if (v.isNull() || v.isBool()) number = v.isBool() && v.asBool();
  if (v.isNumeric()) number = v.asDouble();  // exact for every integer within 32 bits
  const bool fits =
      number >= static_cast<double>(INT_MIN) && number <= static_cast<double>(INT_MAX);
  e.throws = e.read == ParamRead::Ok && (v.isString() || v.isArray() || v.isObject() || !fits);
  // Converted only when it fits: a section that is itself a huge number is read
  // as "no section", and its value is never used.
  e.value = e.throws || !fits ? 0 : static_cast<int>(number);
  return e;
}

// One "set_" action over `params`: `member` is "status" or "delay", `other`
// the value of the other one in the response.
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
  if (threw) return CHECK(value == kPoison);
  CHECK(read == expected.read);
  if (read != ParamRead::Ok)
    return CHECK(value == kPoison && build_error_response(-3) == "{\"error_code\":-3}\n");
  CHECK(value == expected.value);
  CHECK(in_range(value) == (value >= low && value <= high));
  if (!in_range(value)) return CHECK(build_error_response(1) == "{\"error_code\":1}\n");
  // The accepted value is what the response then carries.
  const bool status = std::strcmp(member, "status") == 0;
  CHECK(build_attention_response(status ? value : other, status ? other : value) ==
        "{\"cmd\":\"get_attention\",\"delay\":" + std::to_string(status ? other : value) +
            ",\"status\":" + std::to_string(status ? value : other) + "}\n");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An exact-size heap copy with its terminating zero: a read past the zero is
  // an AddressSanitizer report.
  std::unique_ptr<char[]> params(new char[size + 1]);
  std::memcpy(params.get(), data, size);
  params[size] = '\0';
  RunSetAction(params.get(), "status", status_in_range, 1, 2, 45);
  RunSetAction(params.get(), "delay", delay_in_range, 10, 60, -1);

  // The same text as an action name: only the six exact names are known.
  const char* const known[] = {
      "ability", "init", "close", "get_attention", "set_attention_status", "set_attention_delay"};
  PluginActionKind expected = PluginActionKind::Unknown;
  for (std::size_t i = 0; i < 6; ++i)
    if (std::strcmp(params.get(), known[i]) == 0) expected = static_cast<PluginActionKind>(i);
  CHECK(classify_action(params.get()) == expected);
  return 0;
}
