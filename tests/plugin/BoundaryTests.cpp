// The four exports and the action protocol's answers that need no sensor
// fusion service: allocator pair, qx_plugin_init, unknown actions, parameter
// errors and jsoncpp's integer conversion. Each test loads a fresh copy of the
// shipped DLL, so its process-wide state starts as on a host's first call.
#include <gtest/gtest.h>

#include <cstring>
#include <exception>

#include "PluginTestSupport.h"

using namespace qxtest;

namespace {

const std::string kInitialAttention = "{\"cmd\":\"get_attention\",\"delay\":-1,\"status\":-1}\n";
const std::string kError4 = "{\"error_code\":4}\n";
const std::string kErrorParse = "{\"error_code\":-3}\n";
const std::string kErrorRange = "{\"error_code\":1}\n";

int CountingCallback(const char*, const char*, const char*, std::uintptr_t, std::int32_t) { return 0; }

class Boundary : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    DeleteLog();
    ASSERT_TRUE(plugin.Load(kShippedDll));
    ASSERT_EQ(0, plugin.Init(nullptr, CountingCallback));
  }
  void TearDown() override { ResetRegistry(); }

  // The record every action ends with: "resp: " and the response text.
  std::vector<std::string> Responses() { return LogMessages("AttentionPlugin.cpp", 341); }

  Plugin plugin;
};

TEST(Exports, AllocatorPairAndInit) {
  ResetRegistry();
  DeleteLog();
  Plugin plugin;
  ASSERT_TRUE(plugin.Load(kShippedDll));

  // Zero-byte allocations are real, distinct allocations.
  void* a = plugin.New(0);
  void* b = plugin.New(0);
  ASSERT_NE(nullptr, a);
  ASSERT_NE(nullptr, b);
  EXPECT_NE(a, b);
  plugin.Delete(a);
  plugin.Delete(b);
  plugin.Delete(nullptr);  // ignored

  // A host buffer of the size asked for (a size ignored would overrun here).
  char* big = static_cast<char*>(plugin.New(1 << 20));
  ASSERT_NE(nullptr, big);
  std::memset(big, 0x5a, 1 << 20);
  plugin.Delete(big);

  // qx_plugin_init answers 0 whatever it is given, a null callback included,
  // and each call sets the log up and writes its record at line 170.
  EXPECT_EQ(0, plugin.Init(nullptr, nullptr));
  EXPECT_EQ(0, plugin.Init(reinterpret_cast<void*>(0xdeadbeef), CountingCallback));
  EXPECT_EQ((std::vector<std::string>{" attention plugin init... ", " attention plugin init... "}),
            LogMessages("AttentionPlugin.cpp", 170));
  // Nothing else happened: no registry value was written.
  EXPECT_FALSE(GetUserDword(L"attention_state"));
  EXPECT_FALSE(GetUserDword(L"attention_delay"));
}

TEST_F(Boundary, UnknownActionNamesAnswerError4) {
  // Whole-string, case-sensitive comparison; the parameters are never read,
  // so a null pointer is fine.
  const char* names[] = {"Init", "init ", " init", "", "get_attention2", "get", "close\t"};
  for (const char* name : names) {
    std::size_t bytes = 0;
    EXPECT_EQ(kError4, plugin.Action(name, nullptr, &bytes)) << "\"" << name << "\"";
    EXPECT_EQ(kError4.size() + 1, bytes);
  }
  // Every unknown action still logs its response and changes nothing.
  EXPECT_EQ(std::size(names), Responses().size());
  for (const std::string& r : Responses()) EXPECT_EQ("resp: " + kError4, r);
  EXPECT_EQ(kInitialAttention, plugin.Action("get_attention", nullptr));
}

