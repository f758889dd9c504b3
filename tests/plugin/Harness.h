// The plug-in's test harness: a machine set-up, a host through the four
// exports, observers since a mark; the session rules after every test.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "FusionSimCtl.h"
#include "WirePeer.h"

namespace qx {

// Runs each session in a new process of this program (--qx-session=N), on a
// reset machine: the simulator the stopped service, no values, logs, config.
void RunSessions(const std::function<void(int)>& body, int sessions = 1);
#define QX_TEST(suite, name, sessions)                              \
  static void suite##_##name(int session);                          \
  TEST(suite, name) { qx::RunSessions(&suite##_##name, sessions); } \
  static void suite##_##name([[maybe_unused]] int session)

constexpr DWORD kQuietMs = 300;
bool Until(const std::function<bool()>& condition, DWORD timeoutMs = 10000);
void Quiet();  // kQuietMs without a new record, line, call, request or callback

enum class Service { kStopped, kRunning, kConsole, kAbsent };
void SetService(Service mode, const std::wstring& args = L"");
void KillService();
void Config(const wchar_t* name, const wchar_t* value);  // [config] of config.ini
struct RegValue {
  bool present = false;
  DWORD type = 0;
  std::string bytes;
  bool operator==(const RegValue&) const = default;
};
RegValue Dword(DWORD v, DWORD type = REG_DWORD);
inline RegValue Binary(DWORD v) { return Dword(v, REG_BINARY); }
inline const RegValue kAbsent{};
void PrintTo(const RegValue& v, std::ostream* os);
void SetReg(HKEY hive, const wchar_t* name, const RegValue& value);
RegValue Reg(HKEY hive, const wchar_t* name);
std::wstring PluginLog();  // QXAttentionPlugin.log.logdat
inline RegValue User(const wchar_t* name) { return Reg(HKEY_CURRENT_USER, name); }

// The wire peer on the service's pipe; `auth`: what every bind must carry.
wire::Peer& StartPeer(const std::string& auth = "");
void SignalPeerEvent();

// Threads that called an export are the host's.
struct Callback {
  bool onHostThread;
  std::string kind, name, json;
  std::uintptr_t reserved;
  std::int32_t flags;
};
class Host {
 public:
  explicit Host(bool shipped = false);
  int Init(bool withCallback = true);
  // The answer's text; "rc N", "null" or "throws: WHAT" otherwise.
  std::string Act(const std::string& name, const char* params = nullptr);
  void* New(int size);
  void Delete(void* block);
  std::vector<Callback> Callbacks();
};

struct Mark {
  std::size_t log, sensor, calls, pipe, callbacks;
};
Mark Now();
// "LVL Source(line) text" of the plug-in's records, decoded from its .logdat.
std::vector<std::string> Records(const Mark& from);
// The sensor library log's lines, without their stamps.
std::vector<std::string> SensorLines(const Mark& from);
// The simulator's calls: "Proc ARG0 ARG1 [HEX] [-> CODE|pending]".
std::vector<std::string> Calls(const Mark& from);
// The peer's requests: "OPNUM: STUB HEX".
std::vector<std::string> Requests(const Mark& from);
// Glob patterns in this order, other lines between, waited for.
void Anchors(const std::function<std::vector<std::string>()>& what,
             const std::vector<std::string>& expected);
#define QX_ANCHORS(what, mark, ...) qx::Anchors([&] { return what(mark); }, __VA_ARGS__)

// The sensor library log's exception lines, in order.
void DeclareExceptions(const std::vector<std::string>& lines);

// logread.exe --summary of the session's logs: exit code, "category: CATEGORY"
// and each text.
void ExpectSummary(int exit, const std::string& category, std::vector<std::string> texts = {});

}  // namespace qx
