#!/usr/bin/env bash
# Fuzzes the portable code: configures build/fuzz with clang (libFuzzer,
# AddressSanitizer, UndefinedBehaviorSanitizer), builds the fuzz targets, replays
# the kept crash inputs, then runs each target for SECONDS (default 60) and
# prints how many inputs it executed.
#   scripts/fuzz.sh [SECONDS]
# New corpus entries stay in build/fuzz/fuzz/fuzz-work/corpus/<target>; a crash
# input is written to build/fuzz/fuzz/fuzz-work/artifacts/<target>/ and the
# script exits 1.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
case $seconds in ''|*[!0-9]*) echo "usage: $0 [SECONDS]" >&2; exit 2 ;; esac
jobs=${QX_JOBS:-$(nproc)}

scripts/install-deps.sh
echo "== building the fuzz targets (build/fuzz, clang)"
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DQX_FUZZ=ON >/dev/null
cmake --build build/fuzz -j "$jobs" --target qx_fuzz

work=build/fuzz/fuzz/fuzz-work
status=0
summary=()
for target in fuzz_logframe fuzz_action_params fuzz_logread_summary; do
  exe=build/fuzz/fuzz/$target
  inputs=(fuzz/corpus/$target)
  [ -d fuzz/regressions/$target ] && inputs+=(fuzz/regressions/$target)
  dict=()
  [ -f fuzz/$target.dict ] && dict=(-dict=fuzz/$target.dict)
  mkdir -p "$work/corpus/$target" "$work/artifacts/$target"
  log="$work/$target.log"

  echo "== $target: replaying seeds and kept crash inputs"
  if ! "$exe" -runs=0 "${inputs[@]}" >"$log" 2>&1; then
    tail -n 40 "$log"
    echo "$target: a seed or kept crash input fails" >&2
    exit 1
  fi

  echo "== $target: fuzzing for ${seconds}s"
  rc=0
  "$exe" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
         -artifact_prefix="$work/artifacts/$target/" "${dict[@]}" \
         "$work/corpus/$target" "${inputs[@]}" >"$log" 2>&1 || rc=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n1 || true)
  corpus=$(find "$work/corpus/$target" -type f | wc -l)
  if [ $rc -ne 0 ]; then
    status=1
    tail -n 60 "$log"
    summary+=("$target: CRASH after ${execs:-?} execs, input in $work/artifacts/$target/ (log $log)")
  else
    summary+=("$target: ${execs:-?} execs in ${seconds}s (${rate:-?}/s), $cov, corpus $corpus files, no crash")
  fi
done

echo "== fuzz summary ($(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores)"
printf '%s\n' "${summary[@]}"
exit $status
