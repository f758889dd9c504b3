// qxhost: a stand-in for the host application, for integrators and demos.
//
// Loads any DLL with the four plug-in exports, hands qx_plugin_init a callback
// that prints every host callback as it arrives (with the thread it came on),
// runs actions from the command line, a script or an interactive prompt,
// prints every result and frees it with qx_plugin_delete. A C++ exception that
// escapes qx_plugin_action is caught and reported; a structured exception
// (access violation and the like) is reported by the top-level exception
// filter before the process ends, so that nothing dies silently.
#include <windows.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "HostCommands.h"
#include "Lifecycle.h"
#include "QxPluginLoader.h"

namespace {

// Exit codes.
constexpr int kExitOk = 0;
constexpr int kExitUsage = 1;
constexpr int kExitLoad = 2;
constexpr int kExitWaitTimedOut = 3;
constexpr int kExitException = 4;

qx_plugin::Exports g_plugin;
qxhost::Lifecycle g_lifecycle;
DWORD g_hostThread = 0;
std::atomic<const char*> g_currentAction{nullptr};

// Output from the host thread and from callback threads interleaves line by
// line; every line is flushed at once so that a crash loses nothing.
std::mutex g_printLock;

void Print(const char* format, ...) {
  std::lock_guard<std::mutex> lock(g_printLock);
  va_list args;
  va_start(args, format);
  std::vprintf(format, args);
  va_end(args);
  std::fflush(stdout);
}

// Callbacks received, in order; wait-callback consumes them one at a time so
// that a callback that arrives before its wait still counts.
struct Received {
  std::string kind;
  bool consumed = false;
};
std::mutex g_callbackLock;
std::condition_variable g_callbackArrived;
std::vector<Received> g_callbacks;

int __cdecl OnHostCallback(const char* kind, const char* name, const char* json,
                           std::uintptr_t reserved, std::int32_t flags) {
  const DWORD thread = GetCurrentThreadId();
  const std::string k = kind ? kind : "";
  Print("[callback] thread %lu (%s): kind=%s name=%s json=%s arg4=%llu arg5=%ld\n",
        static_cast<unsigned long>(thread),
        thread == g_hostThread ? "host thread" : "plug-in thread",
        kind ? qxhost::Escape(kind).c_str() : "(null)",
        name ? qxhost::Escape(name).c_str() : "(null)",
        json ? qxhost::Escape(json).c_str() : "(null)", static_cast<unsigned long long>(reserved),
        static_cast<long>(flags));
  {
    std::lock_guard<std::mutex> lock(g_callbackLock);
    g_callbacks.push_back({k, false});
  }
  g_callbackArrived.notify_all();
  return 0;
}

// Reports a structured exception nobody handled, then lets the process end
// with the exception code as its exit code.
LONG WINAPI OnUnhandledException(EXCEPTION_POINTERS* info) {
  const EXCEPTION_RECORD* record = info->ExceptionRecord;
  const char* action = g_currentAction.load();
  std::fprintf(stdout,
               "[exception] structured exception 0x%08lx at address %p on thread %lu%s%s%s\n",
               static_cast<unsigned long>(record->ExceptionCode), record->ExceptionAddress,
               static_cast<unsigned long>(GetCurrentThreadId()), action ? " during action \"" : "",
               action ? action : "", action ? "\"" : " (outside any action)");
  if (record->ExceptionCode == EXCEPTION_ACCESS_VIOLATION && record->NumberParameters >= 2) {
    std::fprintf(stdout, "[exception] access violation: %s address 0x%llx\n",
                 record->ExceptionInformation[0] == 0   ? "reading"
                 : record->ExceptionInformation[0] == 8 ? "executing"
                                                        : "writing",
                 static_cast<unsigned long long>(record->ExceptionInformation[1]));
  }
  std::fprintf(stdout, "[exception] qxhost ends here\n");
  std::fflush(stdout);
  return EXCEPTION_EXECUTE_HANDLER;
}

bool LoadPlugin(const std::string& path) {
  const std::string error = qx_plugin::Load(path, &g_plugin);
  if (!error.empty())
    std::fprintf(stderr, "qxhost: cannot load %s: %s\n", path.c_str(), error.c_str());
  return error.empty();
}

// Whether the machine-wide ability cache is set, read as the plug-in reads it
// (any value of at most 4 bytes): then "ability" before "init" answers from it.
bool MachineAbilityCached() {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Vantoq\\Quillomatic", 0, KEY_READ, &key) !=
      ERROR_SUCCESS)
    return false;
  DWORD value = 0;
  DWORD size = sizeof(value);
  const LONG rc = RegQueryValueExW(key, L"attention__ability", nullptr, nullptr,
                                   reinterpret_cast<BYTE*>(&value), &size);
  RegCloseKey(key);
  return rc == ERROR_SUCCESS;
}