TEST_F(Boundary, GetAttentionBeforeAnythingAnswersMinusOne) {
  std::size_t bytes = 0;
  EXPECT_EQ(kInitialAttention, plugin.Action("get_attention", "ignored {", &bytes));
  EXPECT_EQ(kInitialAttention.size() + 1, bytes);
  // Read-only: it loads nothing and writes nothing.
  EXPECT_EQ(kInitialAttention, plugin.Action("get_attention", nullptr));
  EXPECT_FALSE(GetUserDword(L"attention_state"));
  EXPECT_FALSE(GetUserDword(L"attention_delay"));
  EXPECT_EQ((std::vector<std::string>{"resp: " + kInitialAttention, "resp: " + kInitialAttention}),
            Responses());
}

struct ErrorCase {
  const char* action;
  std::string params;
  std::string response;
  int line;             // the record that explains the error
  std::string message;  // its text
};

TEST_F(Boundary, ParameterErrorsAnswerMinus3Or1AndChangeNothing) {
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  const std::string deepInside = "{\"F4010\":" + std::string(3000, '[') + std::string(3000, ']') + "}";
  const ErrorCase cases[] = {
      // Unreadable text or a document that is not an object.
      {"set_attention_status", "", kErrorParse, 254, "reader.parse error"},
      {"set_attention_status", "{\"F4010\":{\"status\":2}", kErrorParse, 254, "reader.parse error"},
      {"set_attention_status", "[{\"F4010\":{\"status\":2}}]", kErrorParse, 254, "reader.parse error"},
      // So deep that the reader itself gives up by throwing.
      {"set_attention_status", deep, kErrorParse, 254, "reader.parse error"},
      {"set_attention_status", deepInside, kErrorParse, 254, "reader.parse error"},
      // "F4010" missing (names are case-sensitive) or not an object.
      {"set_attention_status", "{\"f4010\":{\"status\":2}}", kErrorParse, 261, "reader.parse error"},
      {"set_attention_status", "{\"F4010\":[1]}", kErrorParse, 261, "reader.parse error"},
      {"set_attention_status", "{\"F4010\":2}", kErrorParse, 261, "reader.parse error"},
      // Out of range: only 1 and 2 are accepted; missing and null read as 0,
      // fractions are cut toward zero.
      {"set_attention_status", "{\"F4010\":{}}", kErrorRange, 268, "invalid status value: 0"},
      {"set_attention_status", "{\"F4010\":{\"status\":null}}", kErrorRange, 268, "invalid status value: 0"},
      {"set_attention_status", "{\"F4010\":{\"status\":0}}", kErrorRange, 268, "invalid status value: 0"},
      {"set_attention_status", "{\"F4010\":{\"status\":3}}", kErrorRange, 268, "invalid status value: 3"},
      {"set_attention_status", "{\"F4010\":{\"status\":0.9}}", kErrorRange, 268, "invalid status value: 0"},
      // The same for the delay, with its own lines; 10..60 only.
      {"set_attention_delay", "[]", kErrorParse, 294, "reader.parse error"},
      {"set_attention_delay", "{\"F4010\":null}", kErrorParse, 301, "reader.parse error"},
      {"set_attention_delay", "{\"F4010\":{}}", kErrorRange, 308, "invalid delay value: 0"},
      {"set_attention_delay", "{\"F4010\":{\"delay\":9}}", kErrorRange, 308, "invalid delay value: 9"},
      {"set_attention_delay", "{\"F4010\":{\"delay\":61}}", kErrorRange, 308, "invalid delay value: 61"},
      {"set_attention_delay", "{\"F4010\":{\"delay\":9.99}}", kErrorRange, 308, "invalid delay value: 9"},
  };
  for (const ErrorCase& c : cases) {
    DeleteLog();
    const std::string shown = c.params.size() > 60 ? c.params.substr(0, 60) + "..." : c.params;
    EXPECT_EQ(c.response, plugin.Action(c.action, c.params.c_str())) << c.action << " " << shown;
    EXPECT_EQ(std::vector<std::string>{c.message}, LogMessages("AttentionPlugin.cpp", c.line))
        << c.action << " " << shown;
    EXPECT_EQ(std::vector<std::string>{"resp: " + c.response}, Responses()) << shown;
    // No state change: status and delay stay unloaded, nothing persisted.
    EXPECT_EQ(kInitialAttention, plugin.Action("get_attention", nullptr)) << shown;
  }
  EXPECT_FALSE(GetUserDword(L"attention_state"));
  EXPECT_FALSE(GetUserDword(L"attention_delay"));
}

