// logread.exe as a Windows program: run from a test process with its output
// redirected to files, on a file with a non-ASCII name. Checks what differs
// from the native build: the wide command line, binary standard output (no
// "\r\n"), and following a file that is deleted and created again while the
// tool watches it, as the logger does at its size limit.
#include "LogFrame.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <string>

namespace {

std::wstring Directory() {
  wchar_t path[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring dir(path, n);
  return dir.substr(0, dir.find_last_of(L"\\/") + 1);
}

// A fresh folder under the temporary folder, removed with its files.
class ScratchDir {
 public:
  ScratchDir() {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    path_ = std::wstring(temp) + L"logread-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
            std::to_wstring(GetTickCount64()) + L"\\";
    EXPECT_TRUE(CreateDirectoryW(path_.c_str(), nullptr)) << GetLastError();
  }
  ~ScratchDir() {
    WIN32_FIND_DATAW found;
    HANDLE find = FindFirstFileW((path_ + L"*").c_str(), &found);
    if (find != INVALID_HANDLE_VALUE) {
      do DeleteFileW((path_ + found.cFileName).c_str());
      while (FindNextFileW(find, &found));
      FindClose(find);
    }
    RemoveDirectoryW(path_.c_str());
  }
  std::wstring operator/(const std::wstring& name) const { return path_ + name; }

 private:
  std::wstring path_;
};

bool WriteBytes(const std::wstring& path, const std::string& bytes, bool append = false) {
  HANDLE file = CreateFileW(path.c_str(), append ? FILE_APPEND_DATA : GENERIC_WRITE,
                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, append ? OPEN_ALWAYS : CREATE_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  DWORD written = 0;
  const BOOL ok = WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
  CloseHandle(file);
  return ok && written == bytes.size();
}

std::string ReadBytes(const std::wstring& path) {
  HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                            nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return "<cannot open>";
  std::string bytes;
  char buffer[4096];
  DWORD got = 0;
  while (ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got > 0) bytes.append(buffer, got);
  CloseHandle(file);
  return bytes;
}

// logread.exe (beside this program) with standard output and error going to
// files in `dir`.
class Tool {
 public:
  Tool(const ScratchDir& dir, const std::wstring& arguments) : out_(dir / L"out.txt"), err_(dir / L"err.txt") {
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    const DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE;
    HANDLE out = CreateFileW(out_.c_str(), GENERIC_WRITE, share, &inherit, CREATE_ALWAYS, 0, nullptr);
    HANDLE err = CreateFileW(err_.c_str(), GENERIC_WRITE, share, &inherit, CREATE_ALWAYS, 0, nullptr);
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = INVALID_HANDLE_VALUE;
    startup.hStdOutput = out;
    startup.hStdError = err;
    const std::wstring exe = Directory() + L"logread.exe";
    std::wstring command = L"\"" + exe + L"\" " + arguments;
    PROCESS_INFORMATION info = {};
    info.hProcess = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0xdeadbeef));
    if (!CreateProcessW(exe.c_str(), command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info))
      ADD_FAILURE() << "CreateProcessW failed: " << GetLastError();
    else
      process_ = info.hProcess, CloseHandle(info.hThread);
    CloseHandle(out);
    CloseHandle(err);
  }
  ~Tool() {
    if (!process_) return;
    if (WaitForSingleObject(process_, 0) == WAIT_TIMEOUT) {
      TerminateProcess(process_, 99);
      WaitForSingleObject(process_, 10000);
    }
    CloseHandle(process_);
  }

  // Exit code, or -1 if it did not end within the limit.
  int Wait(DWORD limit_ms = 30000) {
    if (!process_ || WaitForSingleObject(process_, limit_ms) != WAIT_OBJECT_0) return -1;
    DWORD code = 0xdeadbeef;
    GetExitCodeProcess(process_, &code);
    return static_cast<int>(code);
  }

  std::string out() const { return ReadBytes(out_); }
  std::string err() const { return ReadBytes(err_); }

  // Polls the output file until it contains `text` (bounded).
  bool WaitForOutput(const std::string& text, DWORD limit_ms = 10000) {
    for (DWORD waited = 0; waited <= limit_ms; waited += 50) {
      if (out().find(text) != std::string::npos) return true;
      Sleep(50);
    }
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
  ScratchDir dir;
  const std::wstring log = dir / L"Протокол ü.log.logdat";
  ASSERT_TRUE(WriteBytes(log, Frames({kRecords[0], kRecords[1]})));
  Tool tool(dir, L"\"" + log + L"\"");
  EXPECT_EQ(tool.Wait(), 0) << tool.err();
  EXPECT_EQ(tool.out(), kRecords[0] + kRecords[1]);  // "\n", never "\r\n"
  EXPECT_EQ(tool.err(), "");
}

TEST(LogreadWindows, TornLastFrameExitsWithThree) {
  ScratchDir dir;
  const std::wstring log = dir / L"torn.logdat";
  ASSERT_TRUE(WriteBytes(log, Frames({kRecords[0]}) + logframe::EncodeFrame(kRecords[1]).substr(0, 9)));
  Tool tool(dir, L"\"" + log + L"\"");
  EXPECT_EQ(tool.Wait(), 3);
  EXPECT_EQ(tool.out(), kRecords[0]);
  EXPECT_NE(tool.err().find("torn last frame at offset 65: 9 of"), std::string::npos) << tool.err();
}

// The logger deletes its file at the size limit while logread follows it:
// the deletion must succeed (logread holds no handle that prevents it or
// keeps the name from being used again), and the new file is read.
TEST(LogreadWindows, FollowLetsTheLoggerDeleteAndRecreateTheFile) {
  ScratchDir dir;
  const std::wstring log = dir / L"QXAttentionPlugin.log.logdat";
  ASSERT_TRUE(WriteBytes(log, Frames({kRecords[0]})));
  Tool tool(dir, L"-f \"" + log + L"\"");
  ASSERT_TRUE(tool.WaitForOutput(kRecords[0]));
  for (int round = 0; round < 10; ++round) {  // catch the tool while it reads, too
    ASSERT_TRUE(DeleteFileW(log.c_str())) << "round " << round << ": " << GetLastError();
    ASSERT_TRUE(WriteBytes(log, Frames({kRecords[0]}))) << "round " << round << ": " << GetLastError();
    Sleep(37);
  }
  ASSERT_TRUE(DeleteFileW(log.c_str())) << GetLastError();
  Sleep(500);
  ASSERT_TRUE(WriteBytes(log, Frames({kRecords[1]})));
  EXPECT_TRUE(tool.WaitForOutput(kRecords[1])) << tool.out();
  EXPECT_NE(tool.err().find("reading it from the beginning"), std::string::npos) << tool.err();
}

}  // namespace
