#include "PluginTestSupport.h"

#include <gtest/gtest.h>
#include <shlobj.h>

#include <condition_variable>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "LogFrame.h"
// After windows.h.
#include <tlhelp32.h>

namespace qxtest {
namespace {
constexpr wchar_t kKey[] = L"SOFTWARE\\Vantoq\\Quillomatic";
char* const kPoison = reinterpret_cast<char*>(static_cast<std::uintptr_t>(0xdeadbeef));

template <typename Fn>
Fn Export(HMODULE module, const char* name) {
  return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

std::string Narrow(const std::wstring& text) {
  std::string out;
  for (wchar_t c : text) out += static_cast<char>(c);
  return out;
}
}  // namespace

std::wstring BinDir() {
  wchar_t path[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring dir(path);
  return dir.substr(0, dir.rfind(L'\\') + 1);
}

bool Plugin::Load(const wchar_t* dllName) {
  static int copies = 0;
  wchar_t tempDir[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, tempDir);
  const std::wstring copy = std::wstring(tempDir) + L"qxplugin-" + std::to_wstring(GetCurrentProcessId()) +
                            L"-" + std::to_wstring(++copies) + L"-" + dllName;
  if (!CopyFileW((BinDir() + dllName).c_str(), copy.c_str(), FALSE)) return false;
  module_ = LoadLibraryW(copy.c_str());
  if (!module_) return false;
  new_ = Export<decltype(new_)>(module_, "qx_plugin_new");
  init_ = Export<decltype(init_)>(module_, "qx_plugin_init");
  action_ = Export<decltype(action_)>(module_, "qx_plugin_action");
  delete_ = Export<decltype(delete_)>(module_, "qx_plugin_delete");
  return new_ && init_ && action_ && delete_;
}

std::string Plugin::Action(const char* name, const char* params, std::size_t* bufferBytes) {
  char* result = kPoison;
  const int rc = action_(name, params, &result);
  EXPECT_EQ(0, rc) << "action " << name;
  EXPECT_NE(kPoison, result) << "action " << name << " stored no result";
  if (result == kPoison || !result) return "<no result>";
  std::string text(result);
  if (bufferBytes) *bufferBytes = text.size() + 1;
  delete_(result);
  return text;
}

std::optional<DWORD> GetUserDword(const wchar_t* name, DWORD* type) {
  DWORD value = 0xdeadbeef;
  DWORD size = sizeof(value);
  DWORD kind = 0;
  if (RegGetValueW(HKEY_CURRENT_USER, kKey, name, RRF_RT_ANY, &kind, &value, &size) != ERROR_SUCCESS)
    return std::nullopt;
  if (type) *type = kind;
  return value;
}

void SetUserValue(const wchar_t* name, DWORD value, DWORD type) {
  HKEY key = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_CURRENT_USER, kKey, 0, nullptr, 0, KEY_ALL_ACCESS,
                                           nullptr, &key, nullptr));
  EXPECT_EQ(ERROR_SUCCESS, RegSetValueExW(key, name, 0, type, reinterpret_cast<BYTE*>(&value), 4));
  RegCloseKey(key);
}

void DeleteUserValue(const wchar_t* name) { RegDeleteKeyValueW(HKEY_CURRENT_USER, kKey, name); }

void SetMachineAbility(DWORD value) {
  HKEY key = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_ALL_ACCESS,
                                           nullptr, &key, nullptr));
  EXPECT_EQ(ERROR_SUCCESS,
            RegSetValueExW(key, L"attention__ability", 0, REG_DWORD, reinterpret_cast<BYTE*>(&value), 4));
  RegCloseKey(key);
}

void DeleteMachineAbility() { RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kKey, L"attention__ability"); }

void ResetRegistry() {
  DeleteUserValue(L"attention_state");
  DeleteUserValue(L"attention_delay");
  DeleteUserValue(L"attention__ability");
  DeleteMachineAbility();
}

std::wstring LogPath() {
  wchar_t folder[MAX_PATH] = {};
  SHGetSpecialFolderPathW(nullptr, folder, CSIDL_COMMON_APPDATA, FALSE);
  return std::wstring(folder) + L"\\Vantoq\\Quillomatic\\logs\\QXAttentionPlugin.log.logdat";
}

