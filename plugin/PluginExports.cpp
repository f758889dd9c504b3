// The plug-in's whole C boundary: four undecorated exports.
//
// Lifecycle contract with the host:
//   1. qx_plugin_init(ignored, callback) once: sets up the log and keeps the
//      callback (the only call the plug-in makes into the host is the telemetry
//      report, from the attention event thread). It may be called again.
//   2. qx_plugin_action("init", ...), then any actions, last "close".
//      Actions are expected one at a time; no lock is taken here.
//   3. Every result of qx_plugin_action is a buffer from qx_plugin_new's
//      allocator; the host frees it with qx_plugin_delete (null is ignored).
// All state is process-wide and lives until the library unloads.
#include "AttentionPlugin.h"

extern "C" {

__declspec(dllexport) void* qx_plugin_new(int size) { return PluginAllocate(size); }

__declspec(dllexport) int qx_plugin_init(void* ignored, HostCallback callback) {
  return PluginInit(ignored, callback);
}

__declspec(dllexport) int qx_plugin_action(const char* action, const char* params, char** result) {
  return PluginAction(action, params, result);
}

__declspec(dllexport) void qx_plugin_delete(void* buffer) { PluginFree(buffer); }

}  // extern "C"
