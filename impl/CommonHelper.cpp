// Common helpers of the host framework. Of these only the process runner is
// built into the plug-in.
#include "CommonHelper.h"

#include <windows.h>
#include <shellapi.h>
#include <shlwapi.h>

#include "Logger.h"

namespace {

// The record shows the file name part only: "CommonHelper".
constexpr wchar_t kLogSource[] = L"impl\\CommonHelper";

}  // namespace

std::uint32_t RunProcess(const wchar_t* program, const wchar_t* parameters, bool wait) {
  if (!parameters) parameters = L"";

  // The working folder is the program's own folder, but only when the program
  // is found under the name given. A bare name such as "net.exe" gets no
  // working folder and is found on the system's search path.
  wchar_t folder[MAX_PATH] = {};
  const bool found = program && PathFileExistsW(program);
  if (found) {
    lstrcpynW(folder, program, MAX_PATH);
    PathRemoveFileSpecW(folder);
  }

  SHELLEXECUTEINFOW info = {};
  info.cbSize = sizeof(info);
  info.fMask = SEE_MASK_NOCLOSEPROCESS;
  info.hwnd = nullptr;
  info.lpVerb = nullptr;  // the default verb
  info.lpFile = program;
  info.lpParameters = parameters;
  info.lpDirectory = found ? folder : nullptr;
  info.nShow = SW_HIDE;
  info.hProcess = nullptr;
  ShellExecuteExW(&info);  // not examined: without a process there is no handle below

  DWORD exitCode = 0;
  if (wait) {
    // No time limit: a command that never ends blocks the caller. The handle
    // is null when nothing was started; the wait then fails and writes nothing.
    const DWORD outcome = WaitForSingleObject(info.hProcess, INFINITE);
    if (outcome == WAIT_TIMEOUT) {
      // Unreachable with an unlimited wait; kept with its record.
      QX_LOG(LogInfo, 3183, L"WaitFor RunProcess Timeout, dwCode %d", static_cast<int>(exitCode));
    } else if (outcome == WAIT_OBJECT_0) {
      GetExitCodeProcess(info.hProcess, &exitCode);
      QX_LOG(LogInfo, 3188, L"WaitFor RunProcess Signal On, dwCode %d", static_cast<int>(exitCode));
    }
  }
  // The process handle is not closed here; callers have always left it open.
  return exitCode;
}
