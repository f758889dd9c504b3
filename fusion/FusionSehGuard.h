// Structured exception guard for the remote calls of the fusion client.
//
// A C++ catch (...) does not see an exception raised by the RPC runtime
// (RpcRaiseException): the process would die. The guard is therefore a small C
// function whose body is one structured-exception scope (clang's __try/__except,
// -fms-extensions; the scope table names __C_specific_handler on x86_64); every
// remote call of the client goes through it.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*FusionGuardedFn)(void* context);

// Runs fn(context) inside the guard. Returns 0 when it returned normally, or the
// code of the exception that ended it (execute-handler filter: every exception
// is caught, and execution continues after the guarded call).
unsigned long FusionSehCall(FusionGuardedFn fn, void* context);

#ifdef __cplusplus
}
#endif
