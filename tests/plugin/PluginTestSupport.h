// Helpers for the plug-in tests: the DLL through its exports, the registry
// values, the decoded log file, and qxhost runs as separate host processes.
#pragma once

#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "FusionSimCtl.h"

namespace qxtest {

// Directory of the running test executable (the build's bin folder, where the
// DLLs and qxhost are), with a trailing backslash.
std::wstring BinDir();

constexpr wchar_t kShippedDll[] = L"QXAttentionPlugin.dll";
constexpr wchar_t kNoAuthDll[] = L"QXAttentionPlugin-noauth.dll";

using HostCallback = int (*)(const char* kind, const char* name, const char* json,
                             std::uintptr_t reserved, std::int32_t flags);

// One loaded copy of a plug-in DLL. Every Load() loads a new copy of the file
// (under a unique name in the temporary folder), so each copy starts with its
// own fresh process-wide state. Copies are never unloaded, as the host never
// unloads the plug-in: a copy freed and reloaded at the same address under
// Wine was seen to lose its structured exception handling, and a thread that
// outlived "close" would run into unmapped code.
class Plugin {
 public:
  bool Load(const wchar_t* dllName);
  // Forgets the copy (it stays loaded; see above).
  void Unload() { module_ = nullptr; }

  void* New(int size) { return new_(size); }
  void Delete(void* p) { delete_(p); }
  int Init(void* ignored, HostCallback callback) { return init_(ignored, callback); }

  // Runs an action and returns the result text. Asserts (non-fatally) that
  // the export returned 0 and stored a result pointer; frees the buffer with
  // qx_plugin_delete. `bufferBytes` receives strlen + 1 of the buffer.
  std::string Action(const char* name, const char* params, std::size_t* bufferBytes = nullptr);

  // The raw call, for exception tests: the result pointer is preset to
  // 0xdeadbeef and handed back as it is.
  int RawAction(const char* name, const char* params, char** result) {
    return action_(name, params, result);
  }

 private:
  HMODULE module_ = nullptr;
  void* (*new_)(int) = nullptr;
  int (*init_)(void*, HostCallback) = nullptr;
  int (*action_)(const char*, const char*, char**) = nullptr;
  void (*delete_)(void*) = nullptr;
};

// Registry values of the plug-in (HKCU\SOFTWARE\Vantoq\Quillomatic) and the
// machine-wide ability cache (HKLM\...\"attention__ability").
std::optional<DWORD> GetUserDword(const wchar_t* name, DWORD* type = nullptr);
void SetUserValue(const wchar_t* name, DWORD value, DWORD type = REG_DWORD);
void DeleteUserValue(const wchar_t* name);
void SetMachineAbility(DWORD value);
void DeleteMachineAbility();
// Removes every value the plug-in and the controller keep, in both hives.
void ResetRegistry();

// The plug-in's log: QXAttentionPlugin.log.logdat in the "Vantoq\Quillomatic\logs"
// folder of the common application data, decoded frame by frame.
std::wstring LogPath();
void DeleteLog();
std::vector<std::string> LogRecords();
// Messages (text after "Source(line) ", trailing line feed removed) of every
// record written with this source name and line.
std::vector<std::string> LogMessages(const std::string& source, int line);
// Every "Source(line)" in record order, e.g. "AttentionPlugin.cpp(188)".
std::vector<std::string> LogPlaces();

// A qxhost run: the script lines are written to a file and run with
// `qxhost DLL --script FILE`; bounded by `timeoutMs` (the child is terminated
// after it and `timedOut` is set).
struct HostRun {
  DWORD exitCode = 0xdeadbeef;
  bool timedOut = false;
  std::string output;
  std::vector<std::string> Lines(const std::string& prefix) const;
};
HostRun RunHost(const wchar_t* dllName, const std::vector<std::string>& script,
                DWORD timeoutMs = 60000);

// Runs a program (path relative to BinDir() unless absolute) with a command
// line tail; returns its exit code and output; bounded like RunHost.
HostRun RunProgram(const std::wstring& program, const std::wstring& arguments, DWORD timeoutMs);

// Answers and parameters of the actions.
std::string Attention(int delay, int status);  // the "get_attention" answer
std::string StatusParams(int status);
std::string DelayParams(int delay);
// A result as qxhost prints it (the line feed escaped).
std::string Printed(const std::string& json);

// The host callback of an in-process host: records every call with its thread.
struct HostCall {
  std::string kind, name, json;
  std::uintptr_t reserved;
  std::int32_t flags;
  DWORD thread;
};
int RecordingCallback(const char* kind, const char* name, const char* json, std::uintptr_t reserved,
                      std::int32_t flags);
std::vector<HostCall> HostCalls();
void ClearHostCalls();
// Waits up to `ms` until `count` host calls were recorded; returns how many.
std::size_t WaitHostCalls(std::size_t count, int ms);

// Opnums of the remote interface and the attention sensor's index.
constexpr int kOpSetting = 0, kOpGetSensorData = 1, kOpSetSensorParam = 2, kOpStartSensor = 3, kOpUnInit = 5;
constexpr int kAttentionSensor = 6;
// The simulator's record of calls of one opnum (-1: all).
std::vector<FusionSimCall> SimCalls(int opnum = -1);
std::string DumpSimCalls();
// The first data word of a call (0xdeadbeef when it carried none).
std::uint32_t Dword(const FusionSimCall& c);

// The simulator registered as the service and stopped, as "init" expects to
// find it (it starts the service itself).
void PrepareStoppedService();

DWORD ThreadsOfThisProcess();
// The fusion client's own log (its exception lines go there).
std::string SensorLibLog();

}  // namespace qxtest
