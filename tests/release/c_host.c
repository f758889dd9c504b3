/*
 * A small host in C, built against include/qx_plugin.h and nothing else of
 * the plug-in: what an integrator writes first.
 *   c_host DLL        loads DLL with LoadLibrary, finds the four exports
 *   c_host --linked   calls the exports directly (built with -DQX_HOST_LINKED
 *                     against the GNU import library; the DLL is found on PATH)
 * Runs qx_plugin_init and three actions that need no service, checks each
 * result against the documented text, frees every result with
 * qx_plugin_delete. Prints one line per check and the DLL it used; exit code
 * 0 when every check passed.
 */
#include <windows.h>

#include <stdio.h>
#include <string.h>

#include "qx_plugin.h"

static qx_plugin_new_fn plugin_new;
static qx_plugin_init_fn plugin_init;
static qx_plugin_action_fn plugin_action;
static qx_plugin_delete_fn plugin_delete;
static int failures;

static int on_host_callback(const char *kind, const char *name, const char *json,
                            qx_uintptr_t reserved, qx_int32_t flags)
{
    (void)reserved;
    (void)flags;
    printf("callback %s %s %s", kind, name, json);
    return 0;
}

static void check(int ok, const char *what, const char *detail)
{
    if (ok)
        printf("ok   %s\n", what);
    else
        printf("FAIL %s: %s\n", what, detail ? detail : "(no result)");
    if (!ok)
        ++failures;
}

static void expect_result(const char *action, const char *params, const char *expected)
{
    char *result = NULL;
    int rc = plugin_action(action, params, &result);
    check(rc == 0 && result != NULL && strcmp(result, expected) == 0, action, result);
    plugin_delete(result);
}

int main(int argc, char **argv)
{
    HMODULE module;
    char path[MAX_PATH];
    void *block;

    if (argc != 2) {
        fprintf(stderr, "usage: c_host DLL | c_host --linked\n");
        return 2;
    }
#ifdef QX_HOST_LINKED
    (void)argv;
    plugin_new = qx_plugin_new;
    plugin_init = qx_plugin_init;
    plugin_action = qx_plugin_action;
    plugin_delete = qx_plugin_delete;
    module = GetModuleHandleA(QX_PLUGIN_DLL_NAME);
#else
    module = LoadLibraryA(argv[1]);
    if (module == NULL) {
        printf("FAIL LoadLibrary %s: error %lu\n", argv[1], GetLastError());
        return 1;
    }
    /* Through void (*)(void), the generic function pointer type: FARPROC's
       own type would draw -Wcast-function-type. */
    plugin_new = (qx_plugin_new_fn)(void (*)(void))GetProcAddress(module, "qx_plugin_new");
    plugin_init = (qx_plugin_init_fn)(void (*)(void))GetProcAddress(module, "qx_plugin_init");
    plugin_action = (qx_plugin_action_fn)(void (*)(void))GetProcAddress(module, "qx_plugin_action");
    plugin_delete = (qx_plugin_delete_fn)(void (*)(void))GetProcAddress(module, "qx_plugin_delete");
    if (!plugin_new || !plugin_init || !plugin_action || !plugin_delete) {
        printf("FAIL an export is missing\n");
        return 1;
    }
#endif
    if (module == NULL || GetModuleFileNameA(module, path, sizeof path) == 0) {
        printf("FAIL the plug-in is not loaded\n");
        return 1;
    }
    printf("plug-in %s\n", path);

    block = plugin_new(0);
    check(block != NULL, "qx_plugin_new(0)", NULL);
    plugin_delete(block);
    plugin_delete(NULL);
    check(plugin_init(NULL, on_host_callback) == 0, "qx_plugin_init", NULL);
    expect_result(QX_ACTION_GET_ATTENTION, NULL,
                  "{\"cmd\":\"get_attention\",\"delay\":-1,\"status\":-1}\n");
    expect_result(QX_ACTION_SET_ATTENTION_STATUS, "{\"F4010\":{\"status\":3}}",
                  "{\"error_code\":1}\n");
    expect_result("init ", "", "{\"error_code\":4}\n");

    printf("%s\n", failures == 0 ? "c host: all checks passed" : "c host: FAILED");
    return failures == 0 ? 0 : 1;
}
