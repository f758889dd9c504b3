// The attention controller: ability check, set-up and tear-down of the fusion
// client, start/stop/enable/delay, the status-change filter, and management of
// the sensor fusion service. Free functions over process-wide globals.
#pragma once

#include <cstdint>

// The bridge's event function: (event, status).
using AttentionEventFn = int (*)(std::uint32_t event, std::uint32_t status);

extern std::int32_t g_attentionEnabled;
extern std::int32_t g_attentionWorking;
extern std::uint32_t g_lastAttentionStatus;
extern AttentionEventFn g_statusCallback;

// Ability check (registry cache, else the service's status word).
std::int32_t CheckAttentionAbility();

// Controller.
std::int32_t attention_init();
std::int32_t attention_un_init();
std::int32_t attention_start();
std::int32_t attention_stop();
std::int32_t attention_set_enable(std::int32_t value);
std::int32_t SetFusionActive(std::int32_t value);
std::int32_t attention_get_status();
std::int32_t attention_get_delay();
std::int32_t attention_set_delay(std::int32_t delay);
std::int32_t attention_set_callback(AttentionEventFn callback);
void attention_status_changed(void* context, std::int32_t id, void* data);

// Sensor fusion service management.
std::int32_t Fusion_service_check();
std::int32_t Fusion_service_restart();
std::int32_t Fusion_UninstallService();
std::int32_t DeleteFusionService();
