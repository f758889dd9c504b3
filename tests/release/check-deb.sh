#!/usr/bin/env bash
# Installs the logread package and decodes a sample log with it, as a support
# engineer would on a Linux machine (run as root, e.g. in a fresh root through
# ../shared/tools/fresh-check):
#   tests/release/check-deb.sh dist/qx-logread_<version>_amd64.deb
# The sample is made here from the documented frame format: a 4-byte
# little-endian length, then the record's UTF-8 bytes, each stored as 255 - b.
# The ctest entry release_deb (native tree) runs
#   tests/release/check-deb.sh --from-build build/native
# which makes the package there with CPack, installs it on this machine and
# removes it afterwards (one run at a time: a lock). It runs only where it can:
# as root, with dpkg and apt-get, and no qx-logread installed already;
# elsewhere it exits 77 (ctest: skipped) and says why.
set -euo pipefail
usage="usage: check-deb.sh PACKAGE.deb | --from-build NATIVE_BUILD_DIR"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export DEBIAN_FRONTEND=noninteractive
if [ "${1:-}" = --from-build ]; then
  skip() { echo "check-deb: SKIPPED: $*"; exit 77; }
  [ "$(id -u)" -eq 0 ] || skip "not root: installing a package needs root"
  command -v dpkg >/dev/null && command -v apt-get >/dev/null || skip "no dpkg and apt-get here"
  (cd "${2:?$usage}" && cpack -G DEB -B "$work/package" >"$work/cpack.log" 2>&1) \
    || { cat "$work/cpack.log"; echo "check-deb: CPack made no package"; exit 1; }
  exec 9>/var/lock/qx-check-deb.lock
  flock -w 600 9 || { echo "check-deb: another check-deb kept the lock for 600 s"; exit 1; }
  dpkg-query -W qx-logread >/dev/null 2>&1 && skip "qx-logread is installed on this machine already"
  trap 'apt-get purge -y -q qx-logread >/dev/null 2>&1; rm -rf "$work"' EXIT
  deb=$(echo "$work"/package/qx-logread_*_amd64.deb)
else
  deb=${1:?$usage}
  deb=$(cd "$(dirname "$deb")" && pwd)/$(basename "$deb")
fi

apt-get install -y -q --no-install-recommends -o DPkg::Lock::Timeout=120 "$deb" >"$work/apt.log" 2>&1 \
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
