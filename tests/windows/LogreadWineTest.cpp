// logread.exe as a Windows program: run from a test process with its output
// redirected to files, on a file with a non-ASCII name. Checks what differs
// from the native build: the wide command line, binary standard output (no
// "\r\n"), and following a file that is deleted and created again while the
// tool watches it, as the logger does at its size limit.
#include <gtest/gtest.h>

#include <string>

#include "LogFrame.h"
#include "TestSupport.h"

namespace {

using namespace testsupport;

// logread.exe (beside this program) with standard output and error going to
// files in `dir`; a run still going at the end is killed.
class Tool {
 public:
  Tool(const std::wstring& dir, const std::wstring& arguments)
      : out_(dir + L"\\out.txt"), err_(dir + L"\\err.txt") {
    process_ = StartProcess(L"\"" + ExeDir() + L"logread.exe\" " + arguments, out_, err_);
    EXPECT_NE(nullptr, process_) << "cannot start logread.exe: " << GetLastError();
  }
  ~Tool() {
    if (process_) WaitChild(process_, 0);
  }
  // Exit code, or -1 if it did not end within the limit.
  int Wait(DWORD limit_ms = 30000) {
    const int code = WaitChild(process_, limit_ms);
    process_ = nullptr;
    return code;
  }
  std::string out() const { return ReadFileBytes(out_); }
  std::string err() const { return ReadFileBytes(err_); }
  // Polls the output file until it contains `text` (bounded).
  bool WaitForOutput(const std::string& text, DWORD limit_ms = 10000) {
    for (DWORD waited = 0; waited <= limit_ms; waited += 50, Sleep(50))
      if (out().find(text) != std::string::npos) return true;
    return false;
  }

 private:
  std::wstring out_, err_;
  HANDLE process_ = nullptr;
};

const std::string kRecords[] = {
    "11-14 09:05:07:042 : [INF][04242] Bridge.cpp(57) get_ability\n",
    "11-14 09:05:07:043 : [INF][04242] Bridge.cpp(58) Grüße 注意力 😀\n",
};

std::string Frames(std::initializer_list<std::string> records) {
  std::string out;
  for (const auto& record : records) out += logframe::EncodeFrame(record);
  return out;
}

TEST(LogreadWindows, DecodesToBinaryStdoutFromANonAsciiPath) {
  const std::wstring dir = TempDir(L"logread-name");
  const std::wstring log = dir + L"\\Протокол ü.log.logdat";
  WriteFileBytes(log, Frames({kRecords[0], kRecords[1]}));
  Tool tool(dir, L"\"" + log + L"\"");
  EXPECT_EQ(tool.Wait(), 0) << tool.err();
  EXPECT_EQ(tool.out(), kRecords[0] + kRecords[1]);  // "\n", never "\r\n"
  EXPECT_EQ(tool.err(), "");
}

TEST(LogreadWindows, TornLastFrameExitsWithThree) {
  const std::wstring dir = TempDir(L"logread-torn");
  const std::wstring log = dir + L"\\torn.logdat";
  WriteFileBytes(log, Frames({kRecords[0]}) + logframe::EncodeFrame(kRecords[1]).substr(0, 9));
  Tool tool(dir, L"\"" + log + L"\"");
  EXPECT_EQ(tool.Wait(), 3);
  EXPECT_EQ(tool.out(), kRecords[0]);
  EXPECT_NE(tool.err().find("torn last frame at offset 65: 9 of"), std::string::npos) << tool.err();
}

// The logger deletes its file at the size limit while logread follows it:
// the deletion must succeed (logread opens the file with delete sharing), the
// name must come free within a poll or two (logread holds no handle between
// polls), and the new file is read from its beginning. A delete while logread
// has the file open for a read leaves the name taken until that read ends
// (Windows' delete-pending state; Wine keeps it too, and the file written
// under the name in between vanishes with the reader's handle), so the
// writer here waits for the name to come free, as a new record would find it.
bool WaitUntilGone(const std::wstring& path, DWORD limit_ms = 5000) {
  for (DWORD waited = 0; waited <= limit_ms; waited += 10, Sleep(10))
    if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) return true;
  return false;
}

TEST(LogreadWindows, FollowLetsTheLoggerDeleteAndRecreateTheFile) {
  const std::wstring dir = TempDir(L"logread-follow");
  const std::wstring log = dir + L"\\QXAttentionPlugin.log.logdat";
  WriteFileBytes(log, Frames({kRecords[0]}));
  Tool tool(dir, L"-f \"" + log + L"\"");
  ASSERT_TRUE(tool.WaitForOutput(kRecords[0]));
  for (int round = 0; round < 10; ++round) {  // catch the tool while it reads, too
    ASSERT_TRUE(DeleteFileW(log.c_str())) << "round " << round << ": " << GetLastError();
    ASSERT_TRUE(WaitUntilGone(log)) << "round " << round << ": logread keeps the deleted name";
    WriteFileBytes(log, Frames({kRecords[0]}));
    Sleep(37);
  }
  ASSERT_TRUE(DeleteFileW(log.c_str())) << GetLastError();
  ASSERT_TRUE(WaitUntilGone(log)) << "logread keeps the deleted name";
  Sleep(500);
  WriteFileBytes(log, Frames({kRecords[1]}));
  EXPECT_TRUE(tool.WaitForOutput(kRecords[1])) << tool.out();
  EXPECT_NE(tool.err().find("reading it from the beginning"), std::string::npos) << tool.err();
}

}  // namespace
