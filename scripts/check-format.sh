#!/usr/bin/env bash
# Checks that every C and C++ source of the tree is formatted as .clang-format
# says (clang-format 14 on Debian 12 and 19 on Debian 13 agree on this tree).
#   scripts/check-format.sh          check; lists the files that differ
#   scripts/check-format.sh --fix    rewrite them in place
set -euo pipefail
cd "$(dirname "$0")/.."
fix=0
case "${1:-}" in
  --fix) fix=1 ;;
  "") ;;
  -h|--help) sed -n '2,5p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
  *) echo "check-format: unknown argument '$1' (see --help)" >&2; exit 2 ;;
esac
command -v clang-format >/dev/null || { echo "check-format: clang-format is missing (scripts/install-deps.sh)" >&2; exit 2; }

# The tree's own sources: from git in a checkout, else every source outside build/ and dist/.
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  mapfile -t files < <(git ls-files '*.cpp' '*.h' '*.c')
else
  mapfile -t files < <(find . \( -path ./build -o -path ./dist -o -path ./.git \) -prune -o \
                         -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) -print | sed 's|^\./||' | sort)
fi
if [ "$fix" = 1 ]; then
  clang-format -i "${files[@]}"
  echo "check-format: formatted ${#files[@]} files"
  exit 0
fi
bad=()
for f in "${files[@]}"; do
  clang-format --dry-run -Werror "$f" >/dev/null 2>&1 || bad+=("$f")
done
if [ ${#bad[@]} -gt 0 ]; then
  printf 'check-format: not formatted: %s\n' "${bad[@]}" >&2
  echo "check-format: ${#bad[@]} of ${#files[@]} files differ; see 'clang-format --dry-run FILE', fix with scripts/check-format.sh --fix" >&2
  exit 1
fi
echo "check-format: ${#files[@]} files formatted ($(clang-format --version | sed 's/.*version \([0-9.]*\).*/clang-format \1/'))"
