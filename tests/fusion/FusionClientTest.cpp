// The fusion client (test variant qx_fusion_noauth) against fusion-sim: what
// it returns, what it wrote to SensorLibLog.log, and what crossed the pipe
// according to the simulator's call record. The client's state is process-wide,
// so each scenario runs in a fresh child of this program (Child.*) and the
// parent case checks the log and the record.
#include "FusionClientState.h"
#include "FusionSehGuard.h"
#include "FusionTestSupport.h"
#include "SensorLibLog.h"

#include <atomic>
#include <cstring>
#include <regex>
#include <string>

using namespace fusiontest;

namespace {

constexpr std::uint32_t kPoison = 0xdeadbeef;

struct Capture {
    HANDLE done = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::atomic<int> calls{0};
    std::int32_t id = -1;
    std::uint32_t record = kPoison;
    DWORD threadId = 0;
};

void OnSensorData(void* context, std::int32_t id, void* data)
{
    auto* c = static_cast<Capture*>(context);
    c->id = id;
    std::memcpy(&c->record, data, 4);
    c->threadId = GetCurrentThreadId();
    ++c->calls;
    SetEvent(c->done);
}

// "<lead>Runtime reported exception 0x<hex> = <dec>": the code when both forms
// agree, else -1.
long long ExceptionCode(const std::string& message, const std::string& lead = "")
{
    std::smatch m;
    if (!std::regex_match(message, m, std::regex(lead + "Runtime reported exception 0x([0-9a-f]+) = (-?[0-9]+)")))
        return -1;
    const unsigned long hex = std::stoul(m[1].str(), nullptr, 16);
    return static_cast<long>(hex) == std::stol(m[2].str()) ? static_cast<long long>(hex) : -1;
}

}  // namespace

// The guard turns what C++ cannot catch into a code, and works again after.
TEST(Guard, CatchesAccessViolationAndRpcExceptionsAndExecutionGoesOn)
{
    EXPECT_EQ(0xC0000005ul, FusionSehCall([](void*) { *static_cast<volatile int*>(nullptr) = 1; }, nullptr));
    EXPECT_EQ(static_cast<unsigned long>(RPC_S_SERVER_UNAVAILABLE),
              FusionSehCall([](void*) { RpcRaiseException(RPC_S_SERVER_UNAVAILABLE); }, nullptr));
    int ran = 0;
    EXPECT_EQ(0ul, FusionSehCall([](void* p) { ++*static_cast<int*>(p); }, &ran));
    EXPECT_EQ(1, ran);
}

// ---- service absent ----------------------------------------------------------

CHILD_TEST(ServiceAbsent)
{
    CHILD_ONLY();
    // Before any InitFusion (the host's "ability" or "set_" first): no binding,
    // yet the lock is usable and each wrapper ends in 1 through the guard.
    std::uint32_t status = kPoison, delay = kPoison;
    EXPECT_EQ(1, GetFusionStatus(nullptr, &status));
    EXPECT_EQ(kPoison, status);
    EXPECT_EQ(1, GetFusionDelay(nullptr, &delay));
    EXPECT_EQ(kPoison, delay);
    EXPECT_EQ(1, SetFusionDelay(nullptr, &delay));
    // Binding is lazy; FusionSetting's opnum 0 cannot reach the service.
    EXPECT_EQ(1, InitFusion());
    EXPECT_EQ(0u, g_fusion.FusionStatus);
    EXPECT_EQ(1, GetFusionStatus(nullptr, &status));
    EXPECT_EQ(kPoison, status);
}

TEST(Client, ServiceAbsentEveryCallFailsWithResultOneAndOneLine)
{
    ASSERT_FALSE(FusionSimWaitReady(0)) << "a simulator is running";
    std::uint64_t at = LogSize();
    ASSERT_EQ(0u, RunChild("ServiceAbsent"));
    auto lines = LogLinesSince(at);
    // The calls before InitFusion had no log open yet. FusionSetting's text has
    // no line feed; GetFusionStatus's has one, so an empty line follows it, and
    // no status line: the call never returned normally.
    ASSERT_EQ(6u, lines.size());
    EXPECT_EQ("Version:0.0.0.3", lines[0]);
    EXPECT_EQ("InitFusion:FusionMask: 0x40", Message(lines[1]));
    EXPECT_EQ("FusionSetting Mask 0x40", Message(lines[2]));
    const long long code = ExceptionCode(Message(lines[3]));
    EXPECT_TRUE(code == RPC_S_SERVER_UNAVAILABLE || code == ERROR_FILE_NOT_FOUND) << lines[3];
    EXPECT_EQ(code, ExceptionCode(Message(lines[4]), "GetFusionStatus::")) << lines[4];
    EXPECT_EQ("", lines[5]);
}

