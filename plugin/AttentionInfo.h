// The bridge between the plug-in's actions and the attention controller: sets
// the controller up, caches whether attention is supported, maps the plug-in's
// status onto start and stop, and relays the controller's events to the
// handler that the plug-in registers.
#pragma once

#include <cstdint>

// The plug-in's event handler: takes the event code, returns an integer.
using AttentionEventHandler = int (*)(std::uint32_t event);

// Answer of the controller's CheckAttentionAbility; 0xFFFFFFFF = not yet asked.
extern std::uint32_t g_ability_cache;
extern AttentionEventHandler g_event_handler;

// Stores the handler for event 1; returns 0.
int set_attention_event_handler(AttentionEventHandler handler);

// Whether attention is supported, from the cache or, the first time, from
// CheckAttentionAbility (which then fills the cache). Returns 1 or 0.
int check_attention_ability();

// Sets the controller up (service repair and connection), checks the ability,
// registers callback_event and stops attention. 1 when the client is up and
// attention is supported, else 0.
int setup_attention_client();

// Passes the enable flag to the controller unless attention is known to be
// unsupported (a cache still at 0xFFFFFFFF passes).
void set_attention_enable(int flag);

// 2 starts attention; any other status stops it.
void set_attention_ctrl(int status);

// The controller's event function: event 1 (attention turned away) goes to
// g_event_handler as 1, every other event is dropped. `status` is not used.
int callback_event(std::uint32_t event, std::uint32_t status);
