// Loading, defaulting and saving the attention status and delay, without the
// sensor fusion service. The machine-wide ability cache
// (HKLM\SOFTWARE\Vantoq\Quillomatic\attention__ability) decides the ability
// for the "ability" action, so both kinds of machine can be staged here.
#include <gtest/gtest.h>

#include "PluginTestSupport.h"

using namespace qxtest;

namespace {

std::string Ability(int ability, int delay, int status) {
  return "{\"ability\":" + std::to_string(ability) + ",\"id\":\"F4010\",\"items\":{\"delay\":" +
         std::to_string(delay) + ",\"status\":" + std::to_string(status) + "},\"plugin\":\"Attention\"}\n";
}

std::string Attention(int delay, int status) {
  return "{\"cmd\":\"get_attention\",\"delay\":" + std::to_string(delay) +
         ",\"status\":" + std::to_string(status) + "}\n";
}

class State : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    DeleteLog();
  }
  void TearDown() override {
    plugin.Unload();
    ResetRegistry();
  }
  void Load() {
    ASSERT_TRUE(plugin.Load(kShippedDll));
    ASSERT_EQ(0, plugin.Init(nullptr, nullptr));
  }
  Plugin plugin;
};

TEST_F(State, SupportedMachineWithoutValuesStoresDefaults) {
  SetMachineAbility(1);
  Load();
  EXPECT_EQ(Ability(1, 10, 1), plugin.Action("ability", nullptr));
  DWORD type = 0;
  EXPECT_EQ(std::optional<DWORD>(1), GetUserDword(L"attention_state", &type));
  EXPECT_EQ(static_cast<DWORD>(REG_DWORD), type);
  EXPECT_EQ(std::optional<DWORD>(10), GetUserDword(L"attention_delay", &type));
  EXPECT_EQ(static_cast<DWORD>(REG_DWORD), type);
  EXPECT_EQ(std::vector<std::string>{"ability: 1"}, LogMessages("AttentionPlugin.cpp", 72));
  // Nothing could be read: the record shows the variables' initial -1.
  EXPECT_EQ(std::vector<std::string>{"register attention status: -1, register attention delay:-1 "},
            LogMessages("AttentionPlugin.cpp", 75));
  EXPECT_EQ(Attention(10, 1), plugin.Action("get_attention", nullptr));

  // The state is loaded once per process: later registry changes are not seen.
  SetUserValue(L"attention_delay", 44);
  EXPECT_EQ(Ability(1, 10, 1), plugin.Action("ability", nullptr));
  EXPECT_EQ(1u, LogMessages("AttentionPlugin.cpp", 75).size());
}

TEST_F(State, StoredValuesLoadWithoutRangeCheckOrRewrite) {
  SetMachineAbility(1);
  // A delay of 5 and a status of 7 are taken as stored. The status is kept as
  // REG_BINARY of 4 bytes: the type is not checked, and since nothing is
  // written back the type stays as it was.
  SetUserValue(L"attention_delay", 5);
  SetUserValue(L"attention_state", 7, REG_BINARY);
  Load();
  EXPECT_EQ(Ability(1, 5, 7), plugin.Action("ability", nullptr));
  EXPECT_EQ(std::vector<std::string>{"register attention status: 7, register attention delay:5 "},
            LogMessages("AttentionPlugin.cpp", 75));
  DWORD type = 0;
  EXPECT_EQ(std::optional<DWORD>(7), GetUserDword(L"attention_state", &type));
  EXPECT_EQ(static_cast<DWORD>(REG_BINARY), type);
  EXPECT_EQ(std::optional<DWORD>(5), GetUserDword(L"attention_delay"));
}

TEST_F(State, UnsupportedMachineOverwritesStatusAtEveryLoadAndKeepsDelay) {
  SetMachineAbility(0);
  SetUserValue(L"attention_state", 2);
  SetUserValue(L"attention_delay", 33);
  for (int load = 0; load < 2; ++load) {
    Load();
    EXPECT_EQ(Ability(0, 33, 0), plugin.Action("ability", nullptr)) << "load " << load;
    EXPECT_EQ(std::optional<DWORD>(0), GetUserDword(L"attention_state")) << "load " << load;
    EXPECT_EQ(std::optional<DWORD>(33), GetUserDword(L"attention_delay")) << "load " << load;
    plugin.Unload();
    // Someone (another host, an older version) stores a status again.
    SetUserValue(L"attention_state", 2);
  }
  EXPECT_EQ((std::vector<std::string>{"ability: 0", "ability: 0"}), LogMessages("AttentionPlugin.cpp", 72));
  EXPECT_EQ((std::vector<std::string>{"register attention status: 2, register attention delay:33 ",
                                      "register attention status: 2, register attention delay:33 "}),
            LogMessages("AttentionPlugin.cpp", 75));
  // The controller's own verdict was cached: it did not ask the service.
  EXPECT_EQ((std::vector<std::string>{"Cache not .. support attention", "Cache not .. support attention"}),
            LogMessages("AttentionFuntion", 99));
}