// ---- the whole life against the simulator ------------------------------------

CHILD_TEST(Lifecycle)
{
    CHILD_ONLY();
    ASSERT_EQ(0, InitFusion());
    EXPECT_EQ(0x40u, g_fusion.FusionStatus);
    HANDLE thread = g_fusion.threadHandles[6];
    ASSERT_NE(nullptr, thread);
    HANDLE watch = nullptr;  // UnInitial closes the client's own handle
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), thread, GetCurrentProcess(), &watch, SYNCHRONIZE, FALSE, 0));

    ASSERT_TRUE(FusionSimSetStatus(0x10000001));
    std::uint32_t status = kPoison;
    EXPECT_EQ(0, GetFusionStatus(nullptr, &status));
    EXPECT_EQ(0x10000001u, status);
    const std::uint32_t delay42 = 42;
    EXPECT_EQ(0, SetFusionDelay(nullptr, &delay42));
    std::uint32_t delay = kPoison;
    EXPECT_EQ(0, GetFusionDelay(nullptr, &delay));
    EXPECT_EQ(42u, delay);

    // GetSensorData's own size table: 6 fetches 0 bytes, 3 and 5 are not followed.
    unsigned char data[64];
    std::memset(data, 0xcc, sizeof data);
    EXPECT_EQ(0, GetSensorData(6, data));
    EXPECT_EQ(0xcc, data[0]);
    EXPECT_EQ(2, GetSensorData(3, data));
    EXPECT_EQ(2, GetSensorData(5, data));

    // StartFusion 1 after InitFusion: opnum 3, no second thread. 2: no call.
    EXPECT_EQ(0, StartFusion(nullptr, 1));
    EXPECT_EQ(thread, g_fusion.threadHandles[6]);
    EXPECT_EQ(0, StartFusion(nullptr, 2));

    // Look away: the callback runs on the waiting thread with the 4-byte record.
    Capture cap;
    EXPECT_EQ(0, RegisterSensorDataCallback(OnSensorData, &cap));
    for (std::uint32_t record : {0u, 0x10203040u}) {
        ASSERT_TRUE(FusionSimSetAttention(record, true));
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(cap.done, 10000));
        EXPECT_EQ(6, cap.id);
        EXPECT_EQ(record, cap.record);
        EXPECT_EQ(GetThreadId(thread), cap.threadId);
    }
    EXPECT_EQ(2, cap.calls.load());

    EXPECT_EQ(0, UnInitial());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(watch, 0)) << "thread still running after UnInitial";
    CloseHandle(watch);
    EXPECT_EQ(nullptr, g_fusion.threadHandles[6]);

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

    // What crossed the pipe, in order (the log-only calls sent nothing):
    // setting with the mask; status; set delay 42 as exactly 4 bytes; get delay;
    // GetSensorData(6) with size 0; start; two fetches of 4 bytes by the waiting
    // thread; goodbye with the mask. GetFusionStatus after UnInitial sent nothing.
    std::vector<FusionSimCall> all;
    ASSERT_TRUE(FusionSimReadCalls(&all));
    const int expected[][3] = {{0, 0x40, -1}, {4, 6, 4}, {2, 6, 4}, {6, 6, 4}, {1, 6, 0},
                               {3, 6, 1},     {1, 6, 4}, {1, 6, 4}, {5, 0x40, -1}};
    ASSERT_EQ(std::size(expected), all.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
        SCOPED_TRACE(FusionSimFormatCall(all[i]));
        EXPECT_EQ(expected[i][0], all[i].opnum);
        EXPECT_EQ(expected[i][1], all[i].arg0);
        if (expected[i][2] >= 0) {
            EXPECT_EQ(expected[i][2], all[i].arg1);
        }
    }
    ASSERT_EQ(4u, all[2].dataLen);
    EXPECT_EQ(0, std::memcmp(all[2].data, "\x2a\0\0\0", 4));

    EXPECT_EQ(1, CountMessages(lines, "GetSensorDataProc:index 6,FusionFlag 6")) << "one waiting thread only";
    EXPECT_GE(FindMessage(lines, "268435457"), 0) << "GetFusionStatus writes the status word";
    // Formats ending in "\n" are followed by an empty line.
    int p2 = FindMessage(lines, "start fusion 6,Param 2,64");
    ASSERT_GE(p2, 0);
    EXPECT_EQ("", lines[p2 + 1]);
    EXPECT_NE("", Message(lines[p2 + 2])) << "StartFusion 2 writes one line and nothing else";
    int cb = FindMessage(lines, "SensorDataCallback,id 6");
    ASSERT_GE(cb, 1);
    EXPECT_EQ(0u, Message(lines[cb - 1]).rfind("Event!Event occur: ", 0)) << lines[cb - 1];
    EXPECT_EQ("", lines[cb + 1]);
    EXPECT_EQ("SensorDataCallback,end", Message(lines[cb + 2]));
    EXPECT_EQ(2, CountMessages(lines, "SensorDataCallback,end"));
    EXPECT_EQ(1, CountMessages(lines, "Thread exit 6"));
    // UnInitial's 32 status lines: the copy of 0x40 shifted right after each
    // index, with "Tread exit" at index 6. The waiting thread writes its own
    // lines meanwhile, so only UnInitial's are compared.
    std::vector<std::string> uninit, want;
    for (const auto& l : lines) {
        std::string msg = Message(l);
        if (msg.rfind("UnInitial,FusionStatus:", 0) == 0 || msg.rfind("Tread exit", 0) == 0)
            uninit.push_back(msg);
    }
    for (int i = 0; i < 32; ++i) {
        if (i == 6)
            want.push_back("Tread exit,index:6");
        want.push_back("UnInitial,FusionStatus:" + std::to_string(i < 31 ? 0x40u >> (i + 1) : 0u));
    }
    EXPECT_EQ(want, uninit);
    int after = FindMessage(lines, "UnInitial,FusionMask:64");
    ASSERT_GE(after, 0);
    int failed = 0;
    for (std::size_t i = after; i < lines.size(); ++i)
        failed += ExceptionCode(Message(lines[i]), "GetFusionStatus::") > 0;
    EXPECT_EQ(1, failed) << "one exception line for the call after close";
}

