// The sensor library log's failure lines, as the fusion client writes them
// (printf formats) and logread reads them back (the same formats, scanned).
#pragma once

// A remote call raised an exception: its code in hexadecimal and decimal.
#define QX_SENSOR_EXCEPTION "Runtime reported exception 0x%lx = %ld"
// The string binding could not be composed: the RPC status.
#define QX_SENSOR_BINDING_FAILED "RpcStringBindingCompos err!%u"
// The binding's authentication could not be set: the RPC status.
#define QX_SENSOR_AUTH_FAILED "RpcBindingSetAuthInfo:%u"
