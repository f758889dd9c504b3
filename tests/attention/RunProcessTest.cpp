// RunProcess through the real shell: exit codes, the records it writes, the
// working folder it gives the child, and the no-wait path.
#include <gtest/gtest.h>
#include <windows.h>

#include <fstream>
#include <string>

#include "CommonHelper.h"
#include "TestLog.h"

namespace {

std::wstring TempFolder() {
  wchar_t temp[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, temp);
  std::wstring folder = temp;
  if (!folder.empty() && folder.back() == L'\\') folder.pop_back();
  return folder;
}

std::wstring SystemFolder() {
  wchar_t system[MAX_PATH] = {};
  GetSystemDirectoryW(system, MAX_PATH);
  return system;
}

std::string Narrow(const std::wstring& text) {
  std::string out;
  for (wchar_t c : text) out += static_cast<char>(c);
  return out;
}

std::string ReadTrimmed(const std::wstring& path) {
  std::ifstream in(Narrow(path));
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) text.pop_back();
  return text;
}

class RunProcessTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { testlog::SetUp(L"qx_runprocess_test.log"); }
};

TEST_F(RunProcessTest, WaitReturnsExitCodeAndWritesSignalRecord) {
  const std::size_t mark = testlog::Mark();
  EXPECT_EQ(7u, RunProcess(L"cmd.exe", L"/c exit 7", true));
  EXPECT_EQ(0u, RunProcess(L"cmd.exe", L"/c exit 0", true));

  const auto records = testlog::Since(mark);
  ASSERT_EQ(2u, records.size()) << testlog::Dump(records);
  for (const auto& r : records) {
    EXPECT_EQ("[INF]", r.tag);
    EXPECT_EQ("CommonHelper", r.source);  // only the file part of "impl\CommonHelper"
    EXPECT_EQ(3188, r.line);
  }
  EXPECT_EQ("WaitFor RunProcess Signal On, dwCode 7", records[0].text);
  EXPECT_EQ("WaitFor RunProcess Signal On, dwCode 0", records[1].text);
}

TEST_F(RunProcessTest, AbsentParametersCountAsEmpty) {
  // hostname.exe ignores an empty command line and exits 0; a null parameters
  // pointer must neither crash nor stop the child from running.
  const std::size_t mark = testlog::Mark();
  EXPECT_EQ(0u, RunProcess(L"hostname.exe", nullptr, true));
  const auto records = testlog::Since(mark);
  ASSERT_EQ(1u, records.size()) << testlog::Dump(records);
  EXPECT_EQ("WaitFor RunProcess Signal On, dwCode 0", records[0].text);
}

TEST_F(RunProcessTest, NoWaitReturnsZeroAtOnceWithoutRecord) {
  const std::wstring flag = TempFolder() + L"\\qx_runprocess_nowait.txt";
  DeleteFileW(flag.c_str());
  const std::size_t mark = testlog::Mark();
  // The child exits 9 after writing its flag; not waiting means 0 and no record.
  const std::wstring args = L"/c echo done> \"" + flag + L"\"& exit 9";
  EXPECT_EQ(0u, RunProcess(L"cmd.exe", args.c_str(), false));
  EXPECT_TRUE(testlog::Since(mark).empty()) << testlog::Dump(testlog::Since(mark));

  // The child did run: its flag shows up (bounded wait).
  bool seen = false;
  for (int i = 0; i < 100 && !seen; ++i) {
    seen = GetFileAttributesW(flag.c_str()) != INVALID_FILE_ATTRIBUTES;
    if (!seen) Sleep(50);
  }
  EXPECT_TRUE(seen);
  EXPECT_TRUE(testlog::Since(mark).empty()) << testlog::Dump(testlog::Since(mark));
}

TEST_F(RunProcessTest, WorkingFolderOnlyWhenProgramPathExists) {
  const std::wstring temp = TempFolder();
  const std::wstring out = temp + L"\\qx_runprocess_cwd.txt";
  const std::wstring args = L"/c cd > \"" + out + L"\"";

  wchar_t previous[MAX_PATH] = {};
  GetCurrentDirectoryW(MAX_PATH, previous);
  ASSERT_TRUE(SetCurrentDirectoryW(temp.c_str()));

  // A full path that exists: the child starts in the program's folder, not in
  // the caller's.
  DeleteFileW(out.c_str());
  const std::wstring cmdPath = SystemFolder() + L"\\cmd.exe";
  EXPECT_EQ(0u, RunProcess(cmdPath.c_str(), args.c_str(), true));
  EXPECT_EQ(0, _stricmp(Narrow(SystemFolder()).c_str(), ReadTrimmed(out).c_str()))
      << ReadTrimmed(out);

  // A bare name is not found as a file, gets no working folder, and so starts
  // in the caller's current folder.
  DeleteFileW(out.c_str());
  EXPECT_EQ(0u, RunProcess(L"cmd.exe", args.c_str(), true));
  EXPECT_EQ(0, _stricmp(Narrow(temp).c_str(), ReadTrimmed(out).c_str())) << ReadTrimmed(out);

  SetCurrentDirectoryW(previous);
}

}  // namespace