// ---- attention event missing, UnInitial without thread, the silenced log -----

CHILD_TEST(EventMissing)
{
    CHILD_ONLY();
    EXPECT_EQ(0x10000006, InitFusion());
    EXPECT_EQ(0u, g_fusion.FusionStatus);
    EXPECT_EQ(nullptr, g_fusion.threadHandles[6]);
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
    // UnInitial with no thread: 32 lines of 0, mask 0, opnum 5 sent.
    EXPECT_EQ(32, CountMessages(lines, "UnInitial,FusionStatus:0"));
    EXPECT_EQ(1, CountMessages(lines, "UnInitial,FusionMask:0"));
    EXPECT_EQ(0, CountMessages(lines, "Tread exit,index:6"));
    // Everything after the second open is lost, the version line included.
    EXPECT_EQ(1, CountMessages(lines, "InitFusion:FusionMask: 0x40"));
    auto c5 = CallsOf(5);
    ASSERT_EQ(2u, c5.size());
    EXPECT_EQ(0, c5[0].arg0);
    EXPECT_EQ(0x40, c5[1].arg0);
}

// ---- StartFusion 0 then 1: the waiting thread ends and comes back -------------

CHILD_TEST(StopAndStart)
{
    CHILD_ONLY();
    ASSERT_EQ(0, InitFusion());
    HANDLE dup = nullptr;
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), g_fusion.threadHandles[6], GetCurrentProcess(), &dup,
                                SYNCHRONIZE, FALSE, 0));
    EXPECT_EQ(0, StartFusion(nullptr, 0));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(dup, 0)) << "the waiting thread ended within 1000 ms";
    CloseHandle(dup);
    EXPECT_EQ(0u, g_fusion.FusionStatus);
    EXPECT_EQ(nullptr, g_fusion.threadHandles[6]);
    // A look-away while stopped reaches nobody; the event stays signalled
    // (auto-reset, nobody waited), so the restarted thread fetches at once.
    Capture cap;
    RegisterSensorDataCallback(OnSensorData, &cap);
    ASSERT_TRUE(FusionSimSetAttention(0, true));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(cap.done, 300));
    EXPECT_EQ(0, StartFusion(nullptr, 1));
    EXPECT_EQ(0x40u, g_fusion.FusionStatus);
    ASSERT_NE(nullptr, g_fusion.threadHandles[6]);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(cap.done, 10000));
    EXPECT_EQ(GetThreadId(g_fusion.threadHandles[6]), cap.threadId);
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
    EXPECT_EQ(1, CountMessages(lines, "start fusion 6,mask 0,0")) << "the restart saw bit 6 clear";
    auto c3 = CallsOf(3);
    ASSERT_EQ(2u, c3.size());
    EXPECT_EQ(0, c3[0].arg1);
    EXPECT_EQ(1, c3[1].arg1);
}

