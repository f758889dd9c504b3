// End-to-end tests of the fusion client (test variant qx_fusion_noauth) against
// fusion-sim: what the client returns, what it wrote to SensorLibLog.log, and
// what crossed the pipe according to the simulator's call record. Cases that
// need a fresh client run as children of this program (Child.*).
#include "FusionClientState.h"
#include "FusionSehGuard.h"
#include "FusionTestSupport.h"
#include "SensorLibLog.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <regex>
#include <string>

using namespace fusiontest;

namespace {

constexpr std::uint32_t kPoison = 0xdeadbeef;

// ---- callback capture, for the event cases --------------------------------
struct Capture {
    HANDLE done = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::atomic<int> calls{0};
    std::int32_t id = -1;
    std::uint32_t record = kPoison;
    DWORD threadId = 0;
    void* context = nullptr;
};

void OnSensorData(void* context, std::int32_t id, void* data)
{
    auto* c = static_cast<Capture*>(context);
    c->id = id;
    c->context = context;
    std::memcpy(&c->record, data, 4);
    c->threadId = GetCurrentThreadId();
    ++c->calls;
    SetEvent(c->done);
}

// Exception lines look like "<text>Runtime reported exception 0x<hex> = <dec>":
// returns the code when the message matches and both forms agree, else -1.
long long ExceptionCode(const std::string& message, const std::string& lead)
{
    std::smatch m;
    std::regex re(lead + "Runtime reported exception 0x([0-9a-f]+) = (-?[0-9]+)");
    if (!std::regex_match(message, m, re))
        return -1;
    unsigned long hex = std::stoul(m[1].str(), nullptr, 16);
    long dec = std::stol(m[2].str());
    return static_cast<long>(hex) == dec ? static_cast<long long>(hex) : -1;
}

}  // namespace

// ---- the guard itself (in process) ------------------------------------------

TEST(Guard, ReturnsZeroAndRunsTheCallWhenNothingIsRaised)
{
    int ran = 0;
    unsigned long code = FusionSehCall([](void* p) { ++*static_cast<int*>(p); }, &ran);
    EXPECT_EQ(0ul, code);
    EXPECT_EQ(1, ran);
}

TEST(Guard, CatchesAccessViolationAndRaisedCodesAndExecutionGoesOn)
{
    unsigned long code = FusionSehCall([](void*) { *static_cast<volatile int*>(nullptr) = 1; }, nullptr);
    EXPECT_EQ(0xC0000005ul, code);
    code = FusionSehCall([](void*) { RaiseException(1722, 0, 0, nullptr); }, nullptr);
    EXPECT_EQ(1722ul, code);
    // The RPC runtime's own raise (a C++ catch would not see this one).
    code = FusionSehCall([](void*) { RpcRaiseException(RPC_S_SERVER_UNAVAILABLE); }, nullptr);
    EXPECT_EQ(static_cast<unsigned long>(RPC_S_SERVER_UNAVAILABLE), code);
    // A guard after a caught exception works as before.
    int ran = 0;
    EXPECT_EQ(0ul, FusionSehCall([](void* p) { ++*static_cast<int*>(p); }, &ran));
    EXPECT_EQ(1, ran);
}

// ---- service absent ----------------------------------------------------------

CHILD_TEST(ServiceAbsent)
{
    CHILD_ONLY();
    // Before any InitFusion (host's "ability" first): no binding, the lock is
    // usable, the stub raises on the null binding, the guard turns it into 1.
    std::uint32_t status = kPoison, delay = kPoison;
    const std::uint32_t newDelay = 15;
    EXPECT_EQ(1, GetFusionStatus(nullptr, &status));
    EXPECT_EQ(kPoison, status);
    EXPECT_EQ(1, GetFusionDelay(nullptr, &delay));
    EXPECT_EQ(kPoison, delay);
    EXPECT_EQ(1, SetFusionDelay(nullptr, &newDelay));
    // Binding succeeds (it is lazy); FusionSetting's opnum 0 cannot reach the
    // service and InitFusion returns 1 (the lock stays held by this thread).
    EXPECT_EQ(1, InitFusion());
    EXPECT_EQ(0u, g_fusion.FusionStatus);
    status = kPoison;
    EXPECT_EQ(1, GetFusionStatus(nullptr, &status));
    EXPECT_EQ(kPoison, status);
}

