// Helpers shared by the Windows test programs: child-process roles (a test
// program re-launches itself to play a second process), bounded waits, files.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace testsupport {

// Starts a program from a full command line; its stdout (and stderr, when
// `stderrFile` is given) go to files when named. Returns the process handle.
HANDLE StartProcess(const std::wstring& commandLine, const std::wstring& stdoutFile = L"",
                    const std::wstring& stderrFile = L"");
// Starts this test program again with `role` and its arguments.
HANDLE StartSelf(const std::wstring& role, const std::vector<std::wstring>& args,
                 const std::wstring& stdoutFile = L"", const std::wstring& stderrFile = L"");
std::wstring ExeDir();  // the running program's folder, with a trailing backslash
// Waits (bounded) for a child; returns its exit code, or -1 on time-out (the
// child is then terminated).
int WaitChild(HANDLE process, DWORD timeoutMs);

std::string ReadFileBytes(const std::wstring& path);
void WriteFileBytes(const std::wstring& path, const std::string& bytes);
bool FileExists(const std::wstring& path);
std::wstring CommonAppData();
std::wstring TempDir(const std::wstring& name);  // fresh, empty folder
std::wstring Widen(const std::string& s);

}  // namespace testsupport
