#!/usr/bin/env bash
# Runs the Windows tests under Wine 10 from a Debian 12 machine: in a Debian 13
# (trixie) root kept in /var/tmp, with this checkout bind-mounted into it.
#
#   scripts/test-trixie.sh [CTEST ARGS...]   build (in the root) and run the
#                                            Windows ctest under Wine 10
#   scripts/test-trixie.sh --all             the whole scripts/test.sh in the root
#   scripts/test-trixie.sh --run 'COMMAND'   any command in the checkout, in the root
#   scripts/test-trixie.sh --shell           an interactive shell there
#
# Needs root. The first run makes the root (debootstrap, then
# scripts/install-deps.sh in it); later runs reuse it. The checkout keeps its
# path inside, but its build/ there is build/trixie: the Debian 13 trees (gcc 14,
# Wine 10) never mix with the Debian 12 ones, and only the root's Wine runs.
# Environment: QX_TRIXIE_ROOT (default /var/tmp/qx-trixie), QX_TRIXIE_MIRROR.
set -euo pipefail
checkout=$(cd "$(dirname "$0")/.." && pwd -P)
root=${QX_TRIXIE_ROOT:-/var/tmp/qx-trixie}
mirror=${QX_TRIXIE_MIRROR:-http://deb.debian.org/debian}

usage() { sed -n '4,9p' "$0" | sed 's/^# \{0,1\}//' >&2; exit 2; }
all_args=("$@")
mode=ctest
run_cmd=""
case "${1:-}" in
  --all) mode=all; shift ;;
  --run) mode=run; run_cmd=${2:?--run needs a command}; shift 2 ;;
  --shell) mode=shell; shift ;;
  -h|--help) usage ;;
esac

if [ "$(id -u)" -ne 0 ]; then
  echo "test-trixie: must run as root (debootstrap, chroot and bind mounts); try: sudo $0 $*" >&2
  exit 1
fi
for tool in debootstrap chroot mount umount flock; do
  command -v "$tool" >/dev/null || { echo "test-trixie: $tool is missing (apt-get install debootstrap)" >&2; exit 1; }
done
case "$root" in /?*) ;; *) echo "test-trixie: QX_TRIXIE_ROOT must be an absolute path" >&2; exit 1 ;; esac

# Everything below runs in a mount namespace of its own: the bind mounts are
# seen by this run only and vanish with it, however it ends.
if [ -z "${QX_TRIXIE_NS:-}" ]; then
  command -v unshare >/dev/null || { echo "test-trixie: unshare (util-linux) is missing" >&2; exit 1; }
  exec unshare --mount --propagation private env QX_TRIXIE_NS=1 "$0" "${all_args[@]}"
fi

exec 9>"$root.lock"
# One set-up (debootstrap, packages) at a time; runs of different checkouts
# may then share the root.
flock 9
if [ ! -x "$root/bin/bash" ]; then
  echo "test-trixie: making a Debian 13 root in $root (debootstrap, once)"
  rm -rf "$root"
  if ! debootstrap --variant=minbase trixie "$root" "$mirror" >"$root.debootstrap.log" 2>&1; then
    echo "test-trixie: debootstrap failed; see $root.debootstrap.log" >&2
    exit 1
  fi
fi
if [ "$( . "$root/etc/os-release"; echo "${VERSION_CODENAME:-}")" != trixie ]; then
  echo "test-trixie: $root is not a Debian 13 (trixie) root" >&2
  exit 1
fi

inner=$root$checkout
build=$checkout/build/trixie
mkdir -p "$build"
exec 8>"$build.lock"
if ! flock -n 8; then
  echo "test-trixie: another run of this checkout is using $build" >&2
  exit 1
fi
mounts=()
cleanup() {
  local i p
  # Wine servers of the run's prefixes, ended through their prefixes.
  if [ -x "$root/usr/bin/wineserver" ]; then
    while read -r p; do
      chroot "$root" /usr/bin/env -i WINEPREFIX="$checkout/build${p#"$build"}" \
        PATH=/usr/bin:/bin wineserver -k >/dev/null 2>&1 8>&- 9>&- || true
    done < <(find "$build" -maxdepth 4 -name system.reg -printf '%h\n' 2>/dev/null)
  fi
  for ((i = ${#mounts[@]} - 1; i >= 0; i--)); do
    umount "${mounts[i]}" 2>/dev/null || umount -l "${mounts[i]}" 2>/dev/null \
      || echo "test-trixie: could not unmount ${mounts[i]}" >&2
  done
}
trap cleanup EXIT
trap 'exit 130' INT TERM
bind() {
  mkdir -p "$2"
  mount --bind "$1" "$2"
  mounts+=("$2")
}
for d in proc sys dev dev/pts dev/shm; do bind "/$d" "$root/$d"; done
cp /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true
bind "$checkout" "$inner"
bind "$build" "$inner/build"

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
case "$mode" in
  ctest)
    args=""
    for a in "$@"; do args+=" $(printf '%q' "$a")"; done
    in_root "scripts/build.sh && cd build/win && ctest --output-on-failure$args" || status=$?
    ;;
  all) in_root scripts/test.sh || status=$? ;;
  run) in_root "$run_cmd" || status=$? ;;
  shell) in_root 'exec bash -i' || status=$? ;;
esac
owner=$(stat -c %u:%g "$checkout")
[ "$owner" = 0:0 ] || chown -R "$owner" "$build"
exit $status
