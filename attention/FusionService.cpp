// Management of the sensor fusion service: make sure it runs and restart it
// before the controller connects, and (carried, not called) remove it.
//
// The service is addressed by three names, each where it stands: the Service
// Control Manager and "net start" use "VantoqSensorFusion", the stop command of
// the check and the restart says "tof service" (two unquoted words), and the
// removal stops "SensorFusionServ". Keep them as they are.
#include <windows.h>

#include "AttentionFuntion.h"
#include "CommonHelper.h"
#include "Logger.h"
#include "ServiceNames.h"

namespace {

// Same source name as the rest of the controller.
constexpr wchar_t kLogSource[] = L"AttentionFuntion";

constexpr wchar_t kServiceName[] = QX_SERVICE_NAME_W;
constexpr wchar_t kNetCommand[] = L"net.exe";
constexpr wchar_t kStopTofService[] = L"stop tof service";
constexpr wchar_t kStartFusionService[] = L"start " QX_SERVICE_NAME_W;
constexpr wchar_t kStopFusionServ[] = L"stop SensorFusionServ";

constexpr wchar_t kProductKey[] = L"SOFTWARE\\Vantoq\\Quillomatic";
constexpr wchar_t kAbilityValue[] = L"attention__ability";

// Fixed pauses after the commands; "net" returns before the service has
// changed its state, so these give it time.
constexpr DWORD kCheckPauseMs = 400;
constexpr DWORD kRestartPauseMs = 200;

}  // namespace

std::int32_t Fusion_service_check() {
  std::int32_t result = 1;
  SERVICE_STATUS status = {};
  SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
  if (manager) {
    SC_HANDLE service = OpenServiceW(manager, kServiceName, SERVICE_QUERY_STATUS);
    if (service) {
      QueryServiceStatus(service, &status);  // a failed query leaves state 0: not running
      CloseServiceHandle(service);
      result = 0;
    }
    CloseServiceHandle(manager);
  }
  QX_LOG(LogInfo, 25, L"ServiceInstall ret=%d s:%x", result,
         static_cast<unsigned>(status.dwCurrentState));

  if (result == 0 && status.dwCurrentState == SERVICE_RUNNING) return 0;

  // Not running, not installed or not reachable. The command is a stop command
  // although the service was not found running; kept so.
  QX_LOG(LogDebug, 54, L"Fusion_service_restart SensorFusionServ");
  RunProcess(kNetCommand, kStopTofService, true);
  Sleep(kCheckPauseMs);
  return 0;
}

std::int32_t Fusion_service_restart() {
  QX_LOG(LogDebug, 81, L"Fusion_service_restart SensorFusionServ");
  RunProcess(kNetCommand, kStopTofService, true);  // exit codes are not used
  Sleep(kRestartPauseMs);
  RunProcess(kNetCommand, kStartFusionService, true);
  Sleep(kRestartPauseMs);
  return 0;
}

// Not called by the plug-in.
std::int32_t DeleteFusionService() {
  SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
  if (!manager) return 0;
  std::int32_t result = 0;
  SC_HANDLE service = OpenServiceW(manager, kServiceName, DELETE);
  if (service) {
    result = static_cast<std::int32_t>(DeleteService(service));
    CloseServiceHandle(service);
  }
  CloseServiceHandle(manager);
  return result;
}

// Not called by the plug-in.
std::int32_t Fusion_UninstallService() {
  QX_LOG(LogInfo, 68, L"Fusion UninstallService begin stop");
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProductKey, 0, KEY_WRITE, &key) == ERROR_SUCCESS) {
    RegDeleteValueW(key, kAbilityValue);
    // Closes the predefined root rather than the key just opened, whose handle
    // stays open. This is how the removal has always behaved; it is kept.
    RegCloseKey(HKEY_LOCAL_MACHINE);
  }
  RunProcess(kNetCommand, kStopFusionServ, true);
  const std::int32_t deleted = DeleteFusionService();
  QX_LOG(LogInfo, 75, L"Fusion UninstallService= %d", deleted);
  return 0;
}
