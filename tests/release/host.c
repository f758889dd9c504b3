/*
 * A host against include/qx_plugin.h alone (no Windows headers, no C
 * runtime), linked by check-package.sh through lib/'s GNU import library
 * (gcc) and through QXAttentionPlugin.lib (clang for the MSVC target), where
 * "host throw" shows the GCC exception reaching its filter as 0x20474343.
 */
#include "qx_plugin.h"

__declspec(dllimport) void *__stdcall GetStdHandle(unsigned long which);
__declspec(dllimport) int __stdcall WriteFile(void *file, const void *data, unsigned long size,
                                              unsigned long *written, void *overlapped);
__declspec(dllimport) void __stdcall ExitProcess(unsigned int code);
__declspec(dllimport) const char *__stdcall GetCommandLineA(void);
__declspec(dllimport) void *__stdcall LoadLibraryA(const char *name);
__declspec(dllimport) unsigned long __stdcall GetModuleFileNameA(void *module, char *path,
                                                                 unsigned long size);

static int failures = 0;

static unsigned long length(const char *text) {
  unsigned long n = 0;
  while (text[n] != '\0') ++n;
  return n;
}

static int same(const char *a, const char *b) {
  while (*a != '\0' && *a == *b) ++a, ++b;
  return *a == *b;
}

static void say(const char *text) {
  unsigned long written = 0;
  WriteFile(GetStdHandle((unsigned long)-11), text, length(text), &written, 0);
}

static void check(int ok, const char *what, const char *detail) {
  say(ok ? "ok   " : "FAIL ");
  say(what);
  say(" ");
  say(detail);
  failures += !ok;
}

static void expect(const char *action, const char *params, const char *expected) {
  char *result = 0;
  int rc = qx_plugin_action(action, params, &result);
  check(rc == 0 && result != 0 && same(result, expected), action, result ? result : "\n");
  qx_plugin_delete(result);
}

static int on_host_callback(const char *kind, const char *name, const char *json,
                            qx_uintptr_t reserved, qx_int32_t flags) {
  (void)kind, (void)name, (void)json, (void)reserved, (void)flags;
  return 0;
}

#ifdef _MSC_VER
static int report_and_exit(unsigned long code) {
  if (code == 0x20474343ul) { /* what libgcc raises for a C++ throw */
    say("filter: GCC C++ exception 0x20474343 left qx_plugin_action\n");
    ExitProcess(3);
  }
  return 0; /* EXCEPTION_CONTINUE_SEARCH */
}

static void throw_through(void) {
  char *result = 0;
  __try {
    qx_plugin_action(QX_ACTION_SET_ATTENTION_STATUS, "{\"F4010\":{\"status\":\"on\"}}", &result);
  } __except (report_and_exit(_exception_code())) {
  }
  say("FAIL no exception left qx_plugin_action\n");
  ExitProcess(1);
}
#endif

static int run(void) {
  const char *line = GetCommandLineA();
  char path[260];
  void *block;
  void *module = LoadLibraryA(QX_PLUGIN_DLL_NAME); /* already loaded: its handle */
  if (!GetModuleFileNameA(module, path, 260)) return say("FAIL no plug-in loaded\n"), 1;
  say("plug-in ");
  say(path);
  say("\n");
  check(qx_plugin_init(0, on_host_callback) == 0, "qx_plugin_init", "\n");
#ifdef _MSC_VER
  if (length(line) > 6 && same(line + length(line) - 6, " throw")) throw_through();
#endif
  (void)line;
  block = qx_plugin_new(16);
  check(block != 0, "qx_plugin_new(16)", "\n");
  qx_plugin_delete(block);
  qx_plugin_delete(0);
  expect(QX_ACTION_GET_ATTENTION, 0, "{\"cmd\":\"get_attention\",\"delay\":-1,\"status\":-1}\n");
  expect(QX_ACTION_SET_ATTENTION_STATUS, "{\"F4010\":{\"status\":3}}", "{\"error_code\":1}\n");
  say(failures == 0 ? "host: all checks passed\n" : "host: FAILED\n");
  return failures != 0;
}

#ifdef _MSC_VER
void mainCRTStartup(void) { ExitProcess(run()); }
#else
int main(void) { return run(); }
#endif
