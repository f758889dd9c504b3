// Structured exception guard for the remote calls of the fusion client.
//
// gcc has no __try/__except, and a C++ catch (...) does not see an exception
// raised by the RPC runtime (RpcRaiseException): the process would die. The
// guard is therefore a small C function whose body is one SEH scope registered
// with __C_specific_handler (mingw-w64's __try1/__except1 on x86_64). Those
// macros use fixed assembler labels, so each guarded region lives in its own
// translation unit; every remote call of the client goes through this one.
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
