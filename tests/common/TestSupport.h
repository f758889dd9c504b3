// Helpers of the Windows test programs: child processes, files, folders.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace testsupport {

// Starts a command line, stdout (and stderr) to the files named; the process.
HANDLE StartProcess(const std::wstring& commandLine, const std::wstring& stdoutFile = L"",
                    const std::wstring& stderrFile = L"");
// Starts this test program again with `role` and its arguments.
HANDLE StartSelf(const std::wstring& role, const std::vector<std::wstring>& args,
                 const std::wstring& stdoutFile = L"");
std::wstring ExeDir();  // the running program's folder, with a trailing backslash
// The child's exit code, or -1 (and the child terminated) on time-out.
int WaitChild(HANDLE process, DWORD timeoutMs);

std::string ReadFileBytes(const std::wstring& path);
void WriteFileBytes(const std::wstring& path, const std::string& bytes);
bool FileExists(const std::wstring& path);
std::wstring CommonAppData();
std::wstring TempDir(const std::wstring& name);  // fresh, empty folder
std::wstring Widen(const std::string& s);

}  // namespace testsupport
