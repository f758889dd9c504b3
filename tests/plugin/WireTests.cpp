// The bytes on the service's pipe, judged by the raw wire peer (tests/wire).
// No service is registered, so "init" starts none.
#include "FusionClient.h"
#include "Harness.h"
#include "SensorLibLog.h"

using namespace qx;

namespace {

// Replies that break the contract: each call ends in 1 through the guard
// around remote calls, with its exception line, the caller's buffer untouched.
struct BadReply {
  int opnum;  // 4 GetFusionStatus, 2 SetFusionDelay(10), 1 SensorDataCallback(6)
  const char *reply, *code;
};
const BadReply kBadReplies[] = {
    {4, "08000000 01000010 aaaaaaaa 00000000", "0x6f7 = 1783"},
    {4, "02000000 01000000 00000000", "0x6f7 = 1783"},
    {4, "04000000 01000010", "0x6f7 = 1783"},
    {4, "fault 00000032", "0x32 = 50"},
    {2, "cut 20 00000000", "0x6be = 1726"},
    {1, "08000000 78563412 aaaaaaaa 00000000", "0x6f7 = 1783"},
};
std::string Exception(const BadReply& b) {
  return (b.opnum == 4 ? "GetFusionStatus::" : "") + std::string("Runtime reported exception ") +
         b.code;
}

// A host's session, action by action: the requests and the peer's replies.
struct Exchange {
  const char *action, *params, *answer;
  std::vector<std::pair<std::string, std::string>> pipe;
};
const Exchange kSession[] = {
    {"init",
     nullptr,
     "",
     {{"0: 40000000", "00000000"},
      {"4: 06000000 04000000", "04000000 00000010 00000000"},
      {"3: 06000000 00000000", "00000000"},
      {"3: 06000000 00000000", "00000000"},
      {"2: 06000000 04000000 04000000 0a000000", "00000000"}}},
    {"set_attention_status",
     "{\"F4010\":{\"status\":2}}",
     "{\"cmd\":\"get_attention\",\"delay\":10,\"status\":2}\n",
     {{"3: 06000000 01000000", "00000000"}}},
    {"set_attention_delay",
     "{\"F4010\":{\"delay\":30}}",
     "{\"cmd\":\"get_attention\",\"delay\":30,\"status\":2}\n",
     {{"2: 06000000 04000000 04000000 1e000000", "00000000"}}},
    {nullptr,
     nullptr,
     nullptr,
     {{"1: 06000000 04000000", "04000000 00000000 00000000"}}},  // the event
    {"close", nullptr, "", {{"5: 40000000", "00000000"}}},
};

}  // namespace

QX_TEST(Wire, BadReplies, 1) {
  SetService(Service::kAbsent);
  wire::Peer& peer = StartPeer();
  std::vector<std::string> exceptions;
  for (const BadReply& b : kBadReplies) exceptions.push_back(Exception(b));
  DeclareExceptions(exceptions);
  SensorLibLogOpen();
  ASSERT_EQ(BindFusionService(), 0);
  for (const BadReply& b : kBadReplies) {
    const Mark m = Now();
    peer.Queue(b.reply);
    std::uint32_t out = 0xcccccccc, ten = 10;
    const std::int32_t rc = b.opnum == 4   ? GetFusionStatus(nullptr, &out)
                            : b.opnum == 2 ? SetFusionDelay(nullptr, &ten)
                                           : SensorDataCallback(6);
    EXPECT_EQ(rc, 1) << b.reply;
    EXPECT_EQ(out, 0xccccccccu) << b.reply;
    EXPECT_EQ(Requests(m),
              std::vector<std::string>{std::to_string(b.opnum) + ": 06000000 04000000" +
                                       (b.opnum == 2 ? " 04000000 0a000000" : "")});
    EXPECT_EQ(SensorLines(m), (std::vector<std::string>{Exception(b), ""}));
  }
  // Status lines for over a second: every millisecond of a stamp comes round.
  const Mark m = Now();
  std::vector<std::string> lines;
  for (const DWORD start = GetTickCount(); GetTickCount() - start < 1100;) {
    peer.Queue("04000000 01000010 00000000");
    std::uint32_t word = 0;
    ASSERT_EQ(GetFusionStatus(nullptr, &word), 0);
    ASSERT_EQ(word, 0x10000001u);
    lines.push_back("268435457");
  }
  EXPECT_GT(lines.size(), 20u);
  // A line longer than 2047 characters is cut there.
  SensorLibLogWrite("Event!%s", std::string(3000, 'x').c_str());
  lines.push_back("Event!" + std::string(2041, 'x'));
  EXPECT_EQ(SensorLines(m), lines);
  QX_ANCHORS(SensorLines, Mark{}, {"Version:0.0.0.3"});
}

QX_TEST(Wire, HostSession, 1) {
  SetService(Service::kAbsent);
  wire::Peer& peer = StartPeer();
  Host host;
  host.Init();
  for (const Exchange& e : kSession) {
    const Mark m = Now();
    std::vector<std::string> requests;
    for (const auto& [request, reply] : e.pipe) peer.Queue(reply), requests.push_back(request);
    if (e.action)
      EXPECT_EQ(host.Act(e.action, e.params), e.answer) << e.action;
    else
      SignalPeerEvent();
    EXPECT_TRUE(Until([&] { return Requests(m).size() >= requests.size(); }));
    Quiet();
    EXPECT_EQ(Requests(m), requests) << (e.action ? e.action : "the attention event");
  }
  EXPECT_EQ(host.Callbacks().size(), 1u);
}

// The shipped DLL's binding asks for packet privacy over NTLM, which the peer
// refuses: "init" and "close" each fail with one exception line.
QX_TEST(Wire, ShippedBinding, 1) {
  SetService(Service::kAbsent);
  StartPeer("type 10 level 6 token 4e544c4d 53535000 01000000");
  DeclareExceptions(
      {"Runtime reported exception 0x6d3 = 1747", "Runtime reported exception 0x6d3 = 1747"});
  Host host(true);
  host.Init();
  const Mark m = Now();
  EXPECT_EQ(host.Act("init"), "");
  QX_ANCHORS(Records, m,
             {"INF AttentionFuntion(229) attention_init initfusion 1",
              "INF AttentionPlugin.cpp(193) ability: 0"});
  EXPECT_EQ(host.Act("close"), "");
  EXPECT_EQ(Requests(m), std::vector<std::string>{});
  ExpectSummary(4, "authentication_refused", {"1747 authentication service unknown"});
}