TEST(Client, ServiceAbsentEveryCallFailsWithResultOneAndOneLine)
{
    ASSERT_FALSE(FusionSimWaitReady(0)) << "a simulator is running";
    std::uint64_t at = LogSize();
    ASSERT_EQ(0u, RunChild("ServiceAbsent"));
    auto lines = LogLinesSince(at);
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ("Version:0.0.0.3", lines[0]);
    EXPECT_EQ("InitFusion:FusionMask: 0x40", Message(lines[1]));
    EXPECT_EQ("FusionSetting Mask 0x40", Message(lines[2]));
    // FusionSetting's text has no line feed; GetFusionStatus's has one, so an
    // empty line follows it. No status line: the call never returned normally.
    long long code = ExceptionCode(Message(lines[3]), "");
    EXPECT_TRUE(code == RPC_S_SERVER_UNAVAILABLE || code == ERROR_FILE_NOT_FOUND) << lines[3];
    ASSERT_EQ(6u, lines.size());
    EXPECT_EQ(code, ExceptionCode(Message(lines[4]), "GetFusionStatus::")) << lines[4];
    EXPECT_EQ("", lines[5]);
}

// ---- the whole life against the simulator ------------------------------------

CHILD_TEST(Lifecycle)
{
    CHILD_ONLY();
    ASSERT_EQ(0, InitFusion());
    EXPECT_EQ(0x40u, g_fusion.FusionStatus);
    EXPECT_STREQ(L"Global\\Vantoq.SensorFusion.AttentionEVENT", g_fusion.eventNames[6]);
    EXPECT_STREQ(L"Global\\Vantoq.SensorFusion.TestEvent", g_fusion.eventNames[31]);
    EXPECT_STREQ(L"", g_fusion.eventNames[1]);
    EXPECT_EQ(6, g_fusion.threadArgs[6].index);
    EXPECT_EQ(6, g_fusion.threadArgs[6].fusionFlag);
    HANDLE thread = g_fusion.threadHandles[6];
    ASSERT_NE(nullptr, thread);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(thread, 0));
    const DWORD threadId = GetThreadId(thread);
    HANDLE watch = nullptr;  // UnInitial closes the client's own handle
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), thread, GetCurrentProcess(), &watch, SYNCHRONIZE, FALSE, 0));

    // Wrappers: the status word and the delay come from the simulator's model.
    ASSERT_TRUE(FusionSimSetStatus(0x10000001));
    std::uint32_t status = kPoison;
    EXPECT_EQ(0, GetFusionStatus(nullptr, &status));
    EXPECT_EQ(0x10000001u, status);
    const std::uint32_t delay42 = 42;
    EXPECT_EQ(0, SetFusionDelay(nullptr, &delay42));
    std::uint32_t delay = kPoison;
    EXPECT_EQ(0, GetFusionDelay(nullptr, &delay));
    EXPECT_EQ(42u, delay);
    // A refusal of the service is passed through unchanged.
    ASSERT_TRUE(FusionSimForceResult(6, 0x60000006));
    EXPECT_EQ(0x60000006, GetFusionDelay(nullptr, &delay));
    ASSERT_TRUE(FusionSimClearForced(6));

    // GetSensorData: its own size table (6 and 3 fetch 0 bytes), 2 when not followed.
    unsigned char data[64];
    std::memset(data, 0xcc, sizeof data);
    EXPECT_EQ(0, GetSensorData(6, data));
    EXPECT_EQ(0xcc, data[0]);  // nothing was fetched into it
    EXPECT_EQ(2, GetSensorData(3, data));
    EXPECT_EQ(2, GetSensorData(5, data));
    // SensorDataCallback for an id without a record: size 0, no buffer.
    EXPECT_EQ(0, SensorDataCallback(7));

    // StartFusion 1 after InitFusion: opnum 3, no second thread. 2: no call.
    EXPECT_EQ(0, StartFusion(nullptr, 1));
    EXPECT_EQ(thread, g_fusion.threadHandles[6]);
    EXPECT_EQ(0, StartFusion(nullptr, 2));

    // Look away: the callback runs on the waiting thread with the 4-byte record.
    Capture cap;
    EXPECT_EQ(0, RegisterSensorDataCallback(OnSensorData, &cap));
    ASSERT_TRUE(FusionSimSetAttention(0, true));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(cap.done, 10000));
    EXPECT_EQ(6, cap.id);
    EXPECT_EQ(&cap, cap.context);
    EXPECT_EQ(0u, cap.record);
    EXPECT_EQ(threadId, cap.threadId);
    ASSERT_TRUE(FusionSimSetAttention(0x10203040, true));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(cap.done, 10000));
    EXPECT_EQ(0x10203040u, cap.record);
    EXPECT_EQ(2, cap.calls.load());

    EXPECT_EQ(0, UnInitial());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(watch, 0)) << "thread still running after UnInitial";
    CloseHandle(watch);
    EXPECT_EQ(nullptr, g_fusion.threadHandles[6]);
    EXPECT_EQ(0x40u, g_fusion.FusionStatus) << "UnInitial keeps FusionStatus";

    // After "close": the binding is gone, the lock still works, calls fail cleanly.
    status = kPoison;
    EXPECT_EQ(1, GetFusionStatus(nullptr, &status));
    EXPECT_EQ(kPoison, status);
}

