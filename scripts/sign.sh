#!/usr/bin/env bash
# Signs Windows binaries in place (Authenticode, SHA-256) with osslsigncode:
#   QX_SIGN_PKCS12=signing.p12 QX_SIGN_PASSWORD=... scripts/sign.sh FILE...
# QX_SIGN_TIMESTAMP_URL, when set, adds an RFC 3161 time stamp from that server
# (the signature then stays valid after the certificate expires).
# scripts/release.sh calls this (through packaging/StageFiles.cmake) on the
# staged DLL and .exe files when QX_SIGN_PKCS12 is set. The password is handed
# to osslsigncode in a private temporary file, never on its command line.
set -euo pipefail
[ $# -gt 0 ] || { echo "usage: QX_SIGN_PKCS12=FILE QX_SIGN_PASSWORD=... sign.sh FILE..." >&2; exit 2; }
p12=${QX_SIGN_PKCS12:?sign.sh: QX_SIGN_PKCS12 (the PKCS#12 file with key and certificate) is not set}
if [ -z "${QX_SIGN_PASSWORD+set}" ]; then
  echo "sign.sh: QX_SIGN_PASSWORD (the password of $p12) is not set" >&2
  exit 2
fi
[ -r "$p12" ] || { echo "sign.sh: cannot read $p12" >&2; exit 2; }

passfile=$(mktemp)
trap 'rm -f "$passfile" "${out:-}"' EXIT
chmod 600 "$passfile"
printf '%s' "$QX_SIGN_PASSWORD" > "$passfile"

ts=()
[ -n "${QX_SIGN_TIMESTAMP_URL:-}" ] && ts=(-ts "$QX_SIGN_TIMESTAMP_URL")
for file in "$@"; do
  out=$file.signing
  osslsigncode sign -pkcs12 "$p12" -readpass "$passfile" -h sha256 \
    -n "QX Attention Plug-in" "${ts[@]}" -in "$file" -out "$out" >/dev/null
  mv "$out" "$file"
  echo "sign.sh: signed $(basename "$file")"
done
