// Shared helpers of the fusion client tests: re-launching the test program in
// a child role (the client's state is process-wide, and some cases leave it
// broken on purpose), reading what a child wrote to SensorLibLog.log, and
// looking at the simulator's call record.
#pragma once

#include "FusionSimCtl.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace fusiontest {

// True inside a child run (FUSION_TEST_CHILD set by RunChild).
bool IsChild();

// Path of SensorLibLog.log in the current prefix.
std::string LogPath();
// Current size of the log (0 when absent).
std::uint64_t LogSize();
// Lines (CRLF split, empty lines kept) appended since `offset`.
std::vector<std::string> LogLinesSince(std::uint64_t offset);
// The message part of a log line: what follows "[MM-DD-hh-mm-ss:ms]".
std::string Message(const std::string& line);
// Number of lines whose message equals `text`.
int CountMessages(const std::vector<std::string>& lines, const std::string& text);
// Index of the first line whose message equals `text` at or after `from`, or -1.
int FindMessage(const std::vector<std::string>& lines, const std::string& text, int from = 0);

// Runs this program again with --gtest_filter=Child.<name>, bounded by
// timeoutMs (killed after it). Returns the exit code (0xDEAD when killed).
DWORD RunChild(const std::string& name, DWORD timeoutMs = 60000);

// Calls of one opnum in the simulator's record.
std::vector<FusionSimCall> CallsOf(int opnum);

// A console simulator for the length of a scope.
class Sim {
public:
    explicit Sim(const std::wstring& args = L"");
    ~Sim();
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
        if (!fusiontest::IsChild()) \
            GTEST_SKIP() << "runs as a child of another case"; \
    } while (0)
