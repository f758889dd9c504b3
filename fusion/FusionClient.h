// Client of the sensor fusion service: the remote interface wrappers, the
// binding, and the event threads that follow the service's sensor events.
// Results are signed 32-bit codes: 0 success, 1 a remote call raised an
// exception or binding failed, 2 sensor not followed, 0x10000000 + index a
// sensor event could not be opened, 0x20000000 + index its waiting thread
// could not be started; any other value is the service's own result.
#pragma once

#include <cstdint>

// Called on the waiting thread with each fetched record: (context, sensor id, record).
using SensorDataCallbackFn = void (*)(void* context, std::int32_t id, void* data);

// Remote interface wrappers (one remote call each, under the client's lock).
std::int32_t BindFusionService();
std::int32_t ReleaseFusionBinding();
std::int32_t GetFusionStatus(void* ignored, std::uint32_t* status);
std::int32_t GetFusionDelay(void* ignored, std::uint32_t* delay);
std::int32_t SetFusionDelay(void* ignored, const std::uint32_t* delay);
std::int32_t GetSensorData(std::int32_t id, void* data);

// Event threads.
std::int32_t InitFusion();
std::int32_t FusionSetting(std::uint32_t mask);
std::int32_t StartFusion(void* ignored, std::uint32_t param);
std::int32_t UnInitial();
std::int32_t SensorDataCallback(std::int32_t id);
std::int32_t RegisterSensorDataCallback(SensorDataCallbackFn callback, void* context);
