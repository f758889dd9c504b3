#!/usr/bin/env bash
# Fetches an IDL compiler that writes correct stubs for this project into DIR
# and prints the path of its x86_64 widl.
#
# widl before 9 (Debian 12's, "Wine IDL Compiler version 7.0") lists an explicit
# `handle_t` binding parameter as an ordinary [in] long in the -Oif format
# tables, so every request carries 4 stray bytes (the low half of the binding
# handle's address) in front of the real parameters. Debian 13's mingw-w64-tools
# (widl 9.8) is right, and depends only on libc6 (>= 2.34), so its widl runs on
# Debian 12 as well.
#
# The package is downloaded with a private apt configuration (its own sources
# list naming the trixie suite, its own lists and cache, all under DIR) and
# unpacked with dpkg-deb: nothing is installed, and the machine's own apt
# configuration is neither read nor changed.
#
# Usage: fetch-widl.sh DIR
set -euo pipefail
dir=${1:?usage: fetch-widl.sh DIR}
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)
suite=trixie
package=mingw-w64-tools
widl=$dir/root/usr/bin/x86_64-w64-mingw32-widl

if [ -x "$widl" ]; then
  echo "$widl"
  exit 0
fi

# The same archive the machine installs from, when it names one; else Debian's.
uri=$(grep -h -s -E '^URIs:.*debian/?$' /etc/apt/sources.list.d/*.sources 2>/dev/null \
      | awk '{print $2; exit}' || true)
if [ -z "$uri" ]; then
  uri=$(grep -h -s -E '^deb +(\[[^]]*\] +)?[a-z]+://[^ ]+/debian/? ' /etc/apt/sources.list \
        /etc/apt/sources.list.d/*.list 2>/dev/null | head -n1 \
        | sed -E 's/^deb +(\[[^]]*\] +)?([^ ]+).*/\2/' || true)
fi
uri=${uri:-http://deb.debian.org/debian}
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
if [ ! -r "$keyring" ]; then
  echo "fetch-widl: $keyring is missing (package debian-archive-keyring)" >&2
  exit 1
fi

apt=$dir/apt
mkdir -p "$apt/sources.list.d" "$apt/preferences.d" "$apt/lists/partial" \
         "$apt/cache/archives/partial"
echo "deb [signed-by=$keyring] $uri $suite main" > "$apt/sources.list"
: > "$apt/status"
opts=(
  -o "Dir::Etc::SourceList=$apt/sources.list"
  -o "Dir::Etc::SourceParts=$apt/sources.list.d"
  -o "Dir::Etc::Preferences=$apt/preferences"
  -o "Dir::Etc::PreferencesParts=$apt/preferences.d"
  -o "Dir::State=$apt"
  -o "Dir::State::Lists=$apt/lists"
  -o "Dir::State::status=$apt/status"
  -o "Dir::Cache=$apt/cache"
  -o "APT::Architecture=amd64"
  -o "Debug::NoLocking=1"
  -o "APT::Sandbox::User=root"
)
echo "fetch-widl: reading the $suite package list from $uri" >&2
if ! apt-get -q "${opts[@]}" update >"$apt/update.log" 2>&1; then
  echo "fetch-widl: apt-get update for $suite failed; see $apt/update.log" >&2
  exit 1
fi
rm -f "$dir"/${package}_*.deb
echo "fetch-widl: downloading $package from $suite" >&2
if ! (cd "$dir" && apt-get -q "${opts[@]}" download "$package" >"$apt/download.log" 2>&1); then
  echo "fetch-widl: apt-get download $package failed; see $apt/download.log" >&2
  exit 1
fi
deb=$(ls "$dir"/${package}_*.deb)
rm -rf "$dir/root"
dpkg-deb -x "$deb" "$dir/root"
if [ ! -x "$widl" ]; then
  echo "fetch-widl: $deb holds no x86_64-w64-mingw32-widl" >&2
  exit 1
fi
echo "fetch-widl: $("$widl" -V | head -n1) from $(basename "$deb")" >&2
echo "$widl"
