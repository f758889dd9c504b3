/*
 * examples/host.c - a whole host of QXAttentionPlugin.dll in C (C99): it sets
 * the plug-in up, switches attention on and waits for the one message the
 * plug-in sends, the report that the user looked away from the screen.
 *
 * It links against the DLL through either import library of the archive
 * (from the archive's folder; mingw-w64 gcc, clang with lld, MSVC):
 *   x86_64-w64-mingw32-gcc -Iinclude examples/host.c -Llib -lQXAttentionPlugin -o host.exe
 *   clang --target=x86_64-w64-mingw32 -fuse-ld=lld -Iinclude examples/host.c
 *         lib/QXAttentionPlugin.lib -o host.exe   (on Debian also -L with the folder of
 *         `x86_64-w64-mingw32-gcc-posix -print-libgcc-file-name`, for libgcc)
 *   cl /Iinclude examples\host.c lib\QXAttentionPlugin.lib
 * and finds QXAttentionPlugin.dll beside itself or on PATH.
 *
 * Try it with the simulator of the sensor fusion service (as administrator;
 * under Wine in a prefix of your own), with the test build that needs no RPC
 * authentication put beside host.exe under the plug-in's name:
 *   copy test\QXAttentionPlugin-TEST-noauth.dll QXAttentionPlugin.dll
 *   bin\fusion-sim.exe install            register the simulator as the service
 *   host.exe 60                           waits up to 60 s for the report
 *   bin\fusion-sim.exe ctl look-away      (from a second console) the user looks away
 *   bin\fusion-sim.exe uninstall
 * With the shipped DLL it runs the same way against the real service.
 *
 * Exit code: 0 the report arrived; 1 an answer was an error or not the one
 * expected; 3 the machine does not support attention (no service, or the
 * service has no sensor); 4 no report within the time; 5 "init" did not come
 * back within two minutes.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

#include "qx_plugin.h"

/* Set by the callback; the main thread waits for it. */
static HANDLE looked_away;
static volatile LONG reports;

/* The plug-in calls this on its own event thread, possibly while an action
 * runs on one of ours: it only notes the report and returns at once. It must
 * not call qx_plugin_action (see qx_plugin.h, "Threads"). */
static int on_host_callback(const char *kind, const char *name, const char *json,
                            qx_uintptr_t reserved, qx_int32_t flags) {
  (void)name, (void)reserved, (void)flags;
  if (strcmp(kind, QX_CALLBACK_KIND_BIGDATA) == 0 && strstr(json, "\"SA0004\"")) {
    InterlockedIncrement(&reports);
    SetEvent(looked_away);
  }
  return 0;
}

/* The integer member `member` of an answer, if it has one. */
static int member_of(const char *answer, const char *member, int *value) {
  char key[32];
  const char *at;
  snprintf(key, sizeof key, "\"%s\":", member);
  at = strstr(answer, key);
  if (!at) return 0;
  *value = (int)strtol(at + strlen(key), NULL, 10);
  return 1;
}

/* Runs one action and prints its answer. Returns the answer (free it with
 * qx_plugin_delete), or NULL after printing why it is not usable: the plug-in
 * reports errors as {"error_code":n}, never through its return value. */
static char *run(const char *action, const char *params) {
  char *answer = NULL;
  int code;
  qx_plugin_action(action, params, &answer);
  printf("%s %s -> %s", action, params ? params : "", answer && *answer ? answer : "\"\"\n");
  if (answer && member_of(answer, "error_code", &code)) {
    fprintf(stderr, "host: \"%s\" answered error_code %d\n", action, code);
    qx_plugin_delete(answer);
    return NULL;
  }
  return answer;
}

/* The parameters of a "set_" action, in a buffer of the plug-in's heap: the
 * value is an int, never text, because a member that is not a number makes a
 * C++ exception leave the plug-in, which ends a C host. */
static char *feature_params(const char *member, int value) {
  char text[64];
  int n = snprintf(text, sizeof text, "{\"%s\":{\"%s\":%d}}", QX_FEATURE_ID, member, value);
  char *params = (char *)qx_plugin_new(n + 1);
  memcpy(params, text, (size_t)n + 1);
  return params;
}

/* "set_" action; the answer's member `member` must come back as `value`. */
static int set_and_check(const char *action, const char *member, int value) {
  char *params = feature_params(member, value);
  char *answer = run(action, params);
  int got = 0, ok = answer && member_of(answer, member, &got) && got == value;
  if (answer && !ok)
    fprintf(stderr, "host: \"%s\" answered %s %d, not %d\n", action, member, got, value);
  qx_plugin_delete(answer);
  qx_plugin_delete(params);
  return ok;
}

/* "init" restarts the service and waits for net.exe without a time limit:
 * never on a thread that must stay responsive. */
static DWORD WINAPI init_thread(LPVOID answer) {
  *(char **)answer = run(QX_ACTION_INIT, NULL);
  return 0;
}

int main(int argc, char **argv) {
  DWORD wait_ms = (DWORD)(argc > 1 ? atoi(argv[1]) : 60) * 1000;
  char *answer = NULL;
  HANDLE worker;
  int ability = 0, result = 0;

  setvbuf(stdout, NULL, _IONBF, 0);
  printf("host: qx_plugin.h %s\n", QX_PLUGIN_VERSION_STRING);
  looked_away = CreateEventW(NULL, TRUE, FALSE, NULL);
  if (!looked_away || qx_plugin_init(NULL, on_host_callback) != 0) return 1;

  worker = CreateThread(NULL, 0, init_thread, &answer, 0, NULL);
  if (!worker) return 1;
  if (WaitForSingleObject(worker, 120000) != WAIT_OBJECT_0) {
    fprintf(stderr, "host: \"init\" did not come back within 120 s\n");
    return 5;
  }
  CloseHandle(worker);
  if (!answer) return 1;
  qx_plugin_delete(answer);

  answer = run(QX_ACTION_ABILITY, NULL);
  if (!answer || !member_of(answer, "ability", &ability)) result = 1;
  qx_plugin_delete(answer);
  if (result == 0 && ability != 1) {
    fprintf(stderr, "host: this machine does not support attention (is the service installed?)\n");
    result = 3;
  }
  if (result == 0 && !(set_and_check(QX_ACTION_SET_ATTENTION_DELAY, "delay", QX_DELAY_MIN) &&
                       set_and_check(QX_ACTION_SET_ATTENTION_STATUS, "status", QX_STATUS_ON)))
    result = 1;
  if (result == 0) {
    printf("host: attention on; waiting up to %lu s for the user to look away\n",
           (unsigned long)(wait_ms / 1000));
    if (WaitForSingleObject(looked_away, wait_ms) == WAIT_OBJECT_0) {
      printf("host: the user looked away (%ld report)\n", (long)reports);
    } else {
      fprintf(stderr, "host: no report within %lu s\n", (unsigned long)(wait_ms / 1000));
      result = 4;
    }
    if (!set_and_check(QX_ACTION_SET_ATTENTION_STATUS, "status", QX_STATUS_OFF) && result == 0)
      result = 1;
  }
  /* Exactly one "close" per "init"; afterwards only "get_attention",
   * "ability" or a new "init". The DLL stays loaded until the process ends. */
  answer = run(QX_ACTION_CLOSE, NULL);
  if (!answer && result == 0) result = 1;
  qx_plugin_delete(answer);
  return result;
}
