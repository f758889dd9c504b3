// libFuzzer target: the input as the two "set_" actions' parameters (up to a
// zero, as at the boundary) and as an action name. Only Json::LogicError, let go
// to the host on purpose, may escape.
#include <json/json.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "ActionParams.h"
#include "FuzzCheck.h"

namespace {

constexpr int kPoison = static_cast<int>(0xDEADBEEFu);

// One "set_" action over `params`, as the plug-in runs it.
void RunSetAction(const char* params, const char* member, bool (*in_range)(int), int low,
                  int high) {
  int value = kPoison;
  ParamRead read = ParamRead::DocumentInvalid;
  try {
    read = read_feature_member(params, member, &value);
  } catch (const Json::LogicError&) {
    return CHECK(value == kPoison);  // what the plug-in lets reach the host
  }
  if (read != ParamRead::Ok) return CHECK(value == kPoison);
  CHECK(in_range(value) == (value >= low && value <= high));
  Json::Value answer;
  CHECK(Json::Reader().parse(build_attention_response(value, ~value), answer) &&
        answer["status"].asInt() == value && answer["delay"].asInt() == ~value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An exact-size heap copy: a read past its zero is an AddressSanitizer report.
  std::unique_ptr<char[]> params(new char[size + 1]);
  std::memcpy(params.get(), data, size);
  params[size] = '\0';
  RunSetAction(params.get(), "status", status_in_range, 1, 2);
  RunSetAction(params.get(), "delay", delay_in_range, 10, 60);

  // As an action name: only the six exact names are known.
  const char* const known[] = {
      "ability", "init", "close", "get_attention", "set_attention_status", "set_attention_delay"};
  PluginActionKind expected = PluginActionKind::Unknown;
  for (std::size_t i = 0; i < 6; ++i)
    if (std::strcmp(params.get(), known[i]) == 0) expected = static_cast<PluginActionKind>(i);
  CHECK(classify_action(params.get()) == expected);
  return 0;
}
