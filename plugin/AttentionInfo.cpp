#include "AttentionInfo.h"

#include "AttentionFuntion.h"
#include "Logger.h"

namespace {
constexpr wchar_t kLogSource[] = L"AttentionInfo.cpp";
constexpr std::uint32_t kAbilityUnknown = 0xFFFFFFFF;
}  // namespace

std::uint32_t g_ability_cache = kAbilityUnknown;
AttentionEventHandler g_event_handler = nullptr;

int set_attention_event_handler(AttentionEventHandler handler) {
  g_event_handler = handler;
  return 0;
}

int check_attention_ability() {
  if (g_ability_cache == kAbilityUnknown)
    g_ability_cache = static_cast<std::uint32_t>(CheckAttentionAbility());
  return g_ability_cache != 0 ? 1 : 0;
}

int setup_attention_client() {
  QX_LOG(LogInfo, 25, L"setup_attention_client ");
  // Only exactly 1 is a set-up: any other answer, whatever it is, is a failure.
  if (attention_init() != 1) return 0;
  if (!check_attention_ability()) return 0;
  attention_set_callback(callback_event);
  // Attention stays off until the caller applies the stored status.
  attention_stop();
  return 1;
}

void set_attention_enable(int flag) {
  // Only a known "not supported" skips the controller; an ability that was
  // never asked for lets the flag through.
  if (g_ability_cache == 0) return;
  QX_LOG(LogInfo, 51, L"set_attention_enable %d", flag);
  attention_set_enable(flag);
}

void set_attention_ctrl(int status) {
  QX_LOG(LogInfo, 57, L"set_attention_ctrl %d", status);
  if (status == 2)
    attention_start();
  else
    attention_stop();
}

int callback_event(std::uint32_t event, std::uint32_t /*status: not used*/) {
  // Runs on the controller's event thread, not on a host thread.
  QX_LOG(LogInfo, 84, L"callback_event");
  // The plug-in registers its handler before set-up registers this function,
  // so the handler is present whenever an event can arrive; the check only
  // keeps a foreign caller from jumping through an empty slot.
  if (event == 1 && g_event_handler) g_event_handler(1);
  return 0;
}
