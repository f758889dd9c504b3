#!/usr/bin/env bash
# Installs, from Debian's own packages, everything the build, the tests, the
# demo and the release need: the mingw-w64 cross compiler, widl, Wine,
# GoogleTest sources, clang for the native fuzz/sanitizer builds (and, with
# lld-link, for the MSVC-style host of the package test), llvm-dlltool for the
# MSVC import library, osslsigncode and openssl for signing, git for the
# commit's time, zip for the archive, and the jsoncpp source package (fetched
# by the build with apt-get source, so a deb-src entry is added here).
# Safe to run again: it only installs what is missing.
set -euo pipefail

need_root() {
  if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null 2>&1; then exec sudo -E bash "$0" "$@"; fi
    echo "install-deps: must run as root (or with sudo available)" >&2
    exit 1
  fi
}

packages=(
  ca-certificates cmake ninja-build make g++ pkg-config python3
  g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix mingw-w64-tools
  binutils-mingw-w64-x86-64
  wine wine64 googletest dpkg-dev
  winbind
  clang libclang-rt-14-dev
  git llvm lld osslsigncode openssl zip
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

# jsoncpp for the cross build comes from Debian's source package; apt-get source
# needs a deb-src entry for the same archive the machine already installs from.
srcfile=/etc/apt/sources.list.d/qx-jsoncpp-src.list
need_src=0
if ! grep -rqs '^[^#]*deb-src' /etc/apt/sources.list /etc/apt/sources.list.d/ \
   && ! grep -rqs '^Types:.*deb-src' /etc/apt/sources.list.d/; then
  need_src=1
fi

if [ ${#missing[@]} -eq 0 ] && [ $need_src -eq 0 ]; then
  echo "install-deps: everything is installed"
  exit 0
fi
need_root "$@"

if [ $need_src -eq 1 ]; then
  # Mirror the machine's own Debian entry (its URI and, for deb822 files, its
  # Signed-By: apt refuses two entries for one archive that disagree on it).
  deb822=$(grep -l -s -E '^URIs:.*debian/?$' /etc/apt/sources.list.d/*.sources 2>/dev/null | head -n1 || true)
  if [ -n "$deb822" ]; then
    uri=$(awk '/^URIs:/{print $2; exit}' "$deb822")
    signed=$(awk '/^Signed-By:/{print $2; exit}' "$deb822")
    echo "install-deps: adding a deb-src entry for bookworm main ($uri)"
    {
      echo "Types: deb-src"
      echo "URIs: $uri"
      echo "Suites: bookworm"
      echo "Components: main"
      [ -n "$signed" ] && echo "Signed-By: $signed"
    } > "${srcfile%.list}.sources"
  else
    line=$(grep -h -s -E '^deb +(\[[^]]*\] +)?[a-z]+://[^ ]+ +bookworm +' /etc/apt/sources.list /etc/apt/sources.list.d/*.list 2>/dev/null | head -n1 || true)
    if [ -n "$line" ]; then
      line="deb-src${line#deb}"
      line=$(echo "$line" | awk '{ for (i=1;i<=NF;i++) { printf "%s%s", (i>1?" ":""), $i; if ($i=="bookworm") { print " main"; exit } } }')
    else
      line="deb-src http://deb.debian.org/debian bookworm main"
    fi
    echo "install-deps: adding '$line'"
    echo "$line" > "$srcfile"
  fi
fi

export DEBIAN_FRONTEND=noninteractive
echo "install-deps: apt-get update"
apt-get update -q >/dev/null
if [ ${#missing[@]} -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  apt-get install -y -q --no-install-recommends "${missing[@]}" >/dev/null
fi
echo "install-deps: done"
