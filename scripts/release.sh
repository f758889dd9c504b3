#!/usr/bin/env bash
# Builds the release of the checked-out commit into dist/:
#   dist/QXAttentionPlugin-<version>-win64.zip   bin/ include/ lib/ debug/ docs/,
#                                                CHANGELOG.md, README.md
#   dist/qx-logread_<version>_amd64.deb          logread for Linux machines
#   dist/SHA256SUMS                              both packages and the archive's inner list,
#                                                for sha256sum -c (scripts/checksums.sh)
#   dist/QXAttentionPlugin-<version>-win64.zip.contents.sha256
#                                                every file in the archive
#   dist/SHA256SUMS.asc                          its signature, with QX_GPG_KEY
# through the install() rules and CPack, in release trees of their own
# (/var/tmp/qx-release/win and /native, made anew; the test tree build/win is
# not touched). Installs what it needs first (scripts/install-deps.sh).
#
# The version: a release build only with QX_RELEASE=1, on a clean commit whose
# CHANGELOG.md names project(... VERSION) as its newest section; it is then
# <version>. Every other build is a development build, <version>-dev+<commit>
# (cmake/Version.cmake).
#
# Environment:
#   QX_RELEASE=1                      a release build (refused unless the above holds)
#   QX_GPG_KEY                        sign SHA256SUMS with this OpenPGP key (gpg)
#   QX_SIGN_PKCS12, QX_SIGN_PASSWORD  sign the DLL and the .exe files (scripts/sign.sh);
#                                     QX_SIGN_TIMESTAMP_URL adds a time stamp
#   SOURCE_DATE_EPOCH                 time of the archive's entries; default: the commit's
#   QX_RELEASE_BUILD, QX_DIST         the release trees' parent (default /var/tmp/qx-release,
#                                     made anew; elsewhere the PDBs name that path)
#                                     and the output folder
#
# Two runs on one commit give byte-identical DLL, .exe files and archive
# contents, whatever folder the checkout is in (unsigned; scripts/repro-check.sh
# proves it).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
scripts/install-deps.sh

