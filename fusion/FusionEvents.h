// The sensor fusion service's named events, one per sensor index (the bit of
// the sensor mask and the remote sensor id). The service creates them; a
// client opens them under the prefix "Global\". Indexes 1 and 7 to 30 have
// no event.
#pragma once

#include <string>

inline const wchar_t* FusionSensorEventName(int index) {
  switch (index) {
    case 0:
      return L"Vantoq.SensorFusion.GestureEvent";
    case 2:
      return L"Vantoq.SensorFusion.ColorEvent";
    case 3:
      return L"Vantoq.SensorFusion.HODEVENT";
    case 4:
      return L"Vantoq.SensorFusion.HealthyEVENT";
    case 5:
      return L"Vantoq.SensorFusion.IntruderEVENT";
    case 6:
      return L"Vantoq.SensorFusion.AttentionEVENT";
    case 31:
      return L"Vantoq.SensorFusion.TestEvent";
    default:
      return nullptr;
  }
}

// "Global\" and the event's name, or empty when the index has no event.
inline std::wstring FusionGlobalEventName(int index) {
  const wchar_t* name = FusionSensorEventName(index);
  return name ? std::wstring(L"Global\\") + name : std::wstring();
}