void DeleteLog() { DeleteFileW(LogPath().c_str()); }

std::vector<std::string> LogRecords() {
  std::vector<std::string> records;
  std::ifstream in(LogPath().c_str(), std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::size_t at = 0;
  while (at + logframe::kHeaderSize <= bytes.size()) {
    const std::uint32_t length =
        logframe::DecodeLength(reinterpret_cast<const unsigned char*>(bytes.data() + at));
    at += logframe::kHeaderSize;
    if (length > bytes.size() - at) {
      ADD_FAILURE() << "truncated log frame";
      break;
    }
    std::string record = bytes.substr(at, length);
    logframe::Scramble(reinterpret_cast<unsigned char*>(record.data()), static_cast<std::int32_t>(length));
    records.push_back(record);
    at += length;
  }
  return records;
}

std::vector<std::string> LogMessages(const std::string& source, int line) {
  const std::string place = "] " + source + "(" + std::to_string(line) + ") ";
  std::vector<std::string> out;
  for (const std::string& record : LogRecords()) {
    const std::size_t at = record.find(place);
    if (at == std::string::npos) continue;
    std::string message = record.substr(at + place.size());
    if (!message.empty() && message.back() == '\n') message.pop_back();
    out.push_back(message);
  }
  return out;
}

std::vector<std::string> LogPlaces() {
  std::vector<std::string> out;
  for (const std::string& record : LogRecords()) {
    // "MM-DD HH:MM:SS:mmm : [INF][00036] Source.cpp(188) message"
    const std::size_t start = record.find("] ", record.find("]["));
    const std::size_t close = record.find(") ", start);
    if (start == std::string::npos || close == std::string::npos) continue;
    out.push_back(record.substr(start + 2, close + 1 - (start + 2)));
  }
  return out;
}

std::vector<std::string> HostRun::Lines(const std::string& prefix) const {
  std::vector<std::string> out;
  std::size_t at = 0;
  while (at < output.size()) {
    std::size_t end = output.find('\n', at);
    if (end == std::string::npos) end = output.size();
    std::string line = output.substr(at, end - at);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.compare(0, prefix.size(), prefix) == 0) out.push_back(line);
    at = end + 1;
  }
  return out;
}

HostRun RunProgram(const std::wstring& program, const std::wstring& arguments, DWORD timeoutMs) {
  HostRun run;
  const std::wstring path = (program.size() > 1 && program[1] == L':') ? program : BinDir() + program;
  SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
  if (!CreatePipe(&readEnd, &writeEnd, &inherit, 0)) {
    ADD_FAILURE() << "CreatePipe failed";
    return run;
  }
  SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup = {};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = writeEnd;
  startup.hStdError = writeEnd;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  PROCESS_INFORMATION process = {};
  std::wstring commandLine = L"\"" + path + L"\" " + arguments;
  const BOOL started = CreateProcessW(path.c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0,
                                      nullptr, nullptr, &startup, &process);
  CloseHandle(writeEnd);
  if (!started) {
    ADD_FAILURE() << "cannot start " << Narrow(path) << " (error " << GetLastError() << ")";
    CloseHandle(readEnd);
    return run;
  }
  // Drain the pipe on a thread so that a full pipe never blocks the child.
  std::thread reader([&] {
    char buffer[4096];
    DWORD got = 0;
    while (ReadFile(readEnd, buffer, sizeof(buffer), &got, nullptr) && got > 0)
      run.output.append(buffer, got);
  });
  if (WaitForSingleObject(process.hProcess, timeoutMs) != WAIT_OBJECT_0) {
    run.timedOut = true;
    TerminateProcess(process.hProcess, 0xdead);
    WaitForSingleObject(process.hProcess, 10000);
  }
  GetExitCodeProcess(process.hProcess, &run.exitCode);
  reader.join();
  CloseHandle(readEnd);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return run;
}

