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

class State : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    DeleteLog();
  }
  void TearDown() override { ResetRegistry(); }
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
      {"{\"F4010\":{\"status\":true}}", 1},
      {"{\"F4010\":{\"status\":2.7}}", 2},
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

}  // namespace