TEST(Client, LifecycleAgainstTheSimulator)
{
    Sim sim;
    ASSERT_TRUE(sim.ok());
    std::uint64_t at = LogSize();
    ASSERT_EQ(0u, RunChild("Lifecycle"));
    auto lines = LogLinesSince(at);

    std::vector<FusionSimCall> all;
    ASSERT_TRUE(FusionSimReadCalls(&all));
    // opnum 0 once, with the mask 0x40.
    auto c0 = CallsOf(0);
    ASSERT_EQ(1u, c0.size());
    EXPECT_EQ(0x40, c0[0].arg0);
    // opnum 2: id 6, exactly 4 bytes, little-endian 42.
    auto c2 = CallsOf(2);
    ASSERT_EQ(1u, c2.size());
    EXPECT_EQ(6, c2[0].arg0);
    EXPECT_EQ(4, c2[0].arg1);
    ASSERT_EQ(4u, c2[0].dataLen);
    EXPECT_EQ(0, std::memcmp(c2[0].data, "\x2a\0\0\0", 4));
    // opnum 4 and 6: id 6, size 4 each.
    for (int op : {4, 6})
        for (const auto& c : CallsOf(op)) {
            EXPECT_EQ(6, c.arg0) << "opnum " << op;
            EXPECT_EQ(4, c.arg1) << "opnum " << op;
        }
    EXPECT_EQ(1u, CallsOf(4).size());
    EXPECT_EQ(2u, CallsOf(6).size());
    // opnum 1: GetSensorData(6) size 0, SensorDataCallback(7) size 0, then two
    // fetches of 4 bytes by the waiting thread; GetSensorData(3/5) sent nothing.
    auto c1 = CallsOf(1);
    ASSERT_EQ(4u, c1.size());
    EXPECT_EQ(6, c1[0].arg0);
    EXPECT_EQ(0, c1[0].arg1);
    EXPECT_EQ(7, c1[1].arg0);
    EXPECT_EQ(0, c1[1].arg1);
    EXPECT_EQ(6, c1[2].arg0);
    EXPECT_EQ(4, c1[2].arg1);
    EXPECT_EQ(4, c1[3].arg1);
    // opnum 3 once (StartFusion 1; StartFusion 2 sent nothing), opnum 5 with the mask.
    auto c3 = CallsOf(3);
    ASSERT_EQ(1u, c3.size());
    EXPECT_EQ(6, c3[0].arg0);
    EXPECT_EQ(1, c3[0].arg1);
    auto c5 = CallsOf(5);
    ASSERT_EQ(1u, c5.size());
    EXPECT_EQ(0x40, c5[0].arg0);
    // GetFusionStatus after UnInitial did not reach the service: opnum 5 is last.
    EXPECT_EQ(5, all.back().opnum);

    // The log.
    EXPECT_EQ(1, CountMessages(lines, "GetSensorDataProc:index 6,FusionFlag 6")) << "one waiting thread only";
    EXPECT_GE(FindMessage(lines, "268435457"), 0) << "GetFusionStatus writes the status word";
    int p2 = FindMessage(lines, "start fusion 6,Param 2,64");
    ASSERT_GE(p2, 0);
    EXPECT_EQ("", lines[p2 + 1]);
    EXPECT_NE("", Message(lines[p2 + 2])) << "StartFusion 2 writes one line and nothing else";
    EXPECT_EQ(1, CountMessages(lines, "start fusion 6,mask 64,64"));
    int cb = FindMessage(lines, "SensorDataCallback,id 6");
    ASSERT_GE(cb, 1);
    EXPECT_EQ(0u, Message(lines[cb - 1]).rfind("Event!Event occur: ", 0)) << lines[cb - 1];
    EXPECT_EQ("", lines[cb + 1]);
    EXPECT_EQ("SensorDataCallback,end", Message(lines[cb + 2]));
    EXPECT_EQ("", lines[cb + 3]);
    EXPECT_EQ(2, CountMessages(lines, "SensorDataCallback,end"));
    EXPECT_EQ(1, CountMessages(lines, "Thread exit 6"));
    EXPECT_EQ(1, CountMessages(lines, "Tread exit,index:6"));
    // 32 status lines: the copy of 0x40 shifted right after each index, with
    // "Tread exit" at index 6 (between the lines of index 5 and 6). The waiting
    // thread writes its own lines meanwhile, so only UnInitial's are compared.
    std::vector<std::string> uninit;
    for (const auto& l : lines) {
        std::string msg = Message(l);
        if (msg.rfind("UnInitial,FusionStatus:", 0) == 0 || msg.rfind("Tread exit", 0) == 0)
            uninit.push_back(msg);
    }
    std::vector<std::string> expected;
    for (int i = 0; i < 32; ++i) {
        if (i == 6)
            expected.push_back("Tread exit,index:6");
        expected.push_back("UnInitial,FusionStatus:" + std::to_string(i < 31 ? 0x40u >> (i + 1) : 0u));
    }
    EXPECT_EQ(expected, uninit);
    EXPECT_EQ(1, CountMessages(lines, "UnInitial,FusionMask:64"));
    // After close: one exception line for the null binding.
    int after = FindMessage(lines, "UnInitial,FusionMask:64");
    int found = 0;
    for (int i = after; i < static_cast<int>(lines.size()); ++i)
        found += ExceptionCode(Message(lines[i]), "GetFusionStatus::") > 0;
    EXPECT_EQ(1, found);
}

