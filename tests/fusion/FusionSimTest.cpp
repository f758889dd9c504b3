// fusion-sim itself as the real service "VantoqSensorFusion": its start
// arguments, the SCM and net.exe. Its other knobs are proven by the client tests.
#include "FusionTestSupport.h"

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
