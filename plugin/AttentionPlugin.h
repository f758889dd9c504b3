// Boundary state, the action protocol, persistence and telemetry of the plug-in.
#pragma once

#include <cstdint>

// The exports, HostCallback, the action names and the error codes.
#include "qx_plugin.h"

extern HostCallback g_host_callback;
extern std::uint32_t g_ability;
extern std::uint8_t g_state_loaded;
extern std::int32_t g_status;
extern std::int32_t g_delay;

// Boundary (AttentionPlugin.cpp).
void* PluginAllocate(int size);
void PluginFree(void* buffer);
int PluginInit(void* ignored, HostCallback callback);
int PluginAction(const char* action, const char* params, char** result);

// Persistence and telemetry (AttentionState.cpp). Registry values live under
// HKEY_CURRENT_USER\SOFTWARE\Vantoq\Quillomatic as REG_DWORD.
int read_attention_value(const wchar_t* name, std::uint32_t* out);
int write_attention_value(const wchar_t* name, std::uint32_t value);

enum class LoadForm {
  Ability,  // "ability": the cached ability check, no client set-up
  Init,     // "init": sets the attention client up
};
// Settles g_ability, g_status and g_delay from the registry (writing the
// defaults that are missing) and sets g_state_loaded.
void load_attention_state(LoadForm form);

// The handler "init" registers with the bridge: event 1 sends the telemetry.
int attention_divert_handler(std::uint32_t event);
// Sends ("BIGDATA", "BIGDATA", {"action":"SA0004","type":"Report"}) to the host.
int activeBigDataReport();
