// Cost of the fusion client against fusion-sim, in one run:
//  - per remote call: the client wrappers (lock, guard, stub, and for
//    GetFusionStatus its log line) beside a bare widl stub call on the same binding;
//  - latency from the attention event being signalled to the data callback
//    running on the client's waiting thread (wake-up, log lines, opnum 1 fetch).
// Usage: fusion-bench [calls per kind, default 2000] [events, default 200]
#include "FusionClientState.h"
#include "FusionRpc.h"
#include "FusionSimCtl.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

LARGE_INTEGER g_freq;
double Us(LONGLONG ticks) { return ticks * 1e6 / static_cast<double>(g_freq.QuadPart); }
LONGLONG Now()
{
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return t.QuadPart;
}

void Report(const char* name, std::vector<double> us)
{
    std::sort(us.begin(), us.end());
    double sum = 0;
    for (double v : us)
        sum += v;
    std::printf("%-34s n=%-5zu median %8.1f us  p90 %8.1f us  mean %8.1f us\n", name, us.size(), us[us.size() / 2],
                us[us.size() * 9 / 10], sum / us.size());
}

HANDLE g_callbackDone;
volatile LONGLONG g_callbackAt;

void OnData(void*, std::int32_t, void*)
{
    g_callbackAt = Now();
    SetEvent(g_callbackDone);
}

}  // namespace

int main(int argc, char** argv)
{
    int calls = argc > 1 ? std::atoi(argv[1]) : 2000;
    int events = argc > 2 ? std::atoi(argv[2]) : 200;
    QueryPerformanceFrequency(&g_freq);
    FusionSimProcess sim;
    if (!FusionSimLaunch(L"", 15000, &sim)) {
        std::fprintf(stderr, "fusion-bench: cannot start fusion-sim\n");
        return 1;
    }
    int rc = 1;
    if (InitFusion() != 0) {
        std::fprintf(stderr, "fusion-bench: InitFusion failed\n");
    } else {
        std::vector<double> bare, status, delayGet, delaySet;
        std::uint32_t word = 0, delay = 0, newDelay = 20;
        byte buf[4];
        for (int i = 0; i < calls; ++i) {  // interleaved, so drift hits all kinds alike
            LONGLONG t0 = Now();
            FusionRpcGetSensorStatus(g_fusion.bindingHandle, 6, 4, buf);
            LONGLONG t1 = Now();
            GetFusionStatus(nullptr, &word);
            LONGLONG t2 = Now();
            GetFusionDelay(nullptr, &delay);
            LONGLONG t3 = Now();
            SetFusionDelay(nullptr, &newDelay);
            LONGLONG t4 = Now();
            bare.push_back(Us(t1 - t0));
            status.push_back(Us(t2 - t1));
            delayGet.push_back(Us(t3 - t2));
            delaySet.push_back(Us(t4 - t3));
        }
        Report("bare stub FusionRpcGetSensorStatus", bare);
        Report("GetFusionStatus (wrapper + log)", status);
        Report("GetFusionDelay (wrapper)", delayGet);
        Report("SetFusionDelay (wrapper)", delaySet);

        g_callbackDone = CreateEventW(nullptr, FALSE, FALSE, nullptr);
        RegisterSensorDataCallback(OnData, nullptr);
        std::vector<double> latency;
        for (int i = 0; i < events; ++i) {
            LONGLONG t0 = Now();
            FusionSimSetAttention(i & 1, true);
            if (WaitForSingleObject(g_callbackDone, 5000) != WAIT_OBJECT_0) {
                std::fprintf(stderr, "fusion-bench: callback did not run\n");
                break;
            }
            latency.push_back(Us(g_callbackAt - t0));
        }
        if (!latency.empty())
            Report("event signalled -> data callback", latency);
        UnInitial();
        rc = 0;
    }
    FusionSimQuit(5000, &sim);
    return rc;
}
