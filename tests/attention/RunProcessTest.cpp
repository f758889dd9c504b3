// RunProcess through the real shell: exit codes and the record, the no-wait
// path, and the working folder it gives the child.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "CommonHelper.h"
#include "TestLog.h"
#include "TestSupport.h"

namespace {

std::wstring TempFolder() {
  wchar_t temp[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, temp);
  std::wstring folder = temp;
  if (!folder.empty() && folder.back() == L'\\') folder.pop_back();
  return folder;
}

// The log is set up by the program's environment (AttentionTest.cpp).
using RunProcessTest = ::testing::Test;

TEST_F(RunProcessTest, WaitReturnsExitCodeAndWritesSignalRecord) {
  const std::size_t mark = testlog::Mark();
  EXPECT_EQ(7u, RunProcess(L"cmd.exe", L"/c exit 7", true));
  // hostname.exe ignores an empty command line: absent parameters count as empty.
  EXPECT_EQ(0u, RunProcess(L"hostname.exe", nullptr, true));

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

TEST_F(RunProcessTest, NoWaitReturnsZeroAtOnceWithoutRecord) {
  const std::wstring flag = TempFolder() + L"\\qx_runprocess_nowait.txt";
  DeleteFileW(flag.c_str());
  const std::size_t mark = testlog::Mark();
  const std::wstring args = L"/c echo done> \"" + flag + L"\"& exit 9";
  EXPECT_EQ(0u, RunProcess(L"cmd.exe", args.c_str(), false));
  // The child did run (bounded wait for its flag), and no record came of it.
  for (int i = 0; i < 100 && !testsupport::FileExists(flag); ++i) Sleep(50);
  EXPECT_TRUE(testsupport::FileExists(flag));
  EXPECT_TRUE(testlog::Since(mark).empty()) << testlog::Dump(testlog::Since(mark));
}

TEST_F(RunProcessTest, WorkingFolderOnlyWhenProgramPathExists) {
  const std::wstring temp = TempFolder();
  const std::wstring out = temp + L"\\qx_runprocess_cwd.txt";
  const std::wstring args = L"/c cd > \"" + out + L"\"";
  const auto childFolder = [&] {
    std::string text = testsupport::ReadFileBytes(out);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
    return text;
  };
  wchar_t system[MAX_PATH] = {}, previous[MAX_PATH] = {};
  GetSystemDirectoryW(system, MAX_PATH);
  GetCurrentDirectoryW(MAX_PATH, previous);
  ASSERT_TRUE(SetCurrentDirectoryW(temp.c_str()));

  // A full path that exists: the child starts in the program's folder.
  EXPECT_EQ(0u, RunProcess((std::wstring(system) + L"\\cmd.exe").c_str(), args.c_str(), true));
  EXPECT_EQ(0, _stricmp(testsupport::Narrow(system).c_str(), childFolder().c_str())) << childFolder();
  // A bare name is not found as a file: no working folder, the caller's is used.
  EXPECT_EQ(0u, RunProcess(L"cmd.exe", args.c_str(), true));
  EXPECT_EQ(0, _stricmp(testsupport::Narrow(temp).c_str(), childFolder().c_str())) << childFolder();

  SetCurrentDirectoryW(previous);
}

}  // namespace
