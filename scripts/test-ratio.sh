#!/usr/bin/env bash
# Tests against code in non-blank characters, the whole rule and the narrow one
# (docs/testing.md, "Size"), then each side by folder. Git's files, tracked and
# untracked but not ignored; no CMakeLists.txt counts.
set -u
cd "$(dirname "$0")/.."
# grep -a: recorded binary logs among the test data would stop the count.
chars() { xargs -r cat 2>/dev/null | grep -a -v '^[[:space:]]*$' | awk '{c+=length($0)} END {print c+0}'; }
all=$(git ls-files -co --exclude-standard | grep -v -E '(^|/)CMakeLists\.txt$|/corpus/|^docs/|^bench/|^scripts/(bench|soak|trace-actions|run-fusion-bench)')
testish='(^cmake/(WineTests|FusionSim|.*[Tt]est.*)\.cmake$)|(^scripts/.*(test|fault|stress|ratio|integrity|trixie|fuzz|record-sessions|check-package|check-deb|check-doc).*)'
pick() { printf '%s\n' "$all" | grep -E "$1" | grep -v -E "${2:-^$}"; }
tests_whole() { pick '^(tests?|fuzz)/'; pick "$testish"; }
code_whole() { pick . '^(tests?|fuzz|examples)/' | grep -v -E "$testish" | grep -v -E '\.(md|png|txt)$|^(LICENSE|THIRD-PARTY-NOTICES)$' | awk '!/\.json$/ || /^share\//'; }
tests_narrow() { pick '^(tests?|fuzz)/'; }
code_narrow() { pick '\.(c|cc|cpp|cxx|h|hpp|idl)$' '^(tests?|fuzz|bench|examples)/'; }

# Kept: the whole rule's tests against every other file the repository keeps,
# documents, benchmarks and examples included.
tests_kept() { tests_whole; }
code_kept() { git ls-files -co --exclude-standard | grep -v -E '(^|/)CMakeLists\.txt$|/corpus/|^(tests?|fuzz)/' | grep -v -E "$testish"; }

measure() {
  local t c
  t=$("tests_$1" | chars) c=$("code_$1" | chars)
  awk -v n="$1" -v t="$t" -v c="$c" -v goal="${2:-at most 38%}" -v of="${3:-code}" 'BEGIN {
    printf "%-6s %5.1f%%  %7d test / %7d %s characters (target: %s)\n", n, 100 * t / c, t, c, of, goal }'
}
folders() {
  local list group
  list=$("$1")
  for group in $(printf '%s\n' "$list" | awk -F/ '{ print (NF > 2 && $1 ~ /^tests?$/) ? $1 "/" $2 : (NF > 1 ? $1 : "(top)") }' | sort -u); do
    printf '%8d  %s\n' "$(printf '%s\n' "$list" | awk -F/ -v g="$group" '($1 "/" $2 == g || $1 == g || (NF == 1 && g == "(top)"))' | chars)" "$group"
  done | sort -rn
}
measure whole
measure narrow
measure kept "none; for scale" other
echo "== whole: test content by folder"
folders tests_whole
echo "== whole: code by folder"
folders code_whole
