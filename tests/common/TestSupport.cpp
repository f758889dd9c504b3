#include "TestSupport.h"

#include <shlobj.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace testsupport {

namespace {
std::wstring Self() {
  wchar_t self[MAX_PATH] = {};
  return std::wstring(self, GetModuleFileNameW(nullptr, self, MAX_PATH));
}
}  // namespace

std::wstring ExeDir() {
  const std::wstring self = Self();
  return self.substr(0, self.find_last_of(L"\\/") + 1);
}

HANDLE StartProcess(const std::wstring& commandLine, const std::wstring& stdoutFile,
                    const std::wstring& stderrFile) {
  STARTUPINFOW startup = {};
  startup.cb = sizeof(startup);
  SECURITY_ATTRIBUTES sa = {sizeof(sa), nullptr, TRUE};
  auto open = [&](const std::wstring& name) {
    return name.empty()
               ? INVALID_HANDLE_VALUE
               : CreateFileW(name.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa,
                             CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  };
  const HANDLE out = open(stdoutFile), err = open(stderrFile);
  if (out != INVALID_HANDLE_VALUE) {
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = out;
    startup.hStdError = err != INVALID_HANDLE_VALUE ? err : GetStdHandle(STD_ERROR_HANDLE);
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  }
  PROCESS_INFORMATION info = {};
  std::wstring line = commandLine;
  // Wine's new process may die before it starts (1359), rarely and under load:
  // that start, not the program, failed, so it is made again.
  BOOL ok = FALSE;
  for (int tries = 3; tries--;) {
    ok = CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &info);
    if (ok || GetLastError() != ERROR_INTERNAL_ERROR || !tries) break;
    std::fprintf(stderr, "a process died as Wine started it (1359); starting it again\n");
  }
  for (HANDLE h : {out, err})
    if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
  if (!ok) return nullptr;
  CloseHandle(info.hThread);
  return info.hProcess;
}

HANDLE StartSelf(const std::wstring& role, const std::vector<std::wstring>& args,
                 const std::wstring& stdoutFile) {
  std::wstring command = L"\"" + Self() + L"\" --role " + role;
  for (const auto& a : args) command += L" \"" + a + L"\"";
  return StartProcess(command, stdoutFile);
}

int WaitChild(HANDLE process, DWORD timeoutMs) {
  DWORD code = static_cast<DWORD>(-1);
  if (process && WaitForSingleObject(process, timeoutMs) != WAIT_OBJECT_0)
    TerminateProcess(process, 99);
  else if (process)
    GetExitCodeProcess(process, &code);
  if (process) CloseHandle(process);
  return static_cast<int>(code);
}

std::string ReadFileBytes(const std::wstring& path) {
  std::ifstream in(path.c_str(), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFileBytes(const std::wstring& path, const std::string& bytes) {
  std::ofstream out(path.c_str(), std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

bool FileExists(const std::wstring& path) {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring CommonAppData() {
  wchar_t folder[MAX_PATH] = {};
  SHGetSpecialFolderPathW(nullptr, folder, CSIDL_COMMON_APPDATA, FALSE);
  return folder;
}

std::wstring TempDir(const std::wstring& name) {
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / (L"qxtest-" + name);
  std::error_code ignored;  // a folder left from an earlier run goes first
  std::filesystem::remove_all(dir, ignored);
  std::filesystem::create_directories(dir, ignored);
  return dir.wstring();
}

std::wstring Widen(const std::string& s) {
  std::wstring w(s.size(), L'\0');
  w.resize(static_cast<size_t>(MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()),
                                                   w.data(), static_cast<int>(w.size()))));
  return w;
}

}  // namespace testsupport
