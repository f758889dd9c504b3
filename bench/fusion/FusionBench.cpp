// Cost of the fusion client against fusion-sim, in one run:
//  - per remote call: the client wrappers (lock, guard, stub, and for
//    GetFusionStatus its log line) beside a bare widl stub call on the same binding;
//  - latency from the attention event being signalled to the data callback
//    running on the client's waiting thread (wake-up, log lines, opnum 1 fetch).
// Usage: fusion-bench [calls per kind, default 2000] [events, default 200]
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <vector>

#include "BenchPlugin.h"
#include "FusionClientState.h"
#include "FusionRpc.h"
#include "FusionSimCtl.h"

namespace {

void Report(const char* name, const std::vector<double>& us) {
  std::printf("%-34s n=%-5zu median %8.1f us  p90 %8.1f us  mean %8.1f us\n", name, us.size(),
              bench::Median(us), bench::Quantile(us, 0.9),
              std::accumulate(us.begin(), us.end(), 0.0) / us.size());
}

HANDLE g_callbackDone = CreateEventW(nullptr, FALSE, FALSE, nullptr);
volatile double g_callbackAt;

void OnData(void*, std::int32_t, void*) {
  g_callbackAt = bench::Seconds();
  SetEvent(g_callbackDone);
}

}  // namespace

int main(int argc, char** argv) {
  const int calls = argc > 1 ? std::atoi(argv[1]) : 2000;
  const int events = argc > 2 ? std::atoi(argv[2]) : 200;
  FusionSimProcess sim;
  if (!FusionSimLaunch(L"", 15000, &sim)) {
    std::fprintf(stderr, "fusion-bench: cannot start fusion-sim\n");
    return 1;
  }
  if (InitFusion() != 0) {
    std::fprintf(stderr, "fusion-bench: InitFusion failed\n");
    FusionSimQuit(5000, &sim);
    return 1;
  }
  // Interleaved, so that drift hits all kinds alike.
  std::vector<double> us[4];
  std::uint32_t word = 0, delay = 0, newDelay = 20;
  FusionRecord buf;
  for (int i = 0; i < calls; ++i) {
    double t[5];
    t[0] = bench::Seconds();
    FusionRpcGetSensorStatus(g_fusion.bindingHandle, 6, 4, &buf);
    t[1] = bench::Seconds();
    GetFusionStatus(nullptr, &word);
    t[2] = bench::Seconds();
    GetFusionDelay(nullptr, &delay);
    t[3] = bench::Seconds();
    SetFusionDelay(nullptr, &newDelay);
    t[4] = bench::Seconds();
    for (int k = 0; k < 4; ++k) us[k].push_back((t[k + 1] - t[k]) * 1e6);
  }
  Report("bare stub FusionRpcGetSensorStatus", us[0]);
  Report("GetFusionStatus (wrapper + log)", us[1]);
  Report("GetFusionDelay (wrapper)", us[2]);
  Report("SetFusionDelay (wrapper)", us[3]);

  RegisterSensorDataCallback(OnData, nullptr);
  std::vector<double> latency;
  for (int i = 0; i < events; ++i) {
    const double t0 = bench::Seconds();
    FusionSimSetAttention(i & 1, true);
    if (WaitForSingleObject(g_callbackDone, 5000) != WAIT_OBJECT_0) {
      std::fprintf(stderr, "fusion-bench: callback did not run\n");
      break;
    }
    latency.push_back((g_callbackAt - t0) * 1e6);
  }
  if (!latency.empty()) Report("event signalled -> data callback", latency);
  UnInitial();
  FusionSimQuit(5000, &sim);
  return 0;
}