// ---- attention event missing, UnInitial without thread, the silenced log -----

CHILD_TEST(EventMissing)
{
    CHILD_ONLY();
    EXPECT_EQ(0x10000006, InitFusion());
    EXPECT_EQ(0u, g_fusion.FusionStatus);
    EXPECT_EQ(nullptr, g_fusion.threadHandles[6]);
    EXPECT_NE(nullptr, g_fusion.stopEvents[6]) << "the stop event stays";
    EXPECT_EQ(0, UnInitial());
    // The attention controller's retry: a second InitFusion in the same process.
    ASSERT_TRUE(FusionSimDropAttentionEvent(false));
    EXPECT_EQ(0, InitFusion());
    EXPECT_EQ(0x40u, g_fusion.FusionStatus);
    EXPECT_EQ(0, UnInitial());
}

TEST(Client, AttentionEventMissingThenRetrySilencesTheLog)
{
    Sim sim(L"--no-attention-event");
    ASSERT_TRUE(sim.ok());
    std::uint64_t at = LogSize();
    ASSERT_EQ(0u, RunChild("EventMissing"));
    auto lines = LogLinesSince(at);
    // The first UnInitial with no thread: 32 lines of 0, mask 0, opnum 5 sent.
    EXPECT_EQ(32, CountMessages(lines, "UnInitial,FusionStatus:0"));
    EXPECT_EQ(1, CountMessages(lines, "UnInitial,FusionMask:0"));
    EXPECT_EQ(0, CountMessages(lines, "Tread exit,index:6"));
    EXPECT_EQ(0, CountMessages(lines, "GetSensorDataProc:index 6,FusionFlag 6"));
    // Everything after the second open is lost, the version line included.
    EXPECT_EQ(1, static_cast<int>(std::count(lines.begin(), lines.end(), "Version:0.0.0.3")));
    EXPECT_EQ(1, CountMessages(lines, "InitFusion:FusionMask: 0x40"));
    auto c5 = CallsOf(5);
    ASSERT_EQ(2u, c5.size());
    EXPECT_EQ(0, c5[0].arg0);
    EXPECT_EQ(0x40, c5[1].arg0);
    EXPECT_EQ(2u, CallsOf(0).size());
}

// ---- StartFusion 0 and 1 -------------------------------------------------------

