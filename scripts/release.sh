#!/usr/bin/env bash
# Builds the release of the checked-out commit into dist/:
#   dist/QXAttentionPlugin-<version>-win64.zip   bin/ include/ lib/ debug/ docs/,
#                                                CHANGELOG.md, README.md
#   dist/qx-logread_<version>_amd64.deb          logread for Linux machines
#   dist/SHA256SUMS                              both packages and the archive's files
# through the install() rules and CPack, in release trees of their own
# (/var/tmp/qx-release/win and /native, made anew; the test tree build/win is
# not touched). Installs what it needs first (scripts/install-deps.sh).
#
# Environment:
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
deb_name=qx-logread_${version}_amd64.deb

commit=unknown
if git rev-parse --git-dir >/dev/null 2>&1; then
  commit=$(git rev-parse HEAD)
  : "${SOURCE_DATE_EPOCH:=$(git log -1 --format=%ct HEAD)}"
  if [ -n "$(git status --porcelain --untracked-files=no)" ]; then
    echo "release: WARNING: the work tree has uncommitted changes; this is not a build of $commit"
  fi
fi
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
      -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build/win" -j "$jobs"
echo "== native release tree ($build/native)"
cmake -S "$build/src" -B "$build/native" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build/native" -j "$jobs"

echo "== packages"
mkdir -p "$dist"
rm -f "$dist/$zip_name" "$dist/$deb_name" "$dist/SHA256SUMS"
rm -rf "$build/win/package" "$build/native/package"
(cd "$build/win" && cpack -G External -B "$build/win/package" >/dev/null)
(cd "$build/native" && cpack -G DEB -B "$build/native/package" >/dev/null)
mv "$build/win/package/$zip_name" "$dist/"
mv "$build/native/package/$deb_name" "$dist/"

echo "== checks"
tests/release/check-package.sh --quick "$dist/$zip_name"
# The whole listing first: grep -q would stop reading early and, with pipefail,
# dpkg-deb's broken pipe would count as a failure.
deb_contents=$(dpkg-deb --contents "$dist/$deb_name")
for f in usr/bin/logread usr/share/qx-logread/lnav/qx_attention_log.json \
         usr/share/qx-logread/lnav/qx_sensorlib_log.json usr/share/doc/qx-logread/logread.md; do
  if ! grep -q " \./$f\$" <<<"$deb_contents"; then
    echo "release: $deb_name does not hold /$f" >&2
    exit 1
  fi
done

# Checksums of the packages and of every file in the archive.
unpacked=$(mktemp -d)
trap 'rm -rf "$unpacked"' EXIT
(cd "$unpacked" && cmake -E tar xf "$dist/$zip_name")
{
  (cd "$dist" && sha256sum "$zip_name" "$deb_name")
  (cd "$unpacked" && find . -type f | LC_ALL=C sort | sed 's|^\./||' | xargs sha256sum \
     | sed "s|  |  $zip_name:|")
} > "$dist/SHA256SUMS"
echo "== done"
grep -E "($zip_name|$deb_name|\.dll|\.exe)$" "$dist/SHA256SUMS"
ls -l "$dist/$zip_name" "$dist/$deb_name"
