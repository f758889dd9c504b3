// CHECK for the fuzz targets: a failed check aborts, so libFuzzer keeps the input.
#pragma once

#include <cstdio>
#include <cstdlib>

#define CHECK(cond)                                                                        \
  ((cond) ? (void)0                                                                        \
          : (std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond), \
             std::abort()))
