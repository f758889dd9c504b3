/* A host against qx_plugin.h alone, no C runtime (check-package.sh). Exit:
 * 0 passed, 1 init failed, 2 status 3 not refused with error_code 1; the MSVC
 * build then sends a string status: 3 when the GCC exception reached its
 * filter, 4 when none left qx_plugin_action. */
#include "qx_plugin.h"

__declspec(dllimport) void *__stdcall GetStdHandle(unsigned long which);
__declspec(dllimport) int __stdcall WriteFile(void *file, const void *data, unsigned long size,
                                              unsigned long *written, void *overlapped);
__declspec(dllimport) void __stdcall ExitProcess(unsigned int code);

static int on_host_callback(const char *kind, const char *name, const char *json,
                            qx_uintptr_t reserved, qx_int32_t flags) {
  (void)kind, (void)name, (void)json, (void)reserved, (void)flags;
  return 0;
}

static int run(void) {
  static const char expected[] = "{\"error_code\":1}\n";
  const char *status_3 = "{\"F4010\":{\"status\":3}}";
  char *result = 0;
  unsigned long n = 0, written = 0;
  int same = 1;
  if (qx_plugin_init(0, on_host_callback) != 0) return 1;
  qx_plugin_delete(qx_plugin_new(16));
  if (qx_plugin_action(QX_ACTION_SET_ATTENTION_STATUS, status_3, &result) != 0 || !result) return 2;
  for (; result[n] != '\0'; ++n) same = same && result[n] == expected[n];
  WriteFile(GetStdHandle((unsigned long)-11), result, n, &written, 0);
  qx_plugin_delete(result);
  return same && n == sizeof expected - 1 ? 0 : 2;
}

#ifdef _MSC_VER
static int filter(unsigned long code) {
  if (code == 0x20474343ul) ExitProcess(3); /* libgcc's code for a C++ throw */
  return 0;                                 /* EXCEPTION_CONTINUE_SEARCH */
}

void mainCRTStartup(void) {
  char *result = 0;
  int failed = run();
  if (failed) ExitProcess(failed);
  __try {
    qx_plugin_action(QX_ACTION_SET_ATTENTION_STATUS, "{\"F4010\":{\"status\":\"on\"}}", &result);
  } __except (filter(_exception_code())) {
  }
  ExitProcess(4);
}
#else
int main(void) { return run(); }
#endif
