#!/usr/bin/env bash
# The cases of data/cases.txt once more, against logread.exe of the Windows
# build under Wine, in a Wine prefix of their own: the same command line, the
# same bytes out. Skipped (exit 77) when the Windows tree is not built.
# Usage: wine-cases.sh CLI_TESTS LOGREAD_EXE SOURCE_DIR
set -uo pipefail
tests=$1 exe=$2 src=$3
if [ ! -f "$exe" ]; then
  echo "skipped: $exe is not built (scripts/build.sh builds the Windows tree)"
  exit 77
fi
prefix=$(mktemp -d)/prefix
"$src/scripts/wine-prefix.sh" create "$prefix" || exit 1
QX_LOGREAD="wine $exe" WINEPREFIX=$prefix WINEDEBUG=-all LC_ALL=C.UTF-8 \
  "$tests" --gtest_filter=LogreadCli.CasesOfTheTable:LogreadCli.SummaryOfRecordedSessions | tee "$prefix.out"
status=$?
# A misspelt name in the filter selects nothing and passes: both must run.
grep -q '^\[  PASSED  \] 2 tests' "$prefix.out" || status=1
"$src/scripts/wine-prefix.sh" stop "$prefix"
rm -rf "$(dirname "$prefix")"
exit $status
