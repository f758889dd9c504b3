/*
 * A host as an MSVC toolchain would build it: compiled by clang for the
 * x86_64-pc-windows-msvc target and linked by lld-link against the
 * MSVC-format import library lib/QXAttentionPlugin.lib, without a C runtime.
 *   msvc_host        calls the four exports and checks the results
 *   msvc_host throw  sends a non-numeric "status": the GCC C++ exception that
 *                    leaves qx_plugin_action reaches this host as a structured
 *                    exception (0x20474343); its filter sees it, reports it and
 *                    ends the process with exit code 3, the one thing such a
 *                    host can safely do with it.
 * Prints one line per check; exit code 0 when every check passed.
 */
#include "qx_plugin.h"

/* The few kernel32 functions it needs, declared here: no SDK headers. */
__declspec(dllimport) void *__stdcall GetStdHandle(unsigned long which);
__declspec(dllimport) int __stdcall WriteFile(void *file, const void *data, unsigned long size,
                                              unsigned long *written, void *overlapped);
__declspec(dllimport) void __stdcall ExitProcess(unsigned int code);
__declspec(dllimport) const char *__stdcall GetCommandLineA(void);

#define GCC_CXX_EXCEPTION 0x20474343ul /* what libgcc raises for a C++ throw */

static int failures = 0;

static unsigned long length(const char *text)
{
    unsigned long n = 0;
    while (text[n] != '\0')
        ++n;
    return n;
}

static int same(const char *a, const char *b)
{
    while (*a != '\0' && *a == *b) {
        ++a;
        ++b;
    }
    return *a == *b;
}

static void say(const char *text)
{
    unsigned long written = 0;
    WriteFile(GetStdHandle((unsigned long)-11), text, length(text), &written, 0);
}

static void check(int ok, const char *what)
{
    say(ok ? "ok   " : "FAIL ");
    say(what);
    say("\n");
    if (!ok)
        ++failures;
}

static void expect_result(const char *action, const char *params, const char *expected)
{
    char *result = 0;
    int rc = qx_plugin_action(action, params, &result);
    check(rc == 0 && result != 0 && same(result, expected), action);
    qx_plugin_delete(result);
}

static int on_host_callback(const char *kind, const char *name, const char *json,
                            qx_uintptr_t reserved, qx_int32_t flags)
{
    (void)kind;
    (void)name;
    (void)json;
    (void)reserved;
    (void)flags;
    return 0;
}

static int report_and_exit(unsigned long code)
{
    if (code == GCC_CXX_EXCEPTION) {
        say("filter: GCC C++ exception 0x20474343 left qx_plugin_action\n");
        ExitProcess(3);
    }
    return 0; /* EXCEPTION_CONTINUE_SEARCH */
}

static int ends_with_throw(const char *line)
{
    unsigned long n = length(line);
    while (n > 0 && line[n - 1] == ' ')
        --n;
    return n >= 6 && same(line + n - 6, " throw");
}

void mainCRTStartup(void)
{
    void *block;

    if (ends_with_throw(GetCommandLineA())) {
        char *result = 0;
        qx_plugin_init(0, on_host_callback);
        __try {
            qx_plugin_action("set_attention_status", "{\"F4010\":{\"status\":\"on\"}}", &result);
        } __except (report_and_exit(_exception_code())) {
        }
        say("FAIL no exception left qx_plugin_action\n");
        ExitProcess(1);
    }

    block = qx_plugin_new(16);
    check(block != 0, "qx_plugin_new(16)");
    qx_plugin_delete(block);
    qx_plugin_delete(0);
    check(qx_plugin_init(0, on_host_callback) == 0, "qx_plugin_init");
    expect_result("get_attention", 0, "{\"cmd\":\"get_attention\",\"delay\":-1,\"status\":-1}\n");
    expect_result("Init", 0, "{\"error_code\":4}\n");
    expect_result("set_attention_delay", "{\"F4010\":{\"delay\":9}}", "{\"error_code\":1}\n");

    say(failures == 0 ? "msvc host: all checks passed\n" : "msvc host: FAILED\n");
    ExitProcess(failures == 0 ? 0 : 1);
}