TEST_F(State, StatusConversionFollowsJsoncpp) {
  // Supported (from the cache) but never set up: the status goes to the
  // controller, which stops attention for anything but 2 and refuses to start
  // it because nothing enabled it.
  SetMachineAbility(1);
  Load();
  ASSERT_EQ(Ability(1, 10, 1), plugin.Action("ability", nullptr));

  struct Case {
    const char* params;
    int status;
  } cases[] = {
      {"{\"F4010\":{\"status\":2}}", 2},
      {"{\"F4010\":{\"status\":true}}", 1},
      {"{\"F4010\":{\"status\":2.7}}", 2},
      {"{\"F4010\":{\"status\":1.2}}", 1},
      {"/* host comment */ {\"F4010\":{\"status\":2}} // trailing", 2},
      {"{\"F4010\":{\"status\":1,\"delay\":99},\"other\":[1,2]}", 1},
  };
  for (const Case& c : cases) {
    DeleteLog();
    EXPECT_EQ(Attention(10, c.status), plugin.Action("set_attention_status", c.params)) << c.params;
    EXPECT_EQ(std::vector<std::string>{"set_attention_ctrl " + std::to_string(c.status)},
              LogMessages("AttentionInfo.cpp", 57))
        << c.params;
    EXPECT_EQ(std::vector<std::string>{"status value: " + std::to_string(c.status)},
              LogMessages("AttentionPlugin.cpp", 281))
        << c.params;
    EXPECT_EQ(std::optional<DWORD>(c.status), GetUserDword(L"attention_state")) << c.params;
    // 2 asks the controller to start: refused while not enabled, and the
    // status change is stored all the same.
    EXPECT_EQ(c.status == 2 ? 1u : 0u, LogMessages("AttentionFuntion", 261).size()) << c.params;
  }
  // "set_attention_status" never touches the delay.
  EXPECT_EQ(std::optional<DWORD>(10), GetUserDword(L"attention_delay"));
}

TEST_F(State, StatusPersistsAcrossHostProcesses) {
  SetMachineAbility(1);
  const HostRun first = RunHost(kShippedDll, {"ability", "set_attention_status={\"F4010\":{\"status\":2}}"});
  ASSERT_FALSE(first.timedOut) << first.output;
  EXPECT_EQ(0u, first.exitCode) << first.output;
  ASSERT_EQ(2u, first.Lines("[result] ").size()) << first.output;
  EXPECT_NE(std::string::npos, first.Lines("[result] ")[1].find("{\"cmd\":\"get_attention\",\"delay\":10,\"status\":2}\\n"))
      << first.output;
  EXPECT_EQ(std::optional<DWORD>(2), GetUserDword(L"attention_state"));

  // A new host process starts unloaded and then finds status 2, delay 10.
  const HostRun second = RunHost(kShippedDll, {"get_attention", "ability"});
  ASSERT_FALSE(second.timedOut) << second.output;
  const std::vector<std::string> results = second.Lines("[result] ");
  ASSERT_EQ(2u, results.size()) << second.output;
  EXPECT_NE(std::string::npos, results[0].find("{\"cmd\":\"get_attention\",\"delay\":-1,\"status\":-1}\\n"));
  EXPECT_NE(std::string::npos, results[1].find(Ability(1, 10, 2).substr(0, Ability(1, 10, 2).size() - 1)));
}

TEST_F(State, InitWithoutServiceRunsAsUnsupportedMachine) {
  // No sensor fusion service is installed: the set-up fails, the machine is
  // treated as not supporting attention, the stored status is overwritten
  // with 0 and the stored delay is kept.
  SetUserValue(L"attention_state", 2);
  SetUserValue(L"attention_delay", 25);
  Load();
  std::size_t bytes = 0;
  EXPECT_EQ("", plugin.Action("init", nullptr, &bytes));
  EXPECT_EQ(1u, bytes);
  EXPECT_EQ(Attention(25, 0), plugin.Action("get_attention", nullptr));
  EXPECT_EQ(std::optional<DWORD>(0), GetUserDword(L"attention_state"));
  EXPECT_EQ(std::optional<DWORD>(25), GetUserDword(L"attention_delay"));

  EXPECT_EQ(std::vector<std::string>{" attention action: init "}, LogMessages("AttentionPlugin.cpp", 188));
  EXPECT_EQ(std::vector<std::string>{"setup_attention_client "}, LogMessages("AttentionInfo.cpp", 25));
  EXPECT_EQ(std::vector<std::string>{"ability: 0"}, LogMessages("AttentionPlugin.cpp", 193));
  EXPECT_EQ(std::vector<std::string>{"register attention status: 2, register attention delay:25 "},
            LogMessages("AttentionPlugin.cpp", 196));
  EXPECT_EQ(std::vector<std::string>{" attention status: 0, attention delay:25 "},
            LogMessages("AttentionPlugin.cpp", 236));
  // The failed set-up asked for no ability and enabled nothing (the cache is
  // still unknown, so the enable flag 0 does reach the controller).
  EXPECT_TRUE(LogMessages("AttentionFuntion", 93).empty());
  EXPECT_EQ(std::vector<std::string>{"set_attention_enable 0"}, LogMessages("AttentionInfo.cpp", 51));
  EXPECT_TRUE(LogMessages("AttentionInfo.cpp", 57).empty());
  EXPECT_EQ(std::vector<std::string>{"resp: "}, LogMessages("AttentionPlugin.cpp", 341));

  // "init" always runs in full, even with the state loaded.
  DeleteLog();
  EXPECT_EQ("", plugin.Action("init", nullptr));
  EXPECT_EQ(std::vector<std::string>{"register attention status: 0, register attention delay:25 "},
            LogMessages("AttentionPlugin.cpp", 196));

  DeleteLog();
  bytes = 0;
  EXPECT_EQ("", plugin.Action("close", nullptr, &bytes));
  EXPECT_EQ(1u, bytes);
  EXPECT_EQ(std::vector<std::string>{"close attention client."}, LogMessages("AttentionPlugin.cpp", 241));
  EXPECT_EQ(std::vector<std::string>{"resp: "}, LogMessages("AttentionPlugin.cpp", 341));
}

}  // namespace
