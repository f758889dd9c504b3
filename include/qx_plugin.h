/*
 * qx_plugin.h - the C interface of QXAttentionPlugin.dll (64-bit Windows).
 *
 * The host reaches the plug-in only through the four functions below. Link
 * with lib/QXAttentionPlugin.lib (MSVC, lld-link) or lib/libQXAttentionPlugin.dll.a
 * (mingw-w64), or load the DLL with LoadLibrary and use the *_fn types with
 * GetProcAddress. This header compiles as C89, C99/C11 and C++.
 *
 * Lifecycle (one process, one plug-in; all state is process-wide). The same
 * contract is in docs/integration.md ("Calling order"); qxhost warns on every
 * breach of it.
 *   1. qx_plugin_init(NULL, callback) before any action; calling it again
 *      sets the log up again and replaces the callback.
 *   2. qx_plugin_action(QX_ACTION_INIT, ...) before any other action. Before
 *      it only "get_attention" is harmless (it answers -1). "ability" answers
 *      0, keeps 0 for the rest of the process and stores status 0, unless the
 *      installer wrote the machine-wide ability cache; "set_attention_status"
 *      stores status 0 over the user's choice.
 *   3. Any actions, one at a time (the plug-in takes no lock).
 *   4. qx_plugin_action(QX_ACTION_CLOSE, ...) once per "init". After it only
 *      "get_attention", "ability" or a new "init" (back to step 2). A second
 *      "close", or "set_attention_status" 1, signals and closes a stale handle
 *      value that may by then be one of the host's; the other "set_" calls
 *      fail against the released connection.
 *   5. Unload the DLL only after "close" (better: never, until the process
 *      ends); never after two "init" without "close" in between, whose first
 *      event thread runs on.
 * These and the other hazards: docs/integration.md, "Hazards a host must avoid".
 *
 * Memory: every *result of qx_plugin_action is a buffer of the plug-in's own
 * heap (the DLL carries its own C++ runtime). Free it with qx_plugin_delete,
 * never with free() or delete. qx_plugin_new allocates from that heap.
 * Strings given to the callback are valid only during the call.
 */
#ifndef QX_PLUGIN_H
#define QX_PLUGIN_H

#if defined(_MSC_VER) && _MSC_VER < 1600
typedef unsigned __int64 qx_uintptr_t;
typedef int qx_int32_t;
#else
#include <stdint.h>
typedef uintptr_t qx_uintptr_t;
typedef int32_t qx_int32_t;
#endif

/* QX_PLUGIN_BUILDING is defined only when the DLL itself is compiled. */
#if defined(QX_PLUGIN_BUILDING)
#define QX_PLUGIN_API __declspec(dllexport)
#elif defined(_WIN32)
#define QX_PLUGIN_API __declspec(dllimport)
#else
#define QX_PLUGIN_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The DLL's file name. */
#define QX_PLUGIN_DLL_NAME "QXAttentionPlugin.dll"

/* Action names for qx_plugin_action, compared as whole, case-sensitive strings. */
#define QX_ACTION_ABILITY "ability"                           /* params ignored */
#define QX_ACTION_INIT "init"                                 /* params ignored; result "" */
#define QX_ACTION_CLOSE "close"                               /* params ignored; result "" */
#define QX_ACTION_GET_ATTENTION "get_attention"               /* params ignored */
#define QX_ACTION_SET_ATTENTION_STATUS "set_attention_status" /* {"F4010":{"status":S}} */
#define QX_ACTION_SET_ATTENTION_DELAY "set_attention_delay"   /* {"F4010":{"delay":D}} */

/* The feature id, the object that holds the parameters of the "set_" actions. */
#define QX_FEATURE_ID "F4010"

/* Error codes, returned in the result as {"error_code":n}. */
#define QX_ERROR_BAD_PARAMS (-3)  /* not JSON, not an object, no object "F4010" */
#define QX_ERROR_OUT_OF_RANGE 1   /* status not 1 or 2, delay not 10..60 */
#define QX_ERROR_UNKNOWN_ACTION 4 /* any other action name */

/* Attention status values in results. */
#define QX_STATUS_NOT_LOADED (-1) /* before "init" or "ability" (delay is -1 too) */
#define QX_STATUS_NOT_SUPPORTED 0
#define QX_STATUS_OFF 1
#define QX_STATUS_ON 2

/* Delay range for "set_attention_delay", both ends included. */
#define QX_DELAY_MIN 10
#define QX_DELAY_MAX 60

/* The one message the plug-in sends the host: kind and name are both
 * "BIGDATA", json is {"action":"SA0004","type":"Report"} and a line feed. */
#define QX_CALLBACK_KIND_BIGDATA "BIGDATA"

/*
 * The host's callback. Called on the plug-in's event thread, not on the thread
 * that runs actions, possibly while an action runs: make it thread-safe and
 * quick. reserved and flags are always 0; the result is ignored.
 */
typedef int (*HostCallback)(const char *kind, const char *name, const char *json,
                            qx_uintptr_t reserved, qx_int32_t flags);

/* Allocates size bytes (uninitialised) from the plug-in's heap; size 0 gives
 * a valid, distinct pointer. Exhaustion is not caught (the process ends). */
QX_PLUGIN_API void *qx_plugin_new(int size);

/* Sets up the log and keeps the callback (not checked: pass a real one if
 * attention may be switched on). ignored is not read. Always returns 0. */
QX_PLUGIN_API int qx_plugin_init(void *ignored, HostCallback callback);

/* Runs one action. action must not be NULL; params is JSON text, read only
 * by the two "set_" actions (for them it must not be NULL). Stores a new
 * zero-terminated result (JSON ending with a line feed, or "" for "init" and
 * "close") in *result; free it with qx_plugin_delete. Always returns 0;
 * errors come back as {"error_code":n}. A "status" or "delay" member that is
 * not a number, and a NULL action, make a C++ exception of the plug-in's own
 * (GCC) runtime leave this function and *result is not written; a C host
 * cannot catch it and its process ends (docs/integration.md, "Exceptions"):
 * send numbers, never NULL. */
QX_PLUGIN_API int qx_plugin_action(const char *action, const char *params, char **result);

/* Frees a buffer from qx_plugin_new or a result of qx_plugin_action; NULL is
 * ignored. */
QX_PLUGIN_API void qx_plugin_delete(void *buffer);

/* For LoadLibrary/GetProcAddress hosts. */
typedef void *(*qx_plugin_new_fn)(int size);
typedef int (*qx_plugin_init_fn)(void *ignored, HostCallback callback);
typedef int (*qx_plugin_action_fn)(const char *action, const char *params, char **result);
typedef void (*qx_plugin_delete_fn)(void *buffer);

#ifdef __cplusplus
}
#endif

#endif /* QX_PLUGIN_H */
