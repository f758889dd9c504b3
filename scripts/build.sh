#!/usr/bin/env bash
# Configures and builds both trees: build/win (the Windows DLL, tools and tests,
# cross-compiled with mingw-w64) and build/native (portable code, Linux).
# Installs the Debian packages it needs first.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs=${QX_JOBS:-$(nproc)}
echo "== building the Windows tree (build/win)"
cmake -S . -B build/win -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/win -j "$jobs"
echo "== building the native tree (build/native)"
cmake -S . -B build/native -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/native -j "$jobs"
