// fusion-sim itself: as the real service "VantoqSensorFusion" (SCM, net.exe),
// and the knobs other tests rely on (held replies, dropped event, forced codes).
#include "FusionClientState.h"
#include "FusionTestSupport.h"

#include <cstring>
#include <string>

using namespace fusiontest;

namespace {

// Runs "net.exe <args>" and returns its exit code (bounded).
DWORD RunNet(const std::wstring& args)
{
    std::wstring cmd = L"net.exe " + args;
    STARTUPINFOW si{};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi{};
    if (!CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi))
        return 0xBAD;
    CloseHandle(pi.hThread);
    DWORD code = 0xDEAD;
    if (WaitForSingleObject(pi.hProcess, 30000) == WAIT_OBJECT_0)
        GetExitCodeProcess(pi.hProcess, &code);
    else
        TerminateProcess(pi.hProcess, code);
    CloseHandle(pi.hProcess);
    return code;
}

bool WaitState(DWORD state, DWORD timeoutMs)
{
    for (DWORD start = GetTickCount(); GetTickCount() - start < timeoutMs; Sleep(20))
        if (FusionSimServiceState() == state)
            return true;
    return false;
}

}  // namespace

TEST(SimService, NetStartServesAndNetStopEnds)
{
    ASSERT_TRUE(FusionSimInstallService(L"--status 0x10000001 --delay 25"));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), FusionSimServiceState());
    EXPECT_EQ(0u, RunNet(L"start VantoqSensorFusion"));
    ASSERT_TRUE(WaitState(SERVICE_RUNNING, 10000));
    ASSERT_TRUE(FusionSimWaitReady(10000));

    HANDLE ev = OpenEventW(GENERIC_READ | SYNCHRONIZE, FALSE, L"Global\\Vantoq.SensorFusion.AttentionEVENT");
    EXPECT_NE(nullptr, ev);
    if (ev)
        CloseHandle(ev);
    FusionSimModel m{};
    ASSERT_TRUE(FusionSimGetModel(&m));
    EXPECT_EQ(0x10000001u, m.statusWord);
    EXPECT_EQ(25u, m.delay);

    EXPECT_EQ(0u, RunNet(L"stop VantoqSensorFusion"));
    EXPECT_TRUE(WaitState(SERVICE_STOPPED, 10000));
    EXPECT_FALSE(FusionSimWaitReady(0));
    // Start and stop through the library as well, then remove it.
    EXPECT_TRUE(FusionSimStartService());
    EXPECT_TRUE(FusionSimUninstallService());
    EXPECT_EQ(0u, FusionSimServiceState());
    EXPECT_FALSE(FusionSimWaitReady(0));
}

CHILD_TEST(Knobs)
{
    CHILD_ONLY();
    // A dropped attention event does not exist for a client that opens it later.
    ASSERT_TRUE(FusionSimDropAttentionEvent(true));
    FusionSimModel m{};
    ASSERT_TRUE(FusionSimGetModel(&m));
    EXPECT_FALSE(m.attentionEventPresent);
    EXPECT_FALSE(FusionSimSignal(6));
    EXPECT_EQ(0x10000006, InitFusion());
    EXPECT_EQ(0u, g_fusion.FusionStatus);
    // Restored: StartFusion(1) opens it and starts the thread itself.
    ASSERT_TRUE(FusionSimDropAttentionEvent(false));
    EXPECT_EQ(0, StartFusion(nullptr, 1));
    EXPECT_EQ(0x40u, g_fusion.FusionStatus);
    EXPECT_TRUE(FusionSimSignal(6));

    // Held replies: the call arrives, its reply waits until released. (The
    // fetch of the signal above must be over first: it holds the client's lock.)
    ASSERT_TRUE(FusionSimWaitCalls(3, 5000));  // opnum 0, 3, and the fetch (1)
    for (DWORD t0 = GetTickCount(); GetTickCount() - t0 < 5000; Sleep(5)) {
        auto fetch = CallsOf(1);
        if (!fetch.empty() && fetch[0].answered)
            break;
    }
    Sleep(20);  // the reply is on its way back; the client leaves the lock after it
    ASSERT_TRUE(FusionSimHoldReplies(true));
    HANDLE caller = CreateThread(
        nullptr, 0,
        [](void*) -> DWORD {
            std::uint32_t s = 0xdeadbeef;
            return static_cast<DWORD>(GetFusionStatus(nullptr, &s));
        },
        nullptr, 0, nullptr);
    ASSERT_TRUE(FusionSimWaitCalls(4, 5000));  // opnum 0, 3, 1 (the signal above), then 4
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(caller, 500));
    auto held = CallsOf(4);
    ASSERT_EQ(1u, held.size());
    EXPECT_EQ(0u, held[0].answered);
    ASSERT_TRUE(FusionSimHoldReplies(false));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(caller, 10000));
    DWORD rc = 99;
    GetExitCodeThread(caller, &rc);
    EXPECT_EQ(0u, rc);
    CloseHandle(caller);
    EXPECT_EQ(1u, CallsOf(4)[0].answered);

    // Forced code for every opnum, then back to normal.
    ASSERT_TRUE(FusionSimForceResult(-1, 0x60000006));
    std::uint32_t v = 0;
    EXPECT_EQ(0x60000006, GetFusionStatus(nullptr, &v));
    EXPECT_EQ(0x60000006, SetFusionDelay(nullptr, &v));
    EXPECT_EQ(0x60000006, StartFusion(nullptr, 0));  // stops the thread, then the refused call
    ASSERT_TRUE(FusionSimClearForced(-1));
    EXPECT_EQ(0, GetFusionStatus(nullptr, &v));

    EXPECT_EQ(0, UnInitial());
}

TEST(SimControl, HeldRepliesForcedCodesAndDroppedEvent)
{
    Sim sim;
    ASSERT_TRUE(sim.ok());
    ASSERT_EQ(0u, RunChild("Knobs"));
    // The record keeps what the simulator answered to each call.
    auto c4 = CallsOf(4);
    ASSERT_EQ(3u, c4.size());
    EXPECT_EQ(0, c4[0].result);
    EXPECT_EQ(0x60000006, c4[1].result);
    EXPECT_EQ(0, c4[2].result);
    ASSERT_EQ(4u, c4[0].dataLen);
    EXPECT_EQ(0, std::memcmp(c4[0].data, "\x01\x00\x00\x10", 4));  // 0x10000001 (started), little-endian
}

TEST(SimControl, SecondSimulatorRefusesToStart)
{
    Sim sim;
    ASSERT_TRUE(sim.ok());
    // Started directly (FusionSimLaunch would not even try): it must notice the
    // first one and end with exit code 1, leaving the first one serving.
    std::wstring cmd = L"\"" + FusionSimExePath() + L"\" run --quiet";
    STARTUPINFOW si{};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi{};
    ASSERT_TRUE(CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi));
    CloseHandle(pi.hThread);
    DWORD code = 0xDEAD;
    if (WaitForSingleObject(pi.hProcess, 15000) == WAIT_OBJECT_0)
        GetExitCodeProcess(pi.hProcess, &code);
    else
        TerminateProcess(pi.hProcess, code);
    CloseHandle(pi.hProcess);
    EXPECT_EQ(1u, code);
    EXPECT_TRUE(FusionSimWaitReady(0));
    EXPECT_TRUE(FusionSimSetStatus(0));
}
