// The Windows tools as child processes: the command lines of qxhost.exe,
// fusion-sim.exe and logread.exe from data/tool-cases.txt, then what differs
// for logread.exe from the native build: following a file the logger deletes
// and creates again, named on the wide command line, to binary standard output.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "LogFrame.h"
#include "TestSupport.h"

namespace {

using namespace testsupport;

std::vector<std::string> Split(const std::string& text, const std::string& separator) {
  std::vector<std::string> parts;
  for (std::size_t at = 0, next = 0; next != std::string::npos; at = next + separator.size()) {
    std::string part = text.substr(at, (next = text.find(separator, at)) - at);
    part.erase(0, part.find_first_not_of(" \t\r"));
    parts.push_back(part.erase(part.find_last_not_of(" \t\r") + 1));
  }
  return parts;
}

// Runs a tool beside this program; its exit code (-1: not ended in time).
int RunTool(const std::wstring& dir, const std::string& tool, const std::wstring& arguments) {
  return WaitChild(StartProcess(L"\"" + ExeDir() + Widen(tool) + L".exe\" " + arguments,
                                dir + L"\\out.txt", dir + L"\\err.txt"),
                   30000);
}

// Every case of the table: the exit code, and the texts each stream must hold
// (separated by "&&"; "(nothing)": empty).
TEST(ToolCli, ExitCodesAndOutput) {
  std::ifstream in(QX_TOOL_CASES);
  ASSERT_TRUE(in.good()) << QX_TOOL_CASES;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (line.find_first_not_of(" \t\r") == std::string::npos || line[0] == '#') continue;
    SCOPED_TRACE("tool-cases.txt:" + std::to_string(number));
    const std::vector<std::string> c = Split(line, "|");
    ASSERT_EQ(5u, c.size());
    const std::wstring dir = TempDir(L"tool-cli");
    EXPECT_EQ(std::stoi(c[2]), RunTool(dir, c[0], Widen(c[1])));
    for (int stream : {3, 4}) {
      const std::string output = ReadFileBytes(dir + (stream == 3 ? L"\\out.txt" : L"\\err.txt"));
      for (const std::string& part : Split(c[stream], "&&"))
        if (!part.empty()) {  // an empty column: not checked
          EXPECT_TRUE(part == "(nothing)" ? output.empty() : output.find(part) != std::string::npos)
              << part << " in:\n"
              << output;
        }
    }
  }
}

const std::string kRecords[] = {
    "11-14 09:05:07:042 : [INF][04242] Bridge.cpp(57) get_ability\n",
    "11-14 09:05:07:043 : [INF][04242] Bridge.cpp(58) Grüße 注意力 😀\n"};

// The logger deletes its file at the size limit while logread follows it (its
// name on the wide command line; records printed as they are, "\n" never
// "\r\n"): the deletion must succeed (logread opens with delete sharing), the
// name must come free within a poll or two (logread holds no handle between
// polls), and the new file is read from its beginning. A delete during one of
// logread's reads leaves the name taken until the read ends (delete pending),
// so the writer waits for the name to come free, as a new record would find it.
bool Until(const std::function<bool()>& done) {
  for (DWORD waited = 0; waited <= 10000; waited += 10, Sleep(10))
    if (done()) return true;
  return false;
}

TEST(LogreadWindows, FollowLetsTheLoggerDeleteAndRecreateTheFile) {
  const std::wstring dir = TempDir(L"logread-follow"), log = dir + L"\\Протокол ü.log.logdat";
  const auto gone = [&] { return !FileExists(log); };
  const auto printed = [&](const std::string& text) {
    return Until([&] { return ReadFileBytes(dir + L"\\out.txt").find(text) != std::string::npos; });
  };
  WriteFileBytes(log, logframe::EncodeFrame(kRecords[0]));
  HANDLE tool = StartProcess(L"\"" + ExeDir() + L"logread.exe\" -f \"" + log + L"\"",
                             dir + L"\\out.txt", dir + L"\\err.txt");
  const std::unique_ptr<void, int (*)(HANDLE)> end(tool, [](HANDLE h) { return WaitChild(h, 0); });
  ASSERT_TRUE(printed(kRecords[0]));
  for (int round = 0; round <= 10; ++round, Sleep(37)) {  // catch the tool while it reads, too
    ASSERT_TRUE(DeleteFileW(log.c_str())) << "round " << round << ": " << GetLastError();
    ASSERT_TRUE(Until(gone)) << "round " << round << ": logread keeps the deleted name";
    if (round < 10) WriteFileBytes(log, logframe::EncodeFrame(kRecords[0]));
  }
  // Written once logread has seen the name gone (its last note says so), so
  // that it must read the new file from the beginning.
  const std::string note = "file was deleted; waiting for a new one";
  ASSERT_TRUE(Until([&] {
    const std::string err = ReadFileBytes(dir + L"\\err.txt");
    const std::size_t at = err.rfind(note);
    return at != std::string::npos && err.find("reading it from", at) == std::string::npos;
  })) << ReadFileBytes(dir + L"\\err.txt");
  WriteFileBytes(log, logframe::EncodeFrame(kRecords[1]));
  EXPECT_TRUE(printed(kRecords[1])) << ReadFileBytes(dir + L"\\out.txt");
  EXPECT_EQ(std::string::npos, ReadFileBytes(dir + L"\\out.txt").find('\r'));
  EXPECT_NE(std::string::npos,
            ReadFileBytes(dir + L"\\err.txt").find("reading it from the beginning"));
}

}  // namespace
