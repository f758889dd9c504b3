// The sensor fusion service as its clients meet it: its name in the Service
// Control Manager, the named pipe its RPC interface listens on, and the status
// words of its status query. Shared by the fusion client, the simulator and
// logread; plain C and C++, no Windows header.
#pragma once

#define QX_SERVICE_NAME "VantoqSensorFusion"
#define QX_SERVICE_NAME_W L"VantoqSensorFusion"
#define QX_SERVICE_ENDPOINT "\\pipe\\Vantoq.SensorFusion.EndPoint_edc08f"
#define QX_SERVICE_ENDPOINT_W L"\\pipe\\Vantoq.SensorFusion.EndPoint_edc08f"

// The status query's answers.
#define QX_STATUS_SUPPORTED_STOPPED 0x10000000u
#define QX_STATUS_SUPPORTED_ACTIVE 0x10000001u
