// Helpers of the fusion client tests: re-launching this program in a child
// role (the client's state is process-wide, and some cases leave it broken on
// purpose), reading what a child wrote to SensorLibLog.log, the call record.
#pragma once

#include "FusionSimCtl.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace fusiontest {

std::uint64_t LogSize();  // of SensorLibLog.log, 0 when absent
// Lines appended since `offset` (CRLF split, empty lines kept).
std::vector<std::string> LogLinesSince(std::uint64_t offset);
// The message part of a log line: what follows "[MM-DD-hh-mm-ss:ms]".
std::string Message(const std::string& line);
// Number of stamped lines whose message equals `text`, and the first at or after `from` (-1: none).
int CountMessages(const std::vector<std::string>& lines, const std::string& text);
int FindMessage(const std::vector<std::string>& lines, const std::string& text, int from = 0);

// Runs this program again with --gtest_filter=Child.<name>, killed after
// timeoutMs. Returns the exit code (0xDEAD when killed).
DWORD RunChild(const std::string& name, DWORD timeoutMs = 60000);

std::vector<FusionSimCall> CallsOf(int opnum);

// A console simulator for the length of a scope.
class Sim {
public:
    explicit Sim(const std::wstring& args = L"") { ok_ = FusionSimLaunch(args, 20000, &proc_); }
    ~Sim() { if (ok_) FusionSimQuit(10000, &proc_); }
    bool ok() const { return ok_; }

private:
    FusionSimProcess proc_;
    bool ok_ = false;
};

}  // namespace fusiontest

// A child case: skipped in the parent run, run by RunChild.
#define CHILD_TEST(name) TEST(Child, name)
#define CHILD_ONLY() \
    do { \
        if (GetEnvironmentVariableA("FUSION_TEST_CHILD", nullptr, 0) == 0) \
            GTEST_SKIP() << "runs as a child of another case"; \
    } while (0)
