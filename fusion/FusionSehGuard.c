// The one guarded region of the fusion client (see FusionSehGuard.h).
#include "FusionSehGuard.h"

#include <windows.h>
#include <excpt.h>

// The code of the exception caught on this thread; several threads may be in
// guarded calls at once (waiting threads fetch records while a host thread calls).
static _Thread_local unsigned long t_exceptionCode;

// Scope filter: must be an external symbol, the scope table names it by symbol.
int FusionSehFilter(EXCEPTION_POINTERS* pointers, void* establisherFrame) {
  (void)establisherFrame;
  t_exceptionCode = pointers->ExceptionRecord->ExceptionCode;
  if (t_exceptionCode == 0)
    t_exceptionCode = 0xFFFFFFFFul; /* a raised code 0 must still read as an exception */
  return EXCEPTION_EXECUTE_HANDLER;
}

__attribute__((noinline)) unsigned long FusionSehCall(FusionGuardedFn fn, void* context) {
  t_exceptionCode = 0;
  __try1(FusionSehFilter) fn(context);
  __except1 return t_exceptionCode;
}
