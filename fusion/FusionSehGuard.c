// The one guarded region of the fusion client (see FusionSehGuard.h).
#include "FusionSehGuard.h"

#include <windows.h>
#include <excpt.h>

// Filter: records the code and asks for the handler, whatever the exception.
static int FusionSehFilter(unsigned long code, unsigned long* caught) {
  *caught = code ? code : 0xFFFFFFFFul; /* a raised code 0 must still read as an exception */
  return EXCEPTION_EXECUTE_HANDLER;
}

__declspec(noinline) unsigned long FusionSehCall(FusionGuardedFn fn, void* context) {
  unsigned long caught = 0;
  __try {
    fn(context);
  } __except (FusionSehFilter(GetExceptionCode(), &caught)) {
  }
  return caught;
}
