#!/usr/bin/env bash
# logread_cli_tests' tables against logread.exe under Wine, in a prefix of their
# own: the same bytes out. Skipped (77) without a Windows tree.
# Usage: wine-cases.sh CLI_TESTS LOGREAD_EXE SOURCE_DIR
set -uo pipefail
tests=$1 exe=$2 src=$3
[ -f "$exe" ] || { echo "skipped: $exe is not built (scripts/build.sh builds the Windows tree)"; exit 77; }
prefix=$(mktemp -d)/prefix
"$src/scripts/wine-prefix.sh" create "$prefix" || exit 1
QX_LOGREAD="wine $exe" WINEPREFIX=$prefix WINEDEBUG=-all LC_ALL=C.UTF-8 \
  "$tests" --gtest_filter=LogreadCli.CasesOfTheTable | tee "$prefix.out"
status=$?
# A misspelt filter selects nothing and passes: the case must run.
grep -q '^\[  PASSED  \] 1 test\.' "$prefix.out" || status=1
"$src/scripts/wine-prefix.sh" stop "$prefix"
rm -rf "$(dirname "$prefix")"
exit $status
