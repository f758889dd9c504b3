/*
 * examples/host.c - a host of QXAttentionPlugin.dll in plain C (C99), the way
 * docs/integration.md asks for it: LoadLibrary by full path, qx_plugin_init,
 * then "init", actions one at a time, "close" once, every result freed with
 * qx_plugin_delete, the DLL kept loaded until the process ends.
 *
 * Build it from the unpacked archive with mingw-w64 gcc:
 *   x86_64-w64-mingw32-gcc -std=c99 -Wall -Wextra -Iinclude examples/host.c -o host.exe
 * Run it (it prints every call and its result):
 *   host.exe C:\full\path\to\bin\QXAttentionPlugin.dll
 * Without an argument it loads QXAttentionPlugin.dll from its own folder.
 * Exit code: 0 every action answered, 1 an action did not, 2 the DLL could
 * not be loaded.
 */
#include <stdio.h>
#include <string.h>
#include <windows.h>

#include "qx_plugin.h"

static qx_plugin_init_fn plugin_init;
static qx_plugin_action_fn plugin_action;
static qx_plugin_delete_fn plugin_delete;

/* Telemetry reports arrive on the plug-in's own thread, possibly while an
 * action runs on ours: only count them here, quickly and thread-safely. */
static volatile LONG reports;

static int on_report(const char *kind, const char *name, const char *json, qx_uintptr_t reserved,
                     qx_int32_t flags) {
  (void)name, (void)json, (void)reserved, (void)flags;
  if (strcmp(kind, QX_CALLBACK_KIND_BIGDATA) == 0) InterlockedIncrement(&reports);
  return 0;
}

/* Runs one action and prints its result; returns 0 when it answered. The
 * plug-in writes *result on success only, so it starts as NULL. */
static int run(const char *action, const char *params) {
  char *result = NULL;
  int rc = plugin_action(action, params, &result);
  printf("%s %s -> %d, %s", action, params ? params : "", rc,
         result ? (*result ? result : "(empty)\n") : "(no result)\n");
  plugin_delete(result); /* the plug-in's heap, never free() */
  return rc == 0 && result != NULL ? 0 : 1;
}

/* The "set_" actions take numbers only: a string or an array there makes a
 * C++ exception leave the plug-in, which ends a C host. Building the text
 * from an int is the simplest way to never send anything else. */
static int set_value(const char *action, const char *member, int value) {
  char params[64];
  snprintf(params, sizeof params, "{\"%s\":{\"%s\":%d}}", QX_FEATURE_ID, member, value);
  return run(action, params);
}

int main(int argc, char **argv) {
  char path[MAX_PATH];
  if (argc > 1) {
    snprintf(path, sizeof path, "%s", argv[1]);
  } else { /* the folder of this program, never a bare name */
    DWORD n = GetModuleFileNameA(NULL, path, sizeof path);
    char *slash = strrchr(path, '\\');
    if (n == 0 || n >= sizeof path || !slash) return 2;
    snprintf(slash + 1, sizeof path - (size_t)(slash + 1 - path), "%s", QX_PLUGIN_DLL_NAME);
  }
  HMODULE dll = LoadLibraryA(path);
  if (!dll) {
    fprintf(stderr, "host: cannot load %s (error %lu)\n", path, (unsigned long)GetLastError());
    return 2;
  }
  /* The cast through void (*)(void) keeps gcc's -Wcast-function-type quiet. */
  plugin_init = (qx_plugin_init_fn)(void (*)(void))GetProcAddress(dll, "qx_plugin_init");
  plugin_action = (qx_plugin_action_fn)(void (*)(void))GetProcAddress(dll, "qx_plugin_action");
  plugin_delete = (qx_plugin_delete_fn)(void (*)(void))GetProcAddress(dll, "qx_plugin_delete");
  if (!plugin_init || !plugin_action || !plugin_delete) {
    fprintf(stderr, "host: %s lacks the exports of qx_plugin.h\n", path);
    return 2;
  }
  printf("host: loaded %s\n", path);

  /* The lifecycle: qx_plugin_init, "init" before anything else, actions one
   * at a time, "close" once. "init" takes a second or more (it restarts the
   * service): a real host calls it from a worker thread, not a UI thread. */
  int failed = 0;
  plugin_init(NULL, on_report);
  failed += run(QX_ACTION_INIT, NULL);
  failed += run(QX_ACTION_ABILITY, NULL);
  failed += run(QX_ACTION_GET_ATTENTION, NULL);
  failed += set_value(QX_ACTION_SET_ATTENTION_DELAY, "delay", 30);
  failed += set_value(QX_ACTION_SET_ATTENTION_STATUS, "status", QX_STATUS_OFF);
  failed += run(QX_ACTION_CLOSE, NULL);
  /* After "close" only "get_attention", "ability" or a new "init". */
  failed += run(QX_ACTION_GET_ATTENTION, NULL);
  printf("host: %ld telemetry reports; %s\n", (long)reports,
         failed ? "an action did not answer" : "every action answered");
  /* No FreeLibrary: the DLL stays loaded until the process ends, the safe
   * choice whatever state its event thread is in. */
  return failed ? 1 : 0;
}
