#!/usr/bin/env bash
# logread --help, its manual page and its bash completion name the same options.
# Usage: help-docs.sh LOGREAD SOURCE_DIR
set -uo pipefail
options() { grep -oE -- '(^|[ ,"])--?[a-z][a-z-]*' | grep -oE -- '--?[a-z-]+' | sort -u; }
help=$("$1" --help | sed -n '/^Options:/,/^$/p' | options)
man=$(sed -n '/^\.SH OPTIONS/,/^\.SH TIMES/p' "$2/tools/logread/share/logread.1" | sed 's/\\-/-/g' | options)
completion=$(grep -A3 'compgen -W "-h' "$2/tools/logread/share/logread.bash" | options)
status=0
for pair in "manual page:$man" "bash completion:$completion"; do
  diff <(echo "$help") <(echo "${pair#*:}") >/dev/null && continue
  echo "${pair%%:*} and --help differ (< --help, > ${pair%%:*}):"
  diff <(echo "$help") <(echo "${pair#*:}")
  status=1
done
[ "$(echo "$help" | wc -l)" -ge 15 ] || { echo "too few options read from --help"; status=1; }
exit $status
