// The guard around every remote call turns what C++ cannot catch (an RPC
// exception, an access violation) into a code, and works again after.
#include <windows.h>

#include <gtest/gtest.h>

#include "FusionSehGuard.h"

TEST(Guard, CatchesAccessViolationAndRpcExceptionsAndExecutionGoesOn) {
  EXPECT_EQ(0xC0000005ul,
            FusionSehCall([](void*) { *static_cast<volatile int*>(nullptr) = 1; }, nullptr));
  EXPECT_EQ(1722ul,
            FusionSehCall([](void*) { RaiseException(RPC_S_SERVER_UNAVAILABLE, 0, 0, nullptr); },
                          nullptr));
  int ran = 0;
  EXPECT_EQ(0ul, FusionSehCall([](void* p) { ++*static_cast<int*>(p); }, &ran));
  EXPECT_EQ(1, ran);
}