HostRun RunHost(const wchar_t* dllName, const std::vector<std::string>& script, DWORD timeoutMs) {
  wchar_t tempDir[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, tempDir);
  wchar_t scriptPath[MAX_PATH] = {};
  GetTempFileNameW(tempDir, L"qxs", 0, scriptPath);
  {
    std::ofstream out(scriptPath, std::ios::binary);
    for (const std::string& line : script) out << line << "\n";
  }
  const std::wstring arguments =
      L"\"" + BinDir() + dllName + L"\" --script \"" + scriptPath + L"\"";
  HostRun run = RunProgram(L"qxhost.exe", arguments, timeoutMs);
  DeleteFileW(scriptPath);
  return run;
}

std::string Attention(int delay, int status) {
  return "{\"cmd\":\"get_attention\",\"delay\":" + std::to_string(delay) + ",\"status\":" + std::to_string(status) +
         "}\n";
}
std::string StatusParams(int status) { return "{\"F4010\":{\"status\":" + std::to_string(status) + "}}"; }
std::string DelayParams(int delay) { return "{\"F4010\":{\"delay\":" + std::to_string(delay) + "}}"; }
std::string Printed(const std::string& json) {
  return !json.empty() && json.back() == '\n' ? json.substr(0, json.size() - 1) + "\\n" : json;
}

namespace {
std::mutex g_callsLock;
std::condition_variable g_callArrived;
std::vector<HostCall> g_hostCalls;
}  // namespace

int RecordingCallback(const char* kind, const char* name, const char* json, std::uintptr_t reserved,
                      std::int32_t flags) {
  {
    std::lock_guard<std::mutex> lock(g_callsLock);
    g_hostCalls.push_back({kind ? kind : "(null)", name ? name : "(null)", json ? json : "(null)", reserved, flags,
                           GetCurrentThreadId()});
  }
  g_callArrived.notify_all();
  return 0x7777;  // ignored by the plug-in
}

std::vector<HostCall> HostCalls() {
  std::lock_guard<std::mutex> lock(g_callsLock);
  return g_hostCalls;
}

void ClearHostCalls() {
  std::lock_guard<std::mutex> lock(g_callsLock);
  g_hostCalls.clear();
}

std::size_t WaitHostCalls(std::size_t count, int ms) {
  std::unique_lock<std::mutex> lock(g_callsLock);
  g_callArrived.wait_for(lock, std::chrono::milliseconds(ms), [&] { return g_hostCalls.size() >= count; });
  return g_hostCalls.size();
}

std::vector<FusionSimCall> SimCalls(int opnum) {
  std::vector<FusionSimCall> all, out;
  EXPECT_TRUE(FusionSimReadCalls(&all));
  for (const FusionSimCall& c : all)
    if (opnum < 0 || c.opnum == opnum) out.push_back(c);
  return out;
}

std::string DumpSimCalls() {
  std::string out;
  for (const FusionSimCall& c : SimCalls()) out += FusionSimFormatCall(c) + "\n";
  return out;
}

std::uint32_t Dword(const FusionSimCall& c) {
  return c.dataLen >= 4 ? static_cast<std::uint32_t>(c.data[0] | c.data[1] << 8 | c.data[2] << 16 |
                                                     static_cast<std::uint32_t>(c.data[3]) << 24)
                        : 0xdeadbeef;
}

void PrepareStoppedService() {
  if (FusionSimServiceState() == 0) {
    ASSERT_TRUE(FusionSimInstallService(L""));
  }
  if (FusionSimServiceState() != SERVICE_STOPPED) {
    ASSERT_TRUE(FusionSimStopService());
  }
}

DWORD ThreadsOfThisProcess() {
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry = {};
  entry.dwSize = sizeof(entry);
  DWORD count = 0;
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
    if (entry.th32OwnerProcessID == GetCurrentProcessId()) ++count;
  CloseHandle(snapshot);
  return count;
}

std::string SensorLibLog() {
  wchar_t data[MAX_PATH] = {};
  SHGetSpecialFolderPathW(nullptr, data, CSIDL_COMMON_APPDATA, FALSE);
  std::ifstream in((std::wstring(data) + L"\\Vantoq\\SensorFusion\\Logs\\SensorLibLog.log").c_str(), std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace qxtest
