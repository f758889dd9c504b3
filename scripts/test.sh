#!/usr/bin/env bash
# The test command: builds both trees (installing what they need), checks the
# format, runs the native tests, a short fuzz run of each target, then the
# Windows tests under Wine.
set -uo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh || exit 1

status=0
echo "== format (.clang-format)"
scripts/check-format.sh || status=1
echo "== native tests"
(cd build/native && ctest --output-on-failure) || status=1
echo "== fuzzing (build/fuzz, clang: replay of seeds and kept inputs, 60 s per target)"
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQX_FUZZ=ON >/dev/null \
  && cmake --build build/fuzz -j "${QX_JOBS:-$(nproc)}" --target qx_fuzz \
  && (cd build/fuzz && ctest -L fuzz --output-on-failure) || status=1
echo "== Windows tests under Wine"
(cd build/win && ctest -j2 --output-on-failure) || status=1
exit $status