TEST_F(Boundary, UnconvertibleMemberRaisesJsoncppException) {
  // jsoncpp's conversion exception is not caught by the plug-in: it reaches
  // the host, and no response is built, logged or handed over.
  const char* cases[][3] = {
      {"set_attention_status", "{\"F4010\":{\"status\":\"2\"}}", "Value is not convertible to Int."},
      {"set_attention_status", "{\"F4010\":{\"status\":[2]}}", "Value is not convertible to Int."},
      {"set_attention_status", "{\"F4010\":{\"status\":4294967296}}", "out of Int range"},
      {"set_attention_delay", "{\"F4010\":{\"delay\":\"30\"}}", "Value is not convertible to Int."},
  };
  for (const auto& c : cases) {
    DeleteLog();
    char* result = reinterpret_cast<char*>(static_cast<std::uintptr_t>(0xdeadbeef));
    std::string what = "<nothing thrown>";
    try {
      plugin.RawAction(c[0], c[1], &result);
    } catch (const std::exception& e) {
      what = e.what();
    }
    EXPECT_NE(std::string::npos, what.find(c[2])) << c[1] << ": " << what;
    EXPECT_EQ(reinterpret_cast<char*>(static_cast<std::uintptr_t>(0xdeadbeef)), result) << c[1];
    EXPECT_TRUE(Responses().empty()) << c[1];
  }
  EXPECT_EQ(kInitialAttention, plugin.Action("get_attention", nullptr));
  EXPECT_FALSE(GetUserDword(L"attention_state"));
}

TEST_F(Boundary, SetActionsBeforeAnyLoadTreatAttentionAsUnsupported) {
  // Nothing has asked for the ability yet, so g_ability is 0: the status is
  // stored and answered as 0, the delay is refused by the device check.
  EXPECT_EQ("{\"cmd\":\"get_attention\",\"delay\":-1,\"status\":0}\n",
            plugin.Action("set_attention_status", "{\"F4010\":{\"status\":2}}"));
  EXPECT_EQ(std::vector<std::string>{"current device not support attention,set parameter_status fail."},
            LogMessages("AttentionPlugin.cpp", 275));
  EXPECT_TRUE(LogMessages("AttentionPlugin.cpp", 281).empty());
  EXPECT_TRUE(LogMessages("AttentionInfo.cpp", 57).empty()) << "the controller must not be called";
  DWORD type = 0;
  EXPECT_EQ(std::optional<DWORD>(0), GetUserDword(L"attention_state", &type));
  EXPECT_EQ(static_cast<DWORD>(REG_DWORD), type);

  for (int delay : {10, 60}) {
    DeleteLog();
    const std::string params = "{\"F4010\":{\"delay\":" + std::to_string(delay) + "}}";
    EXPECT_EQ("{\"cmd\":\"get_attention\",\"delay\":-1,\"status\":0}\n",
              plugin.Action("set_attention_delay", params.c_str()));
    EXPECT_EQ(std::vector<std::string>{"delay value: " + std::to_string(delay)},
              LogMessages("AttentionPlugin.cpp", 312));
    EXPECT_EQ(std::vector<std::string>{"current device not support attention,set parameter_delay fail."},
              LogMessages("AttentionPlugin.cpp", 316));
  }
  EXPECT_FALSE(GetUserDword(L"attention_delay"));
}

}  // namespace