version=$(sed -n 's/^project(QXAttentionPlugin VERSION \([0-9][0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || { echo "release: no project(... VERSION x.y.z) in CMakeLists.txt" >&2; exit 1; }
commit=unknown
dirty=""
if git rev-parse --git-dir >/dev/null 2>&1; then
  commit=$(git rev-parse HEAD)
  : "${SOURCE_DATE_EPOCH:=$(git log -1 --format=%ct HEAD)}"
  dirty=$(git status --porcelain --untracked-files=no)
  if [ -n "$dirty" ]; then
    echo "release: WARNING: the work tree has uncommitted changes; this is not a build of $commit"
  fi
fi
release=OFF
if [ "${QX_RELEASE:-0}" = 1 ]; then
  newest=$(sed -n 's/^## \[\([0-9][0-9.]*\)\] - .*/\1/p' CHANGELOG.md | head -1)
  [ "$commit" != unknown ] || { echo "release: QX_RELEASE=1 needs a git checkout" >&2; exit 1; }
  [ -z "$dirty" ] || { echo "release: QX_RELEASE=1 refused: uncommitted changes" >&2; exit 1; }
  [ "$newest" = "$version" ] || {
    echo "release: QX_RELEASE=1 refused: CHANGELOG.md's newest section is '$newest', the project's version $version" >&2
    exit 1
  }
  release=ON
else
  version=$version-dev+${commit:0:12}
  echo "release: a development build ($version); QX_RELEASE=1 makes a release"
fi

# The release trees live at one fixed path, whatever folder the checkout is in:
# the PDBs hold the build tree's paths (the link's command line), and two
# builds of one commit must give the same PDB bytes. A lock makes release
# builds on one machine take turns there.
build=${QX_RELEASE_BUILD:-/var/tmp/qx-release}
mkdir -p "$(dirname "$build")"
exec 7>"$build.lock"
if ! flock -n 7; then
  echo "release: waiting for another release build in $build"
  flock 7
fi
[ -n "${QX_RELEASE_BUILD:-}" ] || rm -rf "$build"
# The sources are read through a fixed path too: clang 14 writes each object's
# compiler command line (include folders, source paths) into its CodeView, and
# so into the PDB. CMake keeps the link's path as given.
mkdir -p "$build"
ln -sfn "$root" "$build/src"
dist=${QX_DIST:-$root/dist}
jobs=${QX_JOBS:-$(nproc)}

zip_name=QXAttentionPlugin-$version-win64.zip
: "${SOURCE_DATE_EPOCH:?release: not a git checkout: set SOURCE_DATE_EPOCH}"
export SOURCE_DATE_EPOCH

if [ -n "${QX_SIGN_PKCS12:-}" ]; then
  [ -r "$QX_SIGN_PKCS12" ] || { echo "release: cannot read QX_SIGN_PKCS12=$QX_SIGN_PKCS12" >&2; exit 1; }
  [ -n "${QX_SIGN_PASSWORD+set}" ] || { echo "release: QX_SIGN_PASSWORD is not set" >&2; exit 1; }
  echo "release: the DLL and the .exe files will be signed with $QX_SIGN_PKCS12"
fi

echo "== release $version of $commit (SOURCE_DATE_EPOCH=$SOURCE_DATE_EPOCH)"
echo "== Windows release tree ($build/win)"
cmake -S "$build/src" -B "$build/win" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF -DQX_RELEASE=$release >/dev/null
cmake --build "$build/win" -j "$jobs"
echo "== native release tree ($build/native)"
cmake -S "$build/src" -B "$build/native" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF -DQX_RELEASE=$release >/dev/null
cmake --build "$build/native" -j "$jobs"

echo "== packages"
mkdir -p "$dist"
rm -f "$dist/$zip_name" "$dist"/qx-logread_*_amd64.deb "$dist/SHA256SUMS" "$dist/SHA256SUMS.asc"
rm -rf "$build/win/package" "$build/native/package"
(cd "$build/win" && cpack -G External -B "$build/win/package" >/dev/null)
(cd "$build/native" && cpack -G DEB -B "$build/native/package" >/dev/null)
mv "$build/win/package/$zip_name" "$dist/"
deb_name=$(cd "$build/native/package" && ls qx-logread_*_amd64.deb)
mv "$build/native/package/$deb_name" "$dist/"

echo "== checks"
tests/release/check-package.sh --quick "$dist/$zip_name"
# The whole listing first: grep -q would stop reading early and, with pipefail,
# dpkg-deb's broken pipe would count as a failure.
deb_contents=$(dpkg-deb --contents "$dist/$deb_name")
for f in usr/bin/logread usr/share/qx-logread/lnav/qx_attention_log.json \
         usr/share/qx-logread/lnav/qx_sensorlib_log.json usr/share/doc/qx-logread/logread.md \
         usr/share/doc/qx-logread/copyright; do
  if ! grep -q " \./$f\$" <<<"$deb_contents"; then
    echo "release: $deb_name does not hold /$f" >&2
    exit 1
  fi
done

# Every linked library has its notice (link maps and debug information).
OBJDUMP=x86_64-w64-mingw32-objdump python3 packaging/check-notices.py THIRD-PARTY-NOTICES \
  "$build/win/bin/QXAttentionPlugin.dll=$build/win/linkmap/QXAttentionPlugin.map" \
  "$build/win/bin/qxhost.exe=$build/win/linkmap/qxhost.map" \
  "$build/win/bin/fusion-sim.exe=$build/win/linkmap/fusion-sim.map" \
  "$build/win/bin/logread.exe=$build/win/linkmap/logread.map" \
  "$build/win/bin/QXAttentionPlugin-noauth.dll=$build/win/linkmap/QXAttentionPlugin-noauth.map=QXAttentionPlugin-TEST-noauth.dll"
python3 packaging/check-notices.py packaging/deb-copyright \
  "$build/native/bin/logread=$build/native/linkmap/logread.map"

# Checksums of the packages and of every file in the archive; signed with QX_GPG_KEY.
scripts/checksums.sh "$dist" "$zip_name" "$deb_name"
echo "== done"
cat "$dist/SHA256SUMS"
grep -E "\.(dll|exe)$" "$dist/$zip_name.contents.sha256"
ls -l "$dist/$zip_name" "$dist/$deb_name"
