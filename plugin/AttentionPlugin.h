// Boundary state, the action protocol, persistence and telemetry of the plug-in.
#pragma once

#include <cstdint>

// The host's callback: (kind, name, JSON text, 0, 0); its result is ignored.
using HostCallback = int (*)(const char* kind, const char* name, const char* json,
                             std::uintptr_t reserved, std::int32_t flags);

extern HostCallback g_host_callback;
extern std::uint32_t g_ability;
extern std::uint8_t g_state_loaded;
extern std::int32_t g_status;
extern std::int32_t g_delay;

void* PluginAllocate(int size);
void PluginFree(void* buffer);
int PluginInit(void* ignored, HostCallback callback);
int PluginAction(const char* action, const char* params, char** result);