// Warns on standard error, after what standard output has so far.
void Warn(const std::string& where, const std::string& text) {
  std::lock_guard<std::mutex> lock(g_printLock);
  std::fflush(stdout);
  std::fprintf(stderr,
               "qxhost: warning: %s: %s (the lifecycle: qx_plugin_init, then \"init\", then "
               "actions, then \"close\"; after it only \"get_attention\", \"ability\" or "
               "\"init\")\n",
               where.c_str(), text.c_str());
  std::fflush(stderr);
}

// Runs one action through qx_plugin_action and prints its result. Returns
// false when an exception escaped the call.
bool RunAction(const qxhost::Command& command, const std::string& where) {
  for (const std::string& breach : g_lifecycle.Action(command.name))
    Warn(where, qxhost::Escape(breach));
  const char* params = command.nullParams ? nullptr : command.params.c_str();
  if (params)
    Print("[action] \"%s\" params: %s\n", qxhost::Escape(command.name).c_str(),
          *params ? qxhost::Escape(params).c_str() : "(empty text)");
  else
    Print("[action] \"%s\" params: (null pointer)\n", qxhost::Escape(command.name).c_str());

  char* result = reinterpret_cast<char*>(static_cast<std::uintptr_t>(0xdeadbeef));
  int rc = 0;
  g_currentAction = command.name.c_str();
  try {
    rc = g_plugin.action(command.name.c_str(), params, &result);
  } catch (const std::exception& e) {
    g_currentAction = nullptr;
    Print("[exception] C++ exception escaped qx_plugin_action(\"%s\"): %s\n",
          qxhost::Escape(command.name).c_str(), e.what());
    return false;
  } catch (...) {
    g_currentAction = nullptr;
    Print("[exception] C++ exception of unknown type escaped qx_plugin_action(\"%s\")\n",
          qxhost::Escape(command.name).c_str());
    return false;
  }
  g_currentAction = nullptr;

  if (result == reinterpret_cast<char*>(static_cast<std::uintptr_t>(0xdeadbeef))) {
    Print("[result] %s -> %d, no result pointer stored\n", qxhost::Escape(command.name).c_str(),
          rc);
    return true;
  }
  if (!result) {
    Print("[result] %s -> %d, result (null)\n", qxhost::Escape(command.name).c_str(), rc);
    return true;
  }
  const std::size_t length = std::strlen(result);
  Print("[result] %s -> %d, %zu bytes with the terminating zero: %s\n",
        qxhost::Escape(command.name).c_str(), rc, length + 1,
        length ? qxhost::Escape(result).c_str() : "(empty text)");
  g_plugin.release(result);
  return true;
}

// Waits for a callback not yet consumed (matching the filter if one is given).
bool WaitCallback(const qxhost::Command& command) {
  std::unique_lock<std::mutex> lock(g_callbackLock);
  auto match = [&]() -> Received* {
    for (Received& r : g_callbacks)
      if (!r.consumed && (command.filter.empty() || r.kind == command.filter)) return &r;
    return nullptr;
  };
  Received* found = nullptr;
  g_callbackArrived.wait_for(lock, std::chrono::milliseconds(command.ms),
                             [&] { return (found = match()) != nullptr; });
  if (!found) {
    lock.unlock();
    Print("[wait-callback] no %s%scallback within %lu ms\n", command.filter.c_str(),
          command.filter.empty() ? "" : " ", command.ms);
    return false;
  }
  found->consumed = true;
  const std::string kind = found->kind;
  lock.unlock();
  Print("[wait-callback] got a %s callback\n", qxhost::Escape(kind).c_str());
  return true;
}

struct Session {
  int exitCode = kExitOk;
  bool quit = false;
};

// Runs one command; `where` labels error messages.
void Run(Session* session, const std::string& line, const std::string& where, bool interactive) {
  const qxhost::Command command = qxhost::ParseCommand(line);
  switch (command.kind) {
    case qxhost::Command::Nothing:
      break;
    case qxhost::Command::Invalid:
      Print("qxhost: %s: %s\n", where.c_str(), command.error.c_str());
      if (!interactive) session->exitCode = kExitUsage;
      break;
    case qxhost::Command::Help:
      Print("%s", qxhost::CommandHelp());
      break;
    case qxhost::Command::Quit:
      session->quit = true;
      break;
    case qxhost::Command::Sleep:
      Print("[sleep] %lu ms\n", command.ms);
      Sleep(command.ms);
      break;
    case qxhost::Command::WaitCallback:
      if (!WaitCallback(command) && session->exitCode == kExitOk)
        session->exitCode = kExitWaitTimedOut;
      break;
    case qxhost::Command::Action:
      if (!RunAction(command, where)) session->exitCode = kExitException;
      break;
  }
}

constexpr char kDescription[] =
    "qxhost - a host harness for plug-in DLLs with the four qx_plugin_ exports\n"
    "\n"
    "Loads DLL, calls qx_plugin_init(NULL, callback) (unless --no-init), then runs\n"
    "the COMMANDs given as arguments, then the lines of FILE, then commands typed at\n"
    "the \"qx> \" prompt, in that order. Each action is run through\n"
    "qx_plugin_action; its return value and result text are printed (escaped, so the\n"
    "result's trailing line feed shows as \\n) and the result is freed with\n"
    "qx_plugin_delete. Every host callback is printed when it arrives, with the id\n"
    "of the thread it came on (the host thread's id is printed at start).\n";

