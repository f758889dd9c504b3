#!/usr/bin/env bash
# Proves that the release is reproducible: clones the committed HEAD twice, into
# folders of different names and depths, runs scripts/release.sh in each (one
# after the other, in release.sh's fixed release tree path), and compares:
#   - the archive's files one by one (DLL, .exe, debug files, the PDBs and the
#     binaries in symbols/, import libraries, header, docs): they must be
#     byte-identical, and the file lists equal (so the symbol store's keys,
#     PDB GUID and age, binary time stamp and size, agree too);
#   - the two .zip files and the two .deb files as wholes.
# Exit 0 when the DLL, the .exe files and every file in the archive are
# identical. Unsigned builds only: a signature carries its signing time.
# Takes two full release builds (about 10 minutes on 2 cores).
#   scripts/repro-check.sh [WORKDIR]     (default: a new folder in /var/tmp;
#                                         removed afterwards unless QX_KEEP=1)
set -euo pipefail
cd "$(dirname "$0")/.."
src=$(pwd)
commit=$(git rev-parse HEAD)
if [ -n "$(git status --porcelain --untracked-files=no)" ]; then
  echo "repro-check: note: uncommitted changes are not part of the check (it builds $commit)"
fi
work=${1:-$(mktemp -d /var/tmp/qx-repro.XXXXXX)}
mkdir -p "$work"
[ "${QX_KEEP:-0}" = 1 ] || trap 'rm -rf "$work"' EXIT
unset QX_SIGN_PKCS12 QX_RELEASE_BUILD QX_DIST

first=$work/a/QXAttentionPlugin
second=$work/second-checkout/somewhere/deeper/qx
for dir in "$first" "$second"; do
  rm -rf "$dir"
  mkdir -p "$(dirname "$dir")"
  git clone -q "$src" "$dir"
  git -C "$dir" checkout -q "$commit"
  echo "== release build in $dir"
  start=$(date +%s)
  (cd "$dir" && scripts/release.sh) > "$dir.log" 2>&1 || { tail -30 "$dir.log"; echo "repro-check: release.sh failed in $dir"; exit 1; }
  echo "   took $(( $(date +%s) - start )) s (log: $dir.log)"
done

# The names carry the version, and a development build's its commit.
zip=$(cd "$first/dist" && ls QXAttentionPlugin-*-win64.zip)
deb=$(cd "$first/dist" && ls qx-logread_*_amd64.deb)
for dir in "$first" "$second"; do
  mkdir -p "$dir.unpacked"
  (cd "$dir.unpacked" && cmake -E tar xf "$dir/dist/$zip")
done

status=0
echo "== the archive's files"
(cd "$first.unpacked" && find . -type f | sed 's|^\./||' | LC_ALL=C sort) > "$work/files.a"
(cd "$second.unpacked" && find . -type f | sed 's|^\./||' | LC_ALL=C sort) > "$work/files.b"
if ! diff "$work/files.a" "$work/files.b"; then
  echo "repro-check: the two archives hold different files"
  status=1
fi
while read -r f; do
  if cmp -s "$first.unpacked/$f" "$second.unpacked/$f"; then
    echo "identical  $f  $(sha256sum < "$first.unpacked/$f" | cut -c1-16)"
  else
    echo "DIFFERENT  $f"
    status=1
  fi
done < "$work/files.a"

echo "== dist/"
for f in "$zip" "$deb" SHA256SUMS; do
  if cmp -s "$first/dist/$f" "$second/dist/$f"; then
    echo "identical  dist/$f"
  else
    echo "DIFFERENT  dist/$f"
    case "$f" in *.zip) status=1 ;; esac
  fi
done

if [ $status -eq 0 ]; then
  echo "repro-check: two release builds of $commit from different folders are identical"
else
  echo "repro-check: FAILED: the builds differ (kept in $work)"
  trap - EXIT
fi
exit $status
