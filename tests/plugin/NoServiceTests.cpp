// "init" on a machine without the sensor fusion service, in a host process of
// its own (qxhost), as a host meets it: nothing has touched the fusion client
// before. (An earlier fusion client could lose its exception guard on a thread
// that had already caught a runtime exception; a fresh process keeps this
// test about the missing service only.)
#include <gtest/gtest.h>

#include "FusionSimCtl.h"
#include "PluginTestSupport.h"

using namespace qxtest;

namespace {

std::string Attention(int delay, int status) {
  return "{\"cmd\":\"get_attention\",\"delay\":" + std::to_string(delay) +
         ",\"status\":" + std::to_string(status) + "}\n";
}

// The service is removed for this test and registered again afterwards.
class NoService : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    DeleteLog();
    ASSERT_TRUE(FusionSimUninstallService());
    ASSERT_EQ(0u, FusionSimServiceState());
  }
  void TearDown() override {
    ResetRegistry();
    EXPECT_TRUE(FusionSimInstallService(L""));
  }
};

TEST_F(NoService, InitRunsAsUnsupportedMachine) {
  // No sensor fusion service is installed: the set-up fails, the machine is
  // treated as not supporting attention, the stored status is overwritten
  // with 0 and the stored delay is kept.
  SetUserValue(L"attention_state", 2);
  SetUserValue(L"attention_delay", 25);
  const HostRun run = RunHost(kShippedDll, {"init", "get_attention", "init", "close"});
  ASSERT_FALSE(run.timedOut) << run.output;
  EXPECT_EQ(0u, run.exitCode) << run.output;
  const std::vector<std::string> results = run.Lines("[result] ");
  ASSERT_EQ(4u, results.size()) << run.output;
  // "init" and "close" hand back a one-byte buffer: only the terminating zero.
  EXPECT_EQ("[result] init -> 0, 1 bytes with the terminating zero: (empty text)", results[0]);
  EXPECT_NE(std::string::npos, results[1].find(Attention(25, 0).substr(0, Attention(25, 0).size() - 1) + "\\n"))
      << results[1];
  EXPECT_EQ("[result] close -> 0, 1 bytes with the terminating zero: (empty text)", results[3]);
  EXPECT_EQ(std::optional<DWORD>(0), GetUserDword(L"attention_state"));
  EXPECT_EQ(std::optional<DWORD>(25), GetUserDword(L"attention_delay"));

  // Both inits ran in full, the second with the state already loaded.
  EXPECT_EQ((std::vector<std::string>{" attention action: init ", " attention action: init "}),
            LogMessages("AttentionPlugin.cpp", 188));
  EXPECT_EQ((std::vector<std::string>{"setup_attention_client ", "setup_attention_client "}),
            LogMessages("AttentionInfo.cpp", 25));
  EXPECT_EQ((std::vector<std::string>{"ability: 0", "ability: 0"}), LogMessages("AttentionPlugin.cpp", 193));
  EXPECT_EQ((std::vector<std::string>{"register attention status: 2, register attention delay:25 ",
                                      "register attention status: 0, register attention delay:25 "}),
            LogMessages("AttentionPlugin.cpp", 196));
  EXPECT_EQ((std::vector<std::string>{" attention status: 0, attention delay:25 ",
                                      " attention status: 0, attention delay:25 "}),
            LogMessages("AttentionPlugin.cpp", 236));
  // The failed set-up asked for no ability and started nothing; the enable
  // flag 0 still reaches the controller (the ability cache is still unknown).
  EXPECT_TRUE(LogMessages("AttentionFuntion", 93).empty());
  EXPECT_EQ((std::vector<std::string>{"set_attention_enable 0", "set_attention_enable 0"}),
            LogMessages("AttentionInfo.cpp", 51));
  EXPECT_TRUE(LogMessages("AttentionInfo.cpp", 57).empty());
  EXPECT_EQ(std::vector<std::string>{"close attention client."}, LogMessages("AttentionPlugin.cpp", 241));
  const std::vector<std::string> responses = LogMessages("AttentionPlugin.cpp", 341);
  ASSERT_EQ(4u, responses.size());
  EXPECT_EQ("resp: ", responses[0]);
  EXPECT_EQ("resp: ", responses[3]);
}

}  // namespace