CHILD_TEST(StopAndStart)
{
    CHILD_ONLY();
    ASSERT_EQ(0, InitFusion());
    HANDLE first = g_fusion.threadHandles[6];
    HANDLE dup = nullptr;
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), first, GetCurrentProcess(), &dup, SYNCHRONIZE, FALSE, 0));
    EXPECT_EQ(0, StartFusion(nullptr, 0));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(dup, 0)) << "the waiting thread ended within 1000 ms";
    CloseHandle(dup);
    EXPECT_EQ(0u, g_fusion.FusionStatus);
    EXPECT_EQ(nullptr, g_fusion.threadHandles[6]);
    EXPECT_EQ(nullptr, g_fusion.sensorEvents[6]);
    // A look-away while stopped reaches nobody.
    Capture cap;
    RegisterSensorDataCallback(OnSensorData, &cap);
    ASSERT_TRUE(FusionSimSetAttention(0, true));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(cap.done, 300));
    // Start again: a new waiting thread. The event stayed signalled (auto-reset,
    // nobody waited), so the new thread fetches at once.
    EXPECT_EQ(0, StartFusion(nullptr, 1));
    EXPECT_EQ(0x40u, g_fusion.FusionStatus);
    ASSERT_NE(nullptr, g_fusion.threadHandles[6]);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(cap.done, 10000));
    EXPECT_EQ(0u, cap.record);
    EXPECT_EQ(GetThreadId(g_fusion.threadHandles[6]), cap.threadId);
    // A refused start is returned at once.
    ASSERT_TRUE(FusionSimForceResult(3, 0x30000020));
    EXPECT_EQ(0x30000020, StartFusion(nullptr, 1));
    ASSERT_TRUE(FusionSimClearForced(3));
    EXPECT_EQ(0, UnInitial());
}

TEST(Client, StartFusionStopsAndRestartsTheWaitingThread)
{
    Sim sim;
    ASSERT_TRUE(sim.ok());
    std::uint64_t at = LogSize();
    ASSERT_EQ(0u, RunChild("StopAndStart"));
    auto lines = LogLinesSince(at);
    EXPECT_EQ(2, CountMessages(lines, "GetSensorDataProc:index 6,FusionFlag 6"));
    EXPECT_EQ(2, CountMessages(lines, "Thread exit 6"));
    EXPECT_EQ(1, CountMessages(lines, "start fusion 6,mask 0,0")) << "the restart saw bit 6 clear";
    auto c3 = CallsOf(3);
    ASSERT_EQ(3u, c3.size());
    EXPECT_EQ(0, c3[0].arg1);
    EXPECT_EQ(1, c3[1].arg1);
    EXPECT_EQ(1, c3[2].arg1);
    EXPECT_EQ(0x30000020, c3[2].result);
}

// ---- FusionSetting refused: the lock stays held --------------------------------

CHILD_TEST(SettingRefused)
{
    CHILD_ONLY();
    EXPECT_EQ(0x60000001, InitFusion());
    EXPECT_EQ(0u, g_fusion.FusionStatus);
    // Another thread's remote call blocks on the lock left held.
    HANDLE blocked = CreateThread(
        nullptr, 0,
        [](void*) -> DWORD {
            std::uint32_t s = kPoison;
            return static_cast<DWORD>(GetFusionStatus(nullptr, &s));
        },
        nullptr, 0, nullptr);
    ASSERT_NE(nullptr, blocked);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(blocked, 1500));
    // The thread that holds it may still enter.
    std::uint32_t status = kPoison;
    EXPECT_EQ(0, GetFusionStatus(nullptr, &status));
    EXPECT_EQ(0x10000000u, status);
    // Still blocked: the recursive enter/leave left one level held.
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(blocked, 300));
    std::fflush(stdout);
    ExitProcess(::testing::Test::HasFailure() ? 1 : 0);  // the blocked thread cannot end otherwise
}

TEST(Client, FusionSettingRefusedKeepsTheLockHeld)
{
    Sim sim;
    ASSERT_TRUE(sim.ok());
    ASSERT_TRUE(FusionSimForceResult(0, 0x60000001));
    ASSERT_EQ(0u, RunChild("SettingRefused"));
    // Only this thread's GetFusionStatus reached the service.
    EXPECT_EQ(1u, CallsOf(0).size());
    EXPECT_EQ(1u, CallsOf(4).size());
}

