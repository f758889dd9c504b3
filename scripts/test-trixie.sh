#!/usr/bin/env bash
# The Windows tests under Wine 10 from a Debian 12 machine, in a Debian 13 root:
#   scripts/test-trixie.sh [CTEST ARGS...]   build there and run the Windows ctest
#   scripts/test-trixie.sh --all             the whole scripts/test.sh there
#   scripts/test-trixie.sh --run 'COMMAND'   any command in the checkout there
#   scripts/test-trixie.sh --shell           an interactive shell there
# Needs root. The root (QX_TRIXIE_ROOT, default /var/tmp/qx-trixie; debootstrap
# from QX_TRIXIE_MIRROR) is made once; the checkout keeps its path inside, with
# build/trixie as its build/.
set -euo pipefail
checkout=$(cd "$(dirname "$0")/.." && pwd -P)
root=${QX_TRIXIE_ROOT:-/var/tmp/qx-trixie}
mirror=${QX_TRIXIE_MIRROR:-http://deb.debian.org/debian}

case "${1:-}" in
  --all) run=scripts/test.sh ;;
  --run) run=${2:?--run needs a command} ;;
  --shell) run='exec bash -i' ;;
  -h|--help) sed -n '3,6s/^# //p' "$0" >&2; exit 2 ;;
  *) run="scripts/build.sh && cd build/win && ctest -j2 --output-on-failure${*:+$(printf ' %q' "$@")}" ;;
esac

die() { echo "test-trixie: $*" >&2; exit 1; }
[ "$(id -u)" -eq 0 ] || die "must run as root (debootstrap, chroot and bind mounts); try: sudo $0 $*"
for tool in debootstrap unshare; do command -v $tool >/dev/null || die "$tool is missing (apt-get install $tool)"; done
case "$root" in /?*) ;; *) die "QX_TRIXIE_ROOT must be an absolute path" ;; esac
# The rest runs in a mount namespace of its own: the bind mounts vanish with it, however it ends.
[ -n "${QX_TRIXIE_NS:-}" ] || exec unshare --mount --propagation private env QX_TRIXIE_NS=1 "$0" "$@"

exec 9>"$root.lock"
flock 9  # one set-up (debootstrap, packages) at a time; checkouts then share the root
if [ ! -x "$root/bin/bash" ]; then
  echo "test-trixie: making a Debian 13 root in $root (debootstrap, once)"
  rm -rf "$root"
  debootstrap --variant=minbase trixie "$root" "$mirror" >"$root.debootstrap.log" 2>&1 ||
    die "debootstrap failed; see $root.debootstrap.log"
fi
[ "$( . "$root/etc/os-release"; echo "${VERSION_CODENAME:-}")" = trixie ] || die "$root is not a Debian 13 (trixie) root"

build=$checkout/build/trixie
mkdir -p "$build"
exec 8>"$build.lock"
flock -n 8 || die "another run of this checkout is using $build"
mounts=()
cleanup() {
  local i p
  # Wine servers of the run's prefixes, ended through their prefixes.
  [ -x "$root/usr/bin/wineserver" ] && while read -r p; do
    chroot "$root" /usr/bin/env -i WINEPREFIX="$checkout/build${p#"$build"}" \
      PATH=/usr/bin:/bin wineserver -k >/dev/null 2>&1 8>&- 9>&- || true
  done < <(find "$build" -maxdepth 4 -name system.reg -printf '%h\n' 2>/dev/null)
  for ((i = ${#mounts[@]} - 1; i >= 0; i--)); do
    umount "${mounts[i]}" 2>/dev/null || umount -l "${mounts[i]}" 2>/dev/null \
      || echo "test-trixie: could not unmount ${mounts[i]}" >&2
  done
}
trap cleanup EXIT
trap 'exit 130' INT TERM
bind() { mkdir -p "$2" && mount --bind "$1" "$2" && mounts+=("$2"); }
for d in proc sys dev dev/pts dev/shm; do bind "/$d" "$root/$d"; done
cp /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true
bind "$checkout" "$root$checkout"
bind "$build" "$root$checkout/build"
# A git worktree's repository lies outside it: read-only at its own path, for the build's commit id.
common=$(git -C "$checkout" rev-parse --path-format=absolute --git-common-dir 2>/dev/null || true)
case "$common" in "" | "$checkout"/*) ;; *) bind "$common" "$root$common" && mount -o remount,bind,ro "$root$common" ;; esac

in_root() {
  chroot "$root" /usr/bin/env -i HOME=/root TERM="${TERM:-dumb}" LANG=C.UTF-8 \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    bash -c "cd '$checkout' && $1" 8>&- 9>&-
}
echo "test-trixie: packages (scripts/install-deps.sh in the root)"
in_root scripts/install-deps.sh
flock -u 9
echo "test-trixie: $(in_root 'wine --version 2>/dev/null') in $root; build trees in $build"

status=0
in_root "$run" || status=$?
owner=$(stat -c %u:%g "$checkout")
[ "$owner" = 0:0 ] || chown -R "$owner" "$build"
exit $status