// ---- FusionSetting refused: the lock stays held --------------------------------

CHILD_TEST(SettingRefused)
{
    CHILD_ONLY();
    EXPECT_EQ(0x60000001, InitFusion());
    EXPECT_EQ(0u, g_fusion.FusionStatus);
    // Another thread's remote call blocks on the lock left held (bounded wait).
    HANDLE blocked = CreateThread(
        nullptr, 0,
        [](void*) -> DWORD {
            std::uint32_t s = kPoison;
            return static_cast<DWORD>(GetFusionStatus(nullptr, &s));
        },
        nullptr, 0, nullptr);
    ASSERT_NE(nullptr, blocked);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(blocked, 1500));
    // The holder may still enter, and its enter/leave leaves one level held.
    std::uint32_t status = kPoison;
    EXPECT_EQ(0, GetFusionStatus(nullptr, &status));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(blocked, 300));

    // The controller's retry: InitFusion again on the same thread starts from
    // a free lock. The blocked call goes through and events are delivered.
    ASSERT_TRUE(FusionSimClearForced(0));
    EXPECT_EQ(0, InitFusion());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(blocked, 5000)) << "lock still held after the retry";
    Capture cap;
    RegisterSensorDataCallback(OnSensorData, &cap);
    ASSERT_TRUE(FusionSimSetAttention(0, true));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(cap.done, 10000)) << "no event after the retry";
    EXPECT_EQ(0, UnInitial());
    std::fflush(stdout);
    ExitProcess(::testing::Test::HasFailure() ? 1 : 0);  // a blocked thread could not end otherwise
}

TEST(Client, FusionSettingRefusedKeepsTheLockHeld)
{
    Sim sim;
    ASSERT_TRUE(sim.ok());
    ASSERT_TRUE(FusionSimForceResult(0, 0x60000001));
    ASSERT_EQ(0u, RunChild("SettingRefused"));
    EXPECT_EQ(2u, CallsOf(4).size()) << "the holder's GetFusionStatus, then the released one";
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
    const std::regex stamp("^\\[\\d\\d-\\d\\d-\\d\\d-\\d\\d-\\d\\d:\\d{1,3}\\].*");
    for (std::size_t i = 1; i < lines.size(); ++i)  // the first is the version line
        if (!lines[i].empty()) {
            EXPECT_TRUE(std::regex_match(lines[i], stamp)) << lines[i].substr(0, 60);
        }
    const std::string msg = Message(lines.back());
    EXPECT_EQ(2047u, msg.size());
    EXPECT_EQ('E', msg.back());
}

CHILD_TEST(NoLogFolder)
{
    CHILD_ONLY();
    // A program-data folder whose parent does not exist: one level is created
    // at most, so the log cannot be made; InitFusion carries on without it.
    SetEnvironmentVariableW(L"ProgramData", L"C:\\no-such-dir\\deeper");
    EXPECT_EQ(0, InitFusion());
    EXPECT_EQ(0, UnInitial());
}

TEST(SensorLibLog, NoFolderMeansNoLogButInitGoesOn)
{
    Sim sim;
    ASSERT_TRUE(sim.ok());
    std::uint64_t at = LogSize();
    ASSERT_EQ(0u, RunChild("NoLogFolder"));
    EXPECT_EQ(at, LogSize());
    EXPECT_EQ(1u, CallsOf(5).size());
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(L"C:\\no-such-dir"));
}