// ---- service stops answering: reply delay, then a dead server ----------------

CHILD_TEST(DelayedReply)
{
    CHILD_ONLY();
    ASSERT_EQ(0, InitFusion());
    ASSERT_TRUE(FusionSimSetReplyDelay(400));
    DWORD t0 = GetTickCount();
    std::uint32_t status = kPoison;
    EXPECT_EQ(0, GetFusionStatus(nullptr, &status));
    EXPECT_GE(GetTickCount() - t0, 350u);
    ASSERT_TRUE(FusionSimSetReplyDelay(0));
    // The service goes away while the client is bound: the next call raises.
    ASSERT_TRUE(FusionSimQuit(10000));
    status = kPoison;
    EXPECT_EQ(1, GetFusionStatus(nullptr, &status));
    EXPECT_EQ(kPoison, status);
    const std::uint32_t d = 20;
    EXPECT_EQ(1, SetFusionDelay(nullptr, &d));
    EXPECT_EQ(1, UnInitial());
}

TEST(Client, SlowThenVanishedServiceEndsInResultOne)
{
    FusionSimProcess proc;
    ASSERT_TRUE(FusionSimLaunch(L"", 20000, &proc));
    std::uint64_t at = LogSize();
    DWORD rc = RunChild("DelayedReply");
    if (proc.process) {  // the child ended it; make sure it is gone
        WaitForSingleObject(proc.process, 10000);
        CloseHandle(proc.process);
    }
    ASSERT_EQ(0u, rc);
    auto lines = LogLinesSince(at);
    int statusLines = 0;
    for (const auto& l : lines)
        statusLines += ExceptionCode(Message(l), "GetFusionStatus::") > 0;
    EXPECT_EQ(1, statusLines);
    int other = 0;
    for (const auto& l : lines)
        other += ExceptionCode(Message(l), "") > 0;
    EXPECT_EQ(2, other) << "SetFusionDelay and UnInitial";
}

// ---- the sensor library log -----------------------------------------------------

CHILD_TEST(LongLine)
{
    CHILD_ONLY();
    EXPECT_EQ(1, InitFusion());  // no service: the log opens all the same
    std::string big(3000, 'x');
    big[2046] = 'E';
    SensorLibLogWrite("%s", big.c_str());
}

TEST(SensorLibLog, LineFormatAndTruncationTo2047)
{
    ASSERT_FALSE(FusionSimWaitReady(0));
    std::uint64_t at = LogSize();
    ASSERT_EQ(0u, RunChild("LongLine"));
    auto lines = LogLinesSince(at);
    ASSERT_FALSE(lines.empty());
    const std::string& last = lines.back();
    std::smatch m;
    ASSERT_TRUE(std::regex_search(last, m, std::regex("^\\[\\d\\d-\\d\\d-\\d\\d-\\d\\d-\\d\\d:\\d{1,3}\\]")))
        << last.substr(0, 40);
    std::string msg = Message(last);
    EXPECT_EQ(2047u, msg.size());
    EXPECT_EQ('E', msg.back());
    std::regex prefix("^\\[(\\d\\d)-(\\d\\d)-(\\d\\d)-(\\d\\d)-(\\d\\d):(\\d{1,3})\\]");
    for (std::size_t i = 1; i < lines.size(); ++i)
        if (!lines[i].empty())
            EXPECT_TRUE(std::regex_search(lines[i], prefix)) << lines[i];
}

CHILD_TEST(NoLogFolder)
{
    CHILD_ONLY();
    // A program-data folder whose parent does not exist: one level is created
    // at most, so the log cannot be made; InitFusion carries on without it.
    SetEnvironmentVariableW(L"ProgramData", L"C:\\no-such-dir\\deeper");
    EXPECT_EQ(0, InitFusion());
    EXPECT_EQ(0x40u, g_fusion.FusionStatus);
    EXPECT_EQ(0, UnInitial());
}

TEST(SensorLibLog, NoFolderMeansNoLogButInitGoesOn)
{
    Sim sim;
    ASSERT_TRUE(sim.ok());
    std::uint64_t at = LogSize();
    ASSERT_EQ(0u, RunChild("NoLogFolder"));
    EXPECT_EQ(at, LogSize());
    EXPECT_EQ(1u, CallsOf(0).size());
    EXPECT_EQ(1u, CallsOf(5).size());
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(L"C:\\no-such-dir"));
}
