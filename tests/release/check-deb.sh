#!/usr/bin/env bash
# Installs the logread package and decodes a sample log with it, as a support
# engineer would on a Linux machine (run as root, e.g. in a fresh root through
# ../shared/tools/fresh-check):
#   tests/release/check-deb.sh dist/qx-logread_<version>_amd64.deb
# The sample is made here from the documented frame format: a 4-byte
# little-endian length, then the record's UTF-8 bytes, each stored as 255 - b.
set -euo pipefail
deb=${1:?usage: check-deb.sh PACKAGE.deb}
deb=$(cd "$(dirname "$deb")" && pwd)/$(basename "$deb")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

export DEBIAN_FRONTEND=noninteractive
apt-get install -y -q --no-install-recommends "$deb" >"$work/apt.log" 2>&1 \
  || { cat "$work/apt.log"; echo "check-deb: the package did not install"; exit 1; }
echo "check-deb: installed $(dpkg-query -W -f='${Package} ${Version} (${Depends})' qx-logread)"
command -v logread

cat > "$work/records.txt" <<'TXT'
11-22 14:05:07:042 : [INF][04242] AttentionPlugin.cpp(170)  attention plugin init... 
11-22 14:05:07:043 : [INF][04242] AttentionPlugin.cpp(341) resp: {"cmd":"get_attention","delay":10,"status":2}
11-22 14:05:07:051 : [WAR][00017] AttentionFuntion.cpp(212) Grüße, 注意
TXT
# perl-base is on every Debian system; no other tool is assumed here.
perl -ne 'print pack("V", length($_)), ~$_' "$work/records.txt" > "$work/sample.logdat"

logread "$work/sample.logdat" > "$work/decoded.txt"
if cmp "$work/records.txt" "$work/decoded.txt"; then
  echo "check-deb: logread decoded the sample (3 records) exactly"
else
  diff "$work/records.txt" "$work/decoded.txt" || true
  echo "check-deb: FAILED: decoded text differs"
  exit 1
fi
logread --help >/dev/null
for f in /usr/share/qx-logread/lnav/qx_attention_log.json /usr/share/qx-logread/lnav/qx_sensorlib_log.json \
         /usr/share/doc/qx-logread/logread.md /usr/share/doc/qx-logread/log-records.md; do
  [ -s "$f" ] || { echo "check-deb: FAILED: $f is not installed"; exit 1; }
done
echo "check-deb: the reader's guide, the record list and the lnav formats are installed"
echo "check-deb: all checks passed"
