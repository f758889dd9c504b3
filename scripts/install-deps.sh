#!/usr/bin/env bash
# Installs, from Debian's own packages, everything the build, the tests, the
# demo and the release need: clang and lld, which build the Windows tree for the
# mingw-w64 target, with mingw-w64's headers and import libraries and the C++
# runtime of its gcc (libstdc++, posix threads; the gcc packages bring them),
# Wine, GoogleTest sources, clang's sanitizer runtime for the native
# fuzz/sanitizer builds (clang and lld-link also build the MSVC-style host of
# the package test),
# clang-format (the tests check the sources' style),
# CLI11 (header-only command-line parser of the tools), zlib for both builds
# (logread reads .gz files), lnav and jq (the log reader's tests read its
# output with them), llvm-dlltool for the MSVC import
# library, llvm-pdbutil and llvm-symbolizer for the PDBs (llvm), osslsigncode,
# openssl, gpg and its agent (key making and signing) for signing, git for the commit's time, zip
# and file (CPack) for the packages, and a deb-src entry for jsoncpp's source
# package (fetched by the build with apt-get source).
#
# Works on Debian 12 (bookworm) and Debian 13 (trixie); the suite is read from
# /etc/os-release, and what differs between them is chosen here:
#  - the clang sanitizer runtime is versioned (libclang-rt-14-dev on 12,
#    libclang-rt-19-dev on 13): the version of the suite's default clang is used;
#  - jsoncpp's source comes from bookworm on every suite (one jsoncpp version,
#    1.9.5-4, whatever Debian builds the DLL), so the deb-src entry always names
#    bookworm;
#  - the IDL compiler: Debian 13's widl is used as installed; on Debian 12 the
#    build fetches Debian 13's into the build tree (cmake/Widl.cmake).
# The release tools (llvm, lld, osslsigncode, openssl, zip, file) have the
# same package names on both suites.
# Safe to run again: it only installs what is missing.
set -euo pipefail

need_root() {
  if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null 2>&1; then exec sudo -E bash "$0" "$@"; fi
    echo "install-deps: must run as root (or with sudo available)" >&2
    exit 1
  fi
}

suite=$( . /etc/os-release 2>/dev/null; echo "${VERSION_CODENAME:-}" )
case "$suite" in
  bookworm) clang_major=14 ;;
  trixie) clang_major=19 ;;
  *)
    clang_major=""
    echo "install-deps: Debian suite '${suite:-unknown}' is not one this project is tested on" \
         "(bookworm, trixie); trying anyway" >&2
    ;;
esac

packages=(
  ca-certificates cmake ninja-build make g++ pkg-config python3
  g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix mingw-w64-tools
  binutils-mingw-w64-x86-64
  wine wine64 googletest dpkg-dev debian-archive-keyring
  winbind
  clang lld clang-format
  libcli11-dev lnav jq zlib1g-dev libz-mingw-w64-dev
  git llvm osslsigncode openssl gpg gpg-agent zip file stress-ng
)
[ -n "$clang_major" ] && packages+=("libclang-rt-$clang_major-dev")

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

# jsoncpp for the cross build comes from bookworm's source package; apt-get
# source needs a deb-src entry for bookworm main of the archive the machine
# already installs from. Ours is the file below; an entry of the machine's own
# for bookworm does as well.
srcfile=/etc/apt/sources.list.d/qx-jsoncpp-src
need_src=1
if [ -f "$srcfile.sources" ] || [ -f "$srcfile.list" ] \
   || grep -rqs -E '^[^#]*deb-src .* bookworm .*main' /etc/apt/sources.list /etc/apt/sources.list.d/*.list; then
  need_src=0
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
    } > "$srcfile.sources"
  else
    uri=$(grep -h -s -E '^deb +(\[[^]]*\] +)?[a-z]+://[^ ]+/debian/? ' /etc/apt/sources.list \
          /etc/apt/sources.list.d/*.list 2>/dev/null | head -n1 \
          | sed -E 's/^deb +(\[[^]]*\] +)?([^ ]+).*/\2/' || true)
    line="deb-src ${uri:-http://deb.debian.org/debian} bookworm main"
    echo "install-deps: adding '$line'"
    echo "$line" > "$srcfile.list"
  fi
fi

export DEBIAN_FRONTEND=noninteractive
echo "install-deps: apt-get update"
apt-get update -q >/dev/null
if [ -z "$clang_major" ]; then
  # An untested suite: take the runtime of whatever clang it installs.
  clang_major=$(apt-cache depends clang 2>/dev/null | sed -n -E 's/.*Depends: clang-([0-9]+)$/\1/p' | head -n1)
  [ -n "$clang_major" ] && missing+=("libclang-rt-$clang_major-dev")
fi
if [ ${#missing[@]} -gt 0 ]; then
  echo "install-deps: installing ${missing[*]} (Debian ${suite:-unknown})"
  apt-get install -y -q --no-install-recommends "${missing[@]}" >/dev/null
fi
echo "install-deps: done"
