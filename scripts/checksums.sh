#!/usr/bin/env bash
# Writes the checksums of a release beside its packages, and signs them when a
# key is given:
#   scripts/checksums.sh DIST ZIP [DEB]
#   DIST/ZIP.contents.sha256  every file in the archive, by its path in the archive
#                             (check: cd unpacked && sha256sum -c ZIP.contents.sha256)
#   DIST/SHA256SUMS           ZIP, DEB and ZIP.contents.sha256 (cd DIST && sha256sum -c SHA256SUMS)
#   DIST/SHA256SUMS.asc       with QX_GPG_KEY=<key id or e-mail>: a detached, ASCII-armoured
#                             OpenPGP signature of SHA256SUMS by that secret key (gpg, the
#                             caller's GNUPGHOME). Check: gpg --verify SHA256SUMS.asc SHA256SUMS
# scripts/release.sh calls it; ZIP and DEB are file names inside DIST.
set -euo pipefail
[ $# -ge 2 ] && [ $# -le 3 ] || { echo "usage: checksums.sh DIST ZIP [DEB]" >&2; exit 2; }
dist=$1 zip=$2 deb=${3:-}
[ -f "$dist/$zip" ] || { echo "checksums.sh: no $dist/$zip" >&2; exit 2; }
[ -z "$deb" ] || [ -f "$dist/$deb" ] || { echo "checksums.sh: no $dist/$deb" >&2; exit 2; }
unpacked=$(mktemp -d)
trap 'rm -rf "$unpacked"' EXIT
(cd "$unpacked" && cmake -E tar xf "$(cd "$dist" && pwd)/$zip")
(cd "$unpacked" && find . -type f | sed 's|^\./||' | LC_ALL=C sort | tr '\n' '\0' | xargs -0 sha256sum) \
  > "$dist/$zip.contents.sha256"
(cd "$dist" && sha256sum "$zip" ${deb:+"$deb"} "$zip.contents.sha256") > "$dist/SHA256SUMS"
rm -f "$dist/SHA256SUMS.asc"
if [ -n "${QX_GPG_KEY:-}" ]; then
  gpg --batch --yes --local-user "$QX_GPG_KEY" --armor --detach-sign \
      --output "$dist/SHA256SUMS.asc" "$dist/SHA256SUMS"
  echo "checksums.sh: SHA256SUMS signed by $QX_GPG_KEY (SHA256SUMS.asc)"
fi
