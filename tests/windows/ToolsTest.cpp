// The Windows tools as child processes: the command lines of
// data/tool-cases.txt, and logread.exe following a file the logger deletes.
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

// A tool of this folder, its output to out.txt and err.txt in `dir`.
HANDLE Start(const std::wstring& dir, const std::string& tool, const std::wstring& arguments) {
  return StartProcess(L"\"" + ExeDir() + Widen(tool) + L".exe\" " + arguments, dir + L"\\out.txt",
                      dir + L"\\err.txt");
}

TEST(ToolCli, ExitCodesAndOutput) {
  std::ifstream in(QX_TOOL_CASES);
  ASSERT_TRUE(in.good()) << QX_TOOL_CASES;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (line.empty() || line[0] == '#') continue;
    SCOPED_TRACE("tool-cases.txt:" + std::to_string(number));
    const std::vector<std::string> c = Split(line, "|");
    ASSERT_EQ(5u, c.size());
    const std::wstring dir = TempDir(L"tool-cli");
    EXPECT_EQ(std::stoi(c[2]), WaitChild(Start(dir, c[0], Widen(c[1])), 30000));
    for (int stream : {3, 4}) {
      const std::string output = ReadFileBytes(dir + (stream == 3 ? L"\\out.txt" : L"\\err.txt"));
      for (const std::string& part : Split(c[stream], "&&"))
        EXPECT_TRUE(part == "(nothing)" ? output.empty() : output.find(part) != std::string::npos)
            << part << " in:\n"
            << output;
    }
  }
}

bool Until(const std::function<bool()>& done) {
  for (DWORD waited = 0; waited <= 10000; waited += 10, Sleep(10))
    if (done()) return true;
  return false;
}

// logread -f opens with delete sharing and holds no handle between polls: the
// logger's delete succeeds, the name comes free, the new file is read from its
// start. The name is wide.
TEST(LogreadWindows, FollowLetsTheLoggerDeleteAndRecreateTheFile) {
  const std::wstring dir = TempDir(L"logread-follow"), log = dir + L"\\Протокол ü.log.logdat";
  const std::string first = "11-14 09:05:07:042 : [INF][04242] B.cpp(5) a\n",
                    second = "11-14 09:05:07:043 : [INF][04242] B.cpp(8) Grüße 注意力 😀\n";
  const auto out = [&](const wchar_t* name) { return ReadFileBytes(dir + name); };
  const auto printed = [&](const std::string& text) {
    return Until([&] { return out(L"\\out.txt").find(text) != std::string::npos; });
  };
  WriteFileBytes(log, logframe::EncodeFrame(first));
  const std::unique_ptr<void, int (*)(HANDLE)> tool(Start(dir, "logread", L"-f \"" + log + L"\""),
                                                    [](HANDLE h) { return WaitChild(h, 0); });
  ASSERT_TRUE(printed(first));
  for (int round = 0; round <= 10; ++round, Sleep(37)) {  // now and then during a read
    ASSERT_TRUE(DeleteFileW(log.c_str())) << round << ": " << GetLastError();
    ASSERT_TRUE(Until([&] { return !FileExists(log); })) << round;
    if (round < 10) WriteFileBytes(log, logframe::EncodeFrame(first));
  }
  const std::string note = "file was deleted; waiting for a new one";
  ASSERT_TRUE(Until([&] {
    const std::string err = out(L"\\err.txt");
    const std::size_t at = err.rfind(note);
    return at != std::string::npos && err.find("reading it from", at) == std::string::npos;
  })) << out(L"\\err.txt");
  WriteFileBytes(log, logframe::EncodeFrame(second));
  EXPECT_TRUE(printed(second)) << out(L"\\out.txt");
  EXPECT_NE(std::string::npos, out(L"\\err.txt").find("reading it from the beginning"));
}

}  // namespace
