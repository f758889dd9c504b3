// The shipped client (qx_fusion: packet privacy, WINNT, null identity) against
// fusion-sim. Wine cannot complete an authenticated bind, so the first remote
// call must fail cleanly: result 1, one exception line, no crash, no hang,
// nothing delivered. The code is 5 (access denied) where ntlm_auth reaches a
// winbindd, 1747 with ntlm_auth and no winbindd (the build machine). Without
// ntlm_auth the binding stays unauthenticated and the test fails on purpose.
#include "FusionClientState.h"
#include "FusionTestSupport.h"

using namespace fusiontest;

CHILD_TEST(AuthenticatedBind)
{
    CHILD_ONLY();
    EXPECT_EQ(1, InitFusion());
    std::uint32_t status = 0xdeadbeef;
    EXPECT_EQ(1, GetFusionStatus(nullptr, &status));
    EXPECT_EQ(0xdeadbeefu, status);
}

TEST(ShippedClient, FirstRemoteCallFailsWithAccessDenied)
{
    Sim sim;
    ASSERT_TRUE(sim.ok());
    std::uint64_t at = LogSize();
    ASSERT_EQ(0u, RunChild("AuthenticatedBind", 60000)) << "crashed, failed or hung";
    auto lines = LogLinesSince(at);
    ASSERT_EQ(-1, FindMessage(lines, "RpcBindingSetAuthInfo:1747")) << "no ntlm_auth: install winbind";
    int first = FindMessage(lines, "FusionSetting Mask 0x40");
    ASSERT_GE(first, 0);
    // The first remote call (opnum 0) is the line right after.
    std::string msg = Message(lines.at(first + 1));
    bool denied = msg == "Runtime reported exception 0x5 = 5";
    bool noAuthn = msg == "Runtime reported exception 0x6d3 = 1747";
    EXPECT_TRUE(denied || noAuthn) << msg;
    EXPECT_EQ(1, CountMessages(lines, denied ? "GetFusionStatus::Runtime reported exception 0x5 = 5"
                                              : "GetFusionStatus::Runtime reported exception 0x6d3 = 1747"));
    // Nothing reached a procedure, and the simulator survived the attempt.
    std::vector<FusionSimCall> calls;
    ASSERT_TRUE(FusionSimReadCalls(&calls));
    EXPECT_TRUE(calls.empty());
}
