// logread's reading and summary of any bytes: damage ends in a note and an exit
// status, never a crash. First byte: bit 0 JSON, bit 1 after a sensor log's head.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "Console.h"
#include "FuzzCheck.h"
#include "LogInput.h"
#include "Summary.h"
#include "Timeline.h"

namespace {

const std::string kPath = "/tmp/fuzz_logread_summary." + std::to_string(getpid());
constexpr char kSensorHead[] =
    "Version:0.0.0.3\r\n[11-25-20-08-46:478]InitFusion:FusionMask: 0x40\r\n";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (!std::freopen("/dev/null", "w", stdout)) std::abort();
  logread::SetQuiet(true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const bool json = data[0] & 1, after_head = data[0] & 2;
  {
    std::FILE* file = std::fopen(kPath.c_str(), "wb");
    if (!file) std::abort();
    if (after_head) std::fputs(kSensorHead, file);
    std::fwrite(data + 1, 1, size - 1, file);
    std::fclose(file);
  }
  logread::Timeline timeline;
  timeline.SetYear(2026);
  timeline.Add(std::make_unique<logread::LogSource>(kPath, "input", logread::FormatChoice::kAuto));
  logread::Summary summary(timeline, json);
  timeline.Load();
  const int merged = timeline.Merge(summary);
  const int code = summary.Print();
  CHECK(merged >= 0 && merged <= 3);
  CHECK(code >= 0 && code <= 5);
  CHECK(code == merged || code >= logread::kExitVerdictOff);
  return 0;
}
