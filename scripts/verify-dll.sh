#!/usr/bin/env bash
# Tells whether a DLL or .exe you received is the same build as one you made
# yourself with scripts/release.sh from the same commit (see
# docs/integration.md, "Verifying a DLL you received"):
#   scripts/verify-dll.sh RECEIVED REBUILT
# An unsigned RECEIVED must be byte-identical to REBUILT. A signed one is first
# stripped of its signature (osslsigncode remove-signature); signing also pads
# the file to a multiple of 8 bytes and rewrites the PE checksum, so those (up
# to 7 trailing zero bytes and the 4-byte checksum field) are the only
# differences allowed. It does not judge the signature: osslsigncode verify does.
set -euo pipefail
received=${1:?usage: verify-dll.sh RECEIVED REBUILT}
rebuilt=${2:?usage: verify-dll.sh RECEIVED REBUILT}
if cmp -s "$received" "$rebuilt"; then
  echo "verify-dll: identical: $(sha256sum < "$rebuilt" | cut -d' ' -f1)"
  exit 0
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
if ! osslsigncode remove-signature -in "$received" -out "$work/unsigned" >"$work/log" 2>&1; then
  echo "verify-dll: DIFFERENT (and $received carries no signature to remove)"
  exit 1
fi
size=$(stat -c %s "$rebuilt")
unsigned_size=$(stat -c %s "$work/unsigned")
pad=$((unsigned_size - size))
if [ $pad -lt 0 ] || [ $pad -gt 7 ] || [ -n "$(tail -c "$pad" "$work/unsigned" | tr -d '\0')" ]; then
  echo "verify-dll: DIFFERENT: sizes $unsigned_size (received, unsigned) and $size (rebuilt)"
  exit 1
fi
# The PE checksum: 4 bytes at offset 88 of the PE header (whose offset is at 60).
pe=$(od -An -tu4 -j60 -N4 "$rebuilt" | tr -d ' ')
checksum=$((pe + 88))
bad=$(head -c "$size" "$work/unsigned" | cmp -l - "$rebuilt" \
      | awk -v lo=$((checksum + 1)) -v hi=$((checksum + 4)) '$1 < lo || $1 > hi' | wc -l || true)
if [ "$bad" -ne 0 ]; then
  echo "verify-dll: DIFFERENT: $bad bytes differ beyond the signature, its padding and the PE checksum"
  exit 1
fi
echo "verify-dll: same build: identical once the signature is removed (padding $pad bytes, PE checksum rewritten)"
