// The plug-in's whole C boundary: the four undecorated exports declared in
// include/qx_plugin.h (compiled here with QX_PLUGIN_BUILDING, so a change of
// a prototype there breaks this file instead of the host).
//
// Lifecycle contract with the host:
//   1. qx_plugin_init(ignored, callback) once: sets up the log and keeps the
//      callback (the only call the plug-in makes into the host is the telemetry
//      report, from the attention event thread). It may be called again.
//   2. qx_plugin_action("init", ...) once, then any actions, last "close".
//      Actions are expected one at a time; no lock is taken here. "init" again
//      without "close", "close" again, a "set_" action after "close" and an
//      unload while the event thread runs are not guarded against: the host
//      must avoid them.
//   3. Every result of qx_plugin_action is a buffer from qx_plugin_new's
//      allocator; the host frees it with qx_plugin_delete (null is ignored).
// All state is process-wide and lives until the library unloads.
#include "AttentionPlugin.h"

extern "C" {

void* qx_plugin_new(int size) { return PluginAllocate(size); }

int qx_plugin_init(void* ignored, HostCallback callback) { return PluginInit(ignored, callback); }

int qx_plugin_action(const char* action, const char* params, char** result) {
  return PluginAction(action, params, result);
}

void qx_plugin_delete(void* buffer) { PluginFree(buffer); }

}  // extern "C"
