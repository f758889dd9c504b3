// What the client scenarios (sim.txt) cannot show: the guard that turns what
// C++ cannot catch into a code, and fusion-sim as the real service
// "VantoqSensorFusion" (start arguments, the SCM, net.exe).
#include "FusionSehGuard.h"
#include "FusionSimCtl.h"

#include <gtest/gtest.h>

namespace {

DWORD RunNet(std::wstring args)
{
    STARTUPINFOW si{};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi{};
    args = L"net.exe " + args;
    if (!CreateProcessW(nullptr, args.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi))
        return 0xBAD;
    DWORD code = 0xDEAD;
    if (WaitForSingleObject(pi.hProcess, 30000) == WAIT_OBJECT_0)
        GetExitCodeProcess(pi.hProcess, &code);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    return code;
}

bool WaitState(DWORD state)
{
    for (DWORD start = GetTickCount(); GetTickCount() - start < 10000; Sleep(20))
        if (FusionSimServiceState() == state)
            return true;
    return false;
}

}  // namespace

TEST(Guard, CatchesAccessViolationAndRpcExceptionsAndExecutionGoesOn)
{
    EXPECT_EQ(0xC0000005ul, FusionSehCall([](void*) { *static_cast<volatile int*>(nullptr) = 1; }, nullptr));
    EXPECT_EQ(1722ul, FusionSehCall([](void*) { RaiseException(RPC_S_SERVER_UNAVAILABLE, 0, 0, nullptr); }, nullptr));
    int ran = 0;
    EXPECT_EQ(0ul, FusionSehCall([](void* p) { ++*static_cast<int*>(p); }, &ran));
    EXPECT_EQ(1, ran);
}

TEST(SimService, NetStartServesAndNetStopEnds)
{
    ASSERT_TRUE(FusionSimInstallService(L"--status 0x10000001 --delay 25"));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), FusionSimServiceState());
    EXPECT_EQ(0u, RunNet(L"start VantoqSensorFusion"));
    ASSERT_TRUE(WaitState(SERVICE_RUNNING));
    ASSERT_TRUE(FusionSimWaitReady(10000));
    HANDLE event = OpenEventW(GENERIC_READ | SYNCHRONIZE, FALSE, L"Global\\Vantoq.SensorFusion.AttentionEVENT");
    EXPECT_NE(nullptr, event);
    CloseHandle(event);
    FusionSimModel m{};
    ASSERT_TRUE(FusionSimGetModel(&m));
    EXPECT_EQ(0x10000001u, m.statusWord);
    EXPECT_EQ(25u, m.delay);

    EXPECT_EQ(0u, RunNet(L"stop VantoqSensorFusion"));
    EXPECT_TRUE(WaitState(SERVICE_STOPPED));
    EXPECT_FALSE(FusionSimWaitReady(0));
    EXPECT_TRUE(FusionSimStartService());
    EXPECT_TRUE(FusionSimUninstallService());
    EXPECT_EQ(0u, FusionSimServiceState());
    EXPECT_FALSE(FusionSimWaitReady(0));
}
