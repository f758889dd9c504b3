#!/usr/bin/env bash
# Builds the fuzz targets in build/fuzz (clang, libFuzzer, ASan, UBSan), replays
# each one's seeds and kept crash inputs, then fuzzes it for SECONDS (default 60);
# exit 1 on a crash, its input kept (docs/fuzzing.md says where).
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
case $seconds in ''|*[!0-9]*) echo "usage: $0 [SECONDS]" >&2; exit 2 ;; esac
scripts/install-deps.sh
echo "== building the fuzz targets (build/fuzz, clang)"
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQX_FUZZ=ON >/dev/null
cmake --build build/fuzz -j "${QX_JOBS:-$(nproc)}" --target qx_fuzz
work=build/fuzz/fuzz/fuzz-work status=0 summary=()
for target in $(ls fuzz/corpus); do  # every target has its seeds there
  exe=build/fuzz/fuzz/$target log=$work/$target.log inputs=(fuzz/corpus/$target) dict=()
  [ -d fuzz/regressions/$target ] && inputs+=(fuzz/regressions/$target)
  [ -f fuzz/$target.dict ] && dict=(-dict=fuzz/$target.dict)
  mkdir -p "$work/corpus/$target" "$work/artifacts/$target"
  echo "== $target: replaying seeds and kept crash inputs, then fuzzing for ${seconds}s"
  "$exe" -runs=0 "${inputs[@]}" >"$log" 2>&1 || { tail -n 40 "$log"; echo "$target: a seed or kept input fails" >&2; exit 1; }
  rc=0
  "$exe" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$work/artifacts/$target/" "${dict[@]}" "$work/corpus/$target" "${inputs[@]}" >"$log" 2>&1 || rc=$?
  stat() { sed -n "s/^stat::$1: *//p" "$log" | tail -n1; }
  if [ $rc -ne 0 ]; then
    status=1
    tail -n 60 "$log"
    summary+=("$target: CRASH after $(stat number_of_executed_units) execs, input in $work/artifacts/$target/ (log $log)")
  else
    summary+=("$target: $(stat number_of_executed_units) execs in ${seconds}s ($(stat average_exec_per_sec)/s), $(grep -o \
      'cov: [0-9]*' "$log" | tail -n1), corpus $(find "$work/corpus/$target" -type f | wc -l) files, no crash")
  fi
done
echo "== fuzz summary ($(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores)"
printf '%s\n' "${summary[@]}"
exit $status
