#!/usr/bin/env bash
# Installs the logread package and decodes a sample log with it (as root):
#   check-deb.sh dist/qx-logread_<version>_amd64.deb | --from-build build/native
# --from-build (ctest release_deb): made with CPack, removed afterwards; exit 77
# where it cannot run.
set -euo pipefail
usage="usage: check-deb.sh PACKAGE.deb | --from-build NATIVE_BUILD_DIR"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export DEBIAN_FRONTEND=noninteractive
fail() { echo "check-deb: FAILED: $*"; exit 1; }
if [ "${1:-}" = --from-build ]; then
  skip() { echo "check-deb: SKIPPED: $*"; exit 77; }
  [ "$(id -u)" -eq 0 ] || skip "installing a package needs root"
  command -v dpkg >/dev/null && command -v apt-get >/dev/null || skip "no dpkg and apt-get here"
  (cd "${2:?$usage}" && cpack -G DEB -B "$work/package" >"$work/cpack.log" 2>&1) \
    || { cat "$work/cpack.log"; fail "CPack made no package"; }
  exec 9>/var/lock/qx-check-deb.lock
  flock -w 600 9 || fail "another check-deb kept the lock for 600 s"
  dpkg-query -W qx-logread >/dev/null 2>&1 && skip "qx-logread is installed already"
  trap 'apt-get purge -y -q qx-logread >/dev/null 2>&1; rm -rf "$work"' EXIT
  deb=$(echo "$work"/package/qx-logread_*_amd64.deb)
else
  deb=${1:?$usage}
  deb=$(cd "$(dirname "$deb")" && pwd)/$(basename "$deb")
fi

apt-get install -y -q --no-install-recommends -o DPkg::Lock::Timeout=120 "$deb" >"$work/apt.log" 2>&1 \
  || { cat "$work/apt.log"; fail "the package did not install"; }
echo "check-deb: installed $(dpkg-query -W -f='${Package} ${Version} (${Depends})' qx-logread)"

# Frames by hand (perl-base is everywhere): 4-byte little-endian length, each byte as 255 - b.
cat > "$work/records.txt" <<'TXT'
11-22 14:05:07:042 : [INF][04242] AttentionPlugin.cpp(170)  attention plugin init... 
11-22 14:05:07:051 : [WAR][00017] AttentionFuntion.cpp(212) Grüße, 注意
TXT
perl -ne 'print pack("V", length($_)), ~$_' "$work/records.txt" > "$work/sample.logdat"
logread "$work/sample.logdat" > "$work/decoded.txt"
diff "$work/records.txt" "$work/decoded.txt" || fail "decoded text differs"
for f in /usr/share/qx-logread/lnav/qx_{attention,sensorlib}_log.json /usr/share/doc/qx-logread/{logread.md,log-records.md,copyright}; do
  [ -s "$f" ] || fail "$f is not installed"
done
echo "check-deb: all checks passed"
