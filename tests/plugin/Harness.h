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

// Runs `body(session)` for each session in a new process of this program
// (--qx-session=N), on a reset machine: the simulator installed as the stopped
// service, no plug-in registry values, logs or config.ini.
void RunSessions(const std::function<void(int)>& body, int sessions = 1);
#define QX_TEST(suite, name, sessions)                              \
  static void suite##_##name(int session);                          \
  TEST(suite, name) { qx::RunSessions(&suite##_##name, sessions); } \
  static void suite##_##name([[maybe_unused]] int session)

// `Quiet`: kQuietMs without a new record, line, call, request or callback.
constexpr DWORD kQuietMs = 300;
bool Until(const std::function<bool()>& condition, DWORD timeoutMs = 10000);
void Quiet();

// kBroken: registered and stopped, its program missing, so it cannot start.
enum class Service { kStopped, kRunning, kConsole, kAbsent, kBroken };
void SetService(Service mode, const std::wstring& args = L"");
void KillService();
void Config(const wchar_t* name, const wchar_t* value);  // [config] of config.ini
struct RegValue {
  bool present = false;
  DWORD type = 0;
  std::string bytes;
  bool operator==(const RegValue& o) const {
    return present == o.present && type == o.type && bytes == o.bytes;
  }
};
RegValue Dword(DWORD v, DWORD type = REG_DWORD);
inline RegValue Binary(DWORD v) { return Dword(v, REG_BINARY); }
inline const RegValue kAbsent{};
void PrintTo(const RegValue& v, std::ostream* os);
void SetReg(HKEY hive, const wchar_t* name, const RegValue& value);
RegValue Reg(HKEY hive, const wchar_t* name);
std::wstring PluginLog();  // QXAttentionPlugin.log.logdat
inline RegValue User(const wchar_t* name) { return Reg(HKEY_CURRENT_USER, name); }

// The wire peer on the service's pipe, with the attention event; `auth`: what
// every bind must carry after the offer.
wire::Peer& StartPeer(const std::string& auth = "");
void SignalPeerEvent();

// Callbacks are recorded with their thread; threads that called an export
// are the host's.
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
  std::vector<Callback> Callbacks(std::size_t from = 0);
};
extern Host* g_host;

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
// `expected` in order, other lines between, waited for; glob patterns.
void ExpectAnchors(const std::vector<std::string>& actual,
                   const std::vector<std::string>& expected);
#define QX_ANCHORS(what, mark, ...)                                      \
  do {                                                                   \
    const std::vector<std::string> qx_expected = __VA_ARGS__;            \
    qx::Until([&] { return qx::Subsequence(what(mark), qx_expected); }); \
    qx::ExpectAnchors(what(mark), qx_expected);                          \
  } while (0)
bool Subsequence(const std::vector<std::string>& actual, const std::vector<std::string>& expected);
bool Glob(const std::string& pattern, const std::string& text);

// The sensor library log's exception lines this session must have, in order.
void DeclareExceptions(const std::vector<std::string>& lines);

// What logread.exe --summary must say of this session's two logs, after the
// rules: its exit code, "category: CATEGORY" and each text ("!TEXT": not there).
void ExpectSummary(int exit, const std::string& category, std::vector<std::string> texts = {});

}  // namespace qx