// The footer: the command language, then the rest.
std::string Footer() {
  return std::string(qxhost::CommandHelp()) +
         "\n"
         "Options go before or after the DLL and the COMMANDs; an unknown option is an\n"
         "error. A COMMAND that starts with \"-\" goes after \"--\".\n"
         "\n"
         "Example:\n"
         "  qxhost QXAttentionPlugin.dll ability init "
         "\"set_attention_status={\\\"F4010\\\":{\\\"status\\\":2}}\" get_attention close\n"
         "\n"
         "Lifecycle: qx_plugin_init before any action, then the action \"init\", then\n"
         "any actions, then \"close\" once; after \"close\" only \"get_attention\",\n"
         "\"ability\" or a new \"init\". Before \"init\" only \"get_attention\" is\n"
         "harmless, and \"ability\" where the installer set the machine-wide\n"
         "\"attention__ability\". qxhost warns on standard error when a run breaks this\n"
         "(an action before qx_plugin_init, as with --no-init; \"ability\" or a \"set_\"\n"
         "action or \"close\" before \"init\"; \"init\" again without \"close\"; \"close\"\n"
         "or a \"set_\" action after \"close\") and carries on; the warnings do not\n"
         "change the exit code.\n"
         "\n"
         "Exceptions: a C++ exception escaping qx_plugin_action is reported and qxhost\n"
         "carries on; a structured exception (e.g. access violation) is reported with its\n"
         "code, address, thread and action, and qxhost ends with that code.\n"
         "\n"
         "Exit codes: 0 all went well, 1 usage error (an unknown option included), a\n"
         "command that could not be parsed or a script that could not be read, 2 the DLL\n"
         "could not be loaded, 3 a wait-callback timed out, 4 a C++ exception escaped an\n"
         "action; the exception code of a structured exception.";
}

}  // namespace

int main(int argc, char** argv) {
  std::string dll;
  std::string script;
  bool interactive = false;
  bool noInit = false;
  bool nullCallback = false;
  std::vector<std::string> commands;

  CLI::App app(kDescription, "qxhost");
  app.footer(Footer());
  app.get_formatter()->column_width(22);
  app.set_version_flag("--version", "qxhost " QX_VERSION, "print the version and exit");
  app.add_option("--script", script, "run the commands in FILE, one per line")->type_name("FILE");
  app.add_flag("--interactive", interactive, "read commands from standard input with a prompt");
  app.add_flag("--no-init", noInit, "do not call qx_plugin_init");
  app.add_flag("--null-callback", nullCallback, "pass a null callback to qx_plugin_init");
  app.add_option("DLL", dll, "the plug-in DLL")->required()->type_name("");
  app.add_option("COMMAND", commands, "commands, run in order (see below)")->type_name("");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::fputs(app.help().c_str(), stdout);
    return kExitOk;
  } catch (const CLI::CallForVersion& e) {
    std::printf("%s\n", e.what());
    return kExitOk;
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "qxhost: %s\nTry \"qxhost --help\".\n", e.what());
    return kExitUsage;
  }
  const bool callInit = !noInit;

  SetUnhandledExceptionFilter(OnUnhandledException);
  g_hostThread = GetCurrentThreadId();
  if (!LoadPlugin(dll)) return kExitLoad;
  Print("qxhost: loaded %s; host thread %lu\n", dll.c_str(),
        static_cast<unsigned long>(g_hostThread));

  g_lifecycle.SetMachineAbilityCached(MachineAbilityCached());
  if (callInit) {
    g_lifecycle.PluginInit();
    const int rc = g_plugin.init(nullptr, nullCallback ? nullptr : OnHostCallback);
    Print("[init] qx_plugin_init -> %d\n", rc);
  }

  Session session;
  for (std::size_t i = 0; i < commands.size() && !session.quit; ++i)
    Run(&session, commands[i], "argument " + std::to_string(i + 1), false);

  if (!script.empty() && !session.quit) {
    std::ifstream in(script);
    if (!in) {
      Print("qxhost: cannot read script %s\n", script.c_str());
      return kExitUsage;
    }
    std::string line;
    for (int number = 1; !session.quit && std::getline(in, line); ++number)
      Run(&session, line, script + ":" + std::to_string(number), false);
  }

  if (interactive && !session.quit) {
    Print("qxhost: type help for the commands, quit to leave\n");
    std::string line;
    while (!session.quit) {
      Print("qx> ");
      if (!std::getline(std::cin, line)) break;
      Run(&session, line, "input", true);
    }
  }
  // The library stays loaded: its event thread may still be running when the
  // host did not "close", and the process end takes care of it.
  return session.exitCode;
}
