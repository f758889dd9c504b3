#!/usr/bin/env bash
# Checks the release archive the way an integrator meets it.
#
#   check-package.sh --quick ZIP
#       layout (exactly the shipped files, never the test variant), every file
#       the archive's documents name is in it (check-doc-refs.py), sorted
#       entries, stripped binaries whose .gnu_debuglink names their debug file
#       with its CRC, symbols/ (PDBs matching each binary's CodeView entry,
#       functions resolved through them, the symbol store's layout). No Wine. scripts/release.sh runs this on dist/.
#   check-package.sh [--version-test EXE] ZIP | --from-build TREE
#       all of the above, then under Wine (WINEPREFIX of the caller):
#       - host.c, built with the mingw C compiler against include/qx_plugin.h
#         alone, as C89 and as C11 (the header also as C++), loads bin/'s DLL
#         with LoadLibrary, and once more linked through lib/'s GNU import
#         library; built as MSVC would (clang for x86_64-pc-windows-msvc,
#         lld-link, lib/QXAttentionPlugin.lib) it calls the four exports, and
#         its filter sees the GCC exception of a non-numeric "status";
#       - examples/host.c, built from the unpacked archive, runs its lifecycle;
#       - EXE (release_version_tests) reads bin/'s version resources;
#       - scripts/sign.sh signs copies of bin/'s files with a throwaway
#         self-signed certificate; osslsigncode verify accepts them (and refuses
#         a changed one), scripts/verify-dll.sh matches the signed DLL to the
#         unsigned one, and the signed DLL still loads.
#       --from-build TREE makes the archive first, with CPack, from a Windows
#       build tree.
# Every check prints "ok" or "FAIL"; the last line says "package: all checks
# passed" (exit 0) or how many failed (exit 1).
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)

quick=0 zip="" tree="" version_test=""
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=1 ;;
    --from-build) tree=$2; shift ;;
    --version-test) version_test=$2; shift ;;
    *) zip=$1 ;;
  esac
  shift
done

work=$(mktemp -d "${TMPDIR:-/tmp}/qx-package.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0
ok() { echo "ok   $*"; }
fail() { echo "FAIL $*"; failures=$((failures + 1)); }
check() { local what=$1; shift; if "$@" >"$work/last.log" 2>&1; then ok "$what"; else fail "$what"; sed 's/^/     /' "$work/last.log" | tail -20; fi; }

if [ -n "$tree" ]; then
  if ! (cd "$tree" && SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$src" log -1 --format=%ct 2>/dev/null || date +%s)} \
        cpack -G External -B "$work/cpack") >"$work/cpack.log" 2>&1; then
    cat "$work/cpack.log"; echo "package: cpack failed"; exit 1
  fi
  zip=$(ls "$work"/cpack/*.zip)
fi
[ -f "$zip" ] || { echo "usage: check-package.sh [--quick] [--version-test EXE] ZIP | --from-build TREE" >&2; exit 2; }
zip=$(cd "$(dirname "$zip")" && pwd)/$(basename "$zip")
echo "package: $zip"

# --- layout: unpacked into an empty folder, exactly these files.
pkg=$work/unpacked
mkdir "$pkg"
(cd "$pkg" && cmake -E tar xf "$zip") || { echo "package: cannot unpack"; exit 1; }
cat > "$work/expected" <<'EOF'
CHANGELOG.md
README.md
bin/QXAttentionPlugin.dll
bin/fusion-sim.exe
bin/logread.exe
bin/qxhost.exe
debug/QXAttentionPlugin.dll.debug
debug/fusion-sim.exe.debug
debug/logread.exe.debug
debug/qxhost.exe.debug
docs/integration.md
docs/log-records.md
docs/logread.md
examples/host.c
include/qx_plugin.h
lib/QXAttentionPlugin.lib
lib/libQXAttentionPlugin.dll.a
share/lnav/qx_attention_log.json
share/lnav/qx_sensorlib_log.json
EOF
# symbols/ is keyed by content: checked on its own below.
(cd "$pkg" && find . -type f | sed 's|^\./||' | grep -v '^symbols/' | LC_ALL=C sort) > "$work/found"
check "archive holds exactly the shipped files" diff "$work/expected" "$work/found"
check "no test variant (name or export directory)" \
  bash -c "cd '$pkg' && ! find . -iname '*noauth*' | grep . && ! grep -rl 'QXAttentionPlugin-noauth' bin lib"
# Every file a document of the archive names is in it.
check "the documents name only files the archive holds" python3 "$here/check-doc-refs.py" "$pkg"
# Entries in sorted order, so that two packers agree.
cmake -E tar tf "$zip" | sed 's|/$||' > "$work/entries"
check "archive entries are sorted" bash -c "LC_ALL=C sort -c '$work/entries'"

# --- symbols: stripped, and .gnu_debuglink = file name, NULs to a multiple of
# 4 bytes, CRC-32 (zlib's) of the debug file, little-endian.
for f in bin/QXAttentionPlugin.dll bin/qxhost.exe bin/fusion-sim.exe bin/logread.exe; do
  name=$(basename "$f")
  # (objdump must read the file: a missing or unreadable one fails too)
  check "$f: no debug sections, no symbol table" bash -c "
    h=\$(x86_64-w64-mingw32-objdump -h '$pkg/$f') && t=\$(x86_64-w64-mingw32-objdump -t '$pkg/$f') &&
    ! grep '\\.debug_' <<<\"\$h\" && ! grep '^\\[' <<<\"\$t\""
  check "$f: .gnu_debuglink names debug/$name.debug and its CRC" python3 - "$pkg/$f" "$pkg/debug/$name.debug" "$name.debug" <<'PY'
import struct, subprocess, sys, tempfile, zlib
image, debug, expected_name = sys.argv[1:4]
with tempfile.TemporaryDirectory() as tmp:
    subprocess.run(["x86_64-w64-mingw32-objcopy", "--dump-section", ".gnu_debuglink=" + tmp + "/link",
                    image, tmp + "/copy"], check=True)
    link = open(tmp + "/link", "rb").read()
name, _, rest = link.partition(b"\0")
crc_at = (len(name) + 1 + 3) // 4 * 4
assert name.decode() == expected_name, name
(crc,) = struct.unpack_from("<I", link, crc_at)
actual = zlib.crc32(open(debug, "rb").read()) & 0xFFFFFFFF
assert crc == actual, (hex(crc), hex(actual))
PY
  check "debug/$name.debug: has DWARF line tables" bash -c \
    "x86_64-w64-mingw32-objdump -h '$pkg/debug/$name.debug' | grep -q '\\.debug_line'"
done

# --- symbols/, a symbol store of PDBs for Windows debuggers: each binary's
# CodeView entry (llvm-readobj) names a PDB whose own GUID and age
# (llvm-pdbutil) match, stored as PDB/GUIDAGE/PDB; the binary itself as
# NAME/STAMPSIZE/NAME; functions resolve by name through the PDB alone
# (llvm-symbolizer on the stripped binary), at addresses taken from the DWARF
# debug file: PluginAction and attention_start in the DLL, (w)main in the tools.
llvm_tool() { command -v "$1" || command -v "$1-19" || command -v "$1-14"; }
readobj=$(llvm_tool llvm-readobj) pdbutil=$(llvm_tool llvm-pdbutil) symbolizer=$(llvm_tool llvm-symbolizer)
for f in bin/QXAttentionPlugin.dll bin/qxhost.exe bin/fusion-sim.exe bin/logread.exe; do
  name=$(basename "$f")
  case $name in *.dll) funcs="PluginAction attention_start" ;; fusion-sim.exe) funcs=wmain ;; *) funcs=main ;; esac
  check "$f: its PDB in symbols/ matches its CodeView entry; $funcs resolve through it" bash -c '
    set -eo pipefail
    pkg=$1 f=$2 name=$3 funcs=$4 readobj=$5 pdbutil=$6 symbolizer=$7
    dir=$("$readobj" --coff-debug-directory "$pkg/$f")
    # llvm 14 prints the GUID as bytes in memory order (three little-endian
    # fields first), llvm 19 as {XXXXXXXX-XXXX-...}.
    guid=$(sed -n "s/.*PDBGUID: {\(.*\)}/\1/p" <<<"$dir")
    if [ -z "$guid" ]; then
      read -r -a g <<<"$(sed -n "s/.*PDBGUID: (\(.*\))/\1/p" <<<"$dir")"
      guid=${g[3]}${g[2]}${g[1]}${g[0]}-${g[5]}${g[4]}-${g[7]}${g[6]}-${g[8]}${g[9]}-${g[10]}${g[11]}${g[12]}${g[13]}${g[14]}${g[15]}
    fi
    guid=${guid^^}
    [ ${#guid} -eq 36 ] || { echo "no GUID in: $dir"; exit 1; }
    age=$(sed -n "s/.*PDBAge: //p" <<<"$dir") pdb=$(sed -n "s/.*PDBFileName: //p" <<<"$dir")
    [ "$pdb" = "${name%.*}.pdb" ] || { echo "CodeView entry names $pdb"; exit 1; }
    store=$pkg/symbols/$pdb/${guid//-/}$(printf %X "$age")
    summary=$("$pdbutil" dump -summary "$store/$pdb")
    grep -qx " *GUID: {$guid}" <<<"$summary" && grep -qx " *Age: $age" <<<"$summary" ||
      { echo "binary: {$guid} age $age; $store/$pdb:"; echo "$summary"; exit 1; }
    head=$("$readobj" --file-headers "$pkg/$f")
    key=$(printf "%08X%x" "$(sed -n "s/.*TimeDateStamp: .*(\(0x[0-9A-Fa-f]*\))/\1/p" <<<"$head")" \
                          "$(sed -n "s/.*SizeOfImage: //p" <<<"$head")")
    cmp "$pkg/$f" "$pkg/symbols/$name/$key/$name"
    base=$(x86_64-w64-mingw32-objdump -p "$pkg/debug/$name.debug" | sed -n "s/^ImageBase[[:space:]]*//p")
    for fn in $funcs; do
      at=$(x86_64-w64-mingw32-nm -C "$pkg/debug/$name.debug" | sed -n -E "s/^([0-9a-f]+) T $fn(\(.*)?\$/\1/p" | head -1)
      [ -n "$at" ] || { echo "no $fn in debug/$name.debug"; exit 1; }
      got=$(cd "$store" && "$symbolizer" --obj="$pkg/$f" --relative-address $((0x$at - 0x$base + 16)) | head -1)
      echo "$fn: 0x$at+16 -> $got"
      [[ $got == "$fn" || $got == "$fn("* ]]
    done' _ "$pkg" "$f" "$name" "$funcs" "$readobj" "$pdbutil" "$symbolizer"
done
check "symbols/ holds the four PDBs and binaries, nothing else" bash -c \
  "[ \$(cd '$pkg/symbols' && find . -type f | grep -c -E '^\./([^/]+)\.(pdb|dll|exe)/[0-9A-Fa-f]+/\1\.(pdb|dll|exe)\$') -eq 8 ] &&
   [ \$(find '$pkg/symbols' -type f | wc -l) -eq 8 ]"

if [ $quick -eq 1 ]; then
  [ $failures -eq 0 ] && { echo "package: all checks passed"; exit 0; }
  echo "package: $failures checks FAILED"; exit 1
fi

# --- Wine from here on.
: "${WINEPREFIX:?check-package.sh: set WINEPREFIX (a prepared Wine prefix)}"
export WINEDEBUG=${WINEDEBUG:--all}
winpath() { echo "Z:$(echo "$1" | sed 's|/|\\|g')"; }

# host.c, against the header alone (only include/ on the include path), by
# three toolchains. run_host OUT DLL COMMAND...: the host passed every check
# and used DLL (found on WINEPATH).
cc=x86_64-w64-mingw32-gcc-posix
for std in c89 c11; do
  check "C host compiles as $std against include/qx_plugin.h alone" \
    $cc -std=$std -pedantic-errors -Wall -Wextra -Werror -I"$pkg/include" "$here/host.c" -o "$work/host_$std.exe"
done
check "qx_plugin.h compiles as C++" bash -c \
  "echo '#include \"qx_plugin.h\"' | x86_64-w64-mingw32-g++-posix -std=c++11 -Wall -Wextra -Werror -I'$pkg/include' -x c++ -fsyntax-only -"
check "C host links against lib/libQXAttentionPlugin.dll.a" \
  $cc -std=c11 -Wall -Wextra -Werror -DQX_HOST_LINKED -I"$pkg/include" "$here/host.c" \
      -L"$pkg/lib" -lQXAttentionPlugin -o "$work/host_linked.exe"
run_host() {
  local out=$1 dll=$2; shift 2
  WINEPATH="$(winpath "$(dirname "$dll")")" timeout 120 "$@" >"$out" 2>&1; local rc=$?
  cat "$out"
  [ $rc -eq 0 ] && grep -q "all checks passed" "$out" && grep -qiF "plug-in $(winpath "$dll")" "$out"
}
check "C host (C89) loads bin/QXAttentionPlugin.dll and runs actions" \
  run_host "$work/c89.out" "$pkg/bin/QXAttentionPlugin.dll" wine "$work/host_c89.exe"
check "C host (linked) finds bin/QXAttentionPlugin.dll on PATH and runs actions" \
  run_host "$work/linked.out" "$pkg/bin/QXAttentionPlugin.dll" wine "$work/host_linked.exe"

# examples/host.c as an integrator builds it from the unpacked archive (C99,
# windows.h, only include/ added), run against bin/'s DLL by its full path.
check "examples/host.c builds from the archive (C99, gcc)" \
  $cc -std=c99 -pedantic-errors -Wall -Wextra -Werror -I"$pkg/include" "$pkg/examples/host.c" -o "$work/example.exe"
check "examples/host.c runs the lifecycle against bin/QXAttentionPlugin.dll" bash -c "
  timeout 120 wine '$work/example.exe' '$(winpath "$pkg/bin/QXAttentionPlugin.dll")' > '$work/example.out' 2>&1; rc=\$?
  cat '$work/example.out'; [ \$rc -eq 0 ] && grep -q 'every action answered' '$work/example.out' &&
  grep -q '^get_attention  -> 0, {\"cmd\":\"get_attention\"' '$work/example.out'"

# The MSVC-style host: clang (MSVC target) and lld-link, no C runtime, the
# import library from the archive; kernel32 and ntdll import libraries made
# here for the few functions it uses.
msvc=$work/msvc
mkdir "$msvc"
{ printf 'LIBRARY kernel32.dll\nEXPORTS\n'; printf '  %s\n' GetStdHandle WriteFile ExitProcess GetCommandLineA \
    LoadLibraryA GetProcAddress GetModuleFileNameA; } > "$msvc/kernel32.def"
printf 'LIBRARY ntdll.dll\nEXPORTS\n  __C_specific_handler\n' > "$msvc/ntdll.def"
dlltool=$(command -v llvm-dlltool || command -v llvm-dlltool-19 || command -v llvm-dlltool-14)
lldlink=$(command -v lld-link || command -v lld-link-19 || command -v lld-link-14)
check "MSVC-style host compiles (clang, x86_64-pc-windows-msvc, C89)" bash -c "
  '$dlltool' -m i386:x86-64 -d '$msvc/kernel32.def' -l '$msvc/kernel32.lib' &&
  '$dlltool' -m i386:x86-64 -d '$msvc/ntdll.def' -l '$msvc/ntdll.lib' &&
  clang --target=x86_64-pc-windows-msvc -ffreestanding -fms-extensions -std=c89 -Wall -Wextra -Werror \
        -O2 -I'$pkg/include' -c '$here/host.c' -o '$msvc/msvc_host.obj'"
check "lld-link links it against lib/QXAttentionPlugin.lib" \
  "$lldlink" -nologo -nodefaultlib -entry:mainCRTStartup -subsystem:console \
    -out:"$msvc/msvc_host.exe" "$msvc/msvc_host.obj" "$pkg/lib/QXAttentionPlugin.lib" \
    "$msvc/kernel32.lib" "$msvc/ntdll.lib"
check "MSVC-style host calls the four exports" \
  run_host "$msvc/run.out" "$pkg/bin/QXAttentionPlugin.dll" wine "$msvc/msvc_host.exe"
check "MSVC-style host: the GCC exception reaches its filter as 0x20474343" bash -c "
  WINEPATH='$(winpath "$pkg/bin")' timeout 120 wine '$msvc/msvc_host.exe' throw > '$msvc/throw.out'; rc=\$?
  cat '$msvc/throw.out'; [ \$rc -eq 3 ] && grep -q '0x20474343' '$msvc/throw.out'"

if [ -n "$version_test" ]; then
  check "version resources of bin/ (GetFileVersionInfoW, VerQueryValueW)" bash -c "
    timeout 120 wine '$version_test' '$(winpath "$pkg/bin")' > '$work/version.out' 2>&1
    grep -q '\\[  PASSED  \\]' '$work/version.out' && ! grep -q '\\[  FAILED  \\]' '$work/version.out' ||
      { cat '$work/version.out'; exit 1; }"
fi

# Signing with a throwaway self-signed certificate.
sig=$work/sign
mkdir "$sig"
cp "$pkg/bin/QXAttentionPlugin.dll" "$pkg/bin/qxhost.exe" "$sig/"
check "throwaway code-signing certificate (openssl)" bash -c "
  openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj '/CN=QX throwaway test signer' \
    -addext 'extendedKeyUsage=codeSigning' -keyout '$sig/key.pem' -out '$sig/cert.pem' &&
  openssl pkcs12 -export -inkey '$sig/key.pem' -in '$sig/cert.pem' -passout pass:throwaway -out '$sig/test.p12'"
check "scripts/sign.sh signs the DLL and an .exe" \
  env QX_SIGN_PKCS12="$sig/test.p12" QX_SIGN_PASSWORD=throwaway \
    "$src/scripts/sign.sh" "$sig/QXAttentionPlugin.dll" "$sig/qxhost.exe"
for f in QXAttentionPlugin.dll qxhost.exe; do
  check "osslsigncode verify $f" bash -c "
    osslsigncode verify -CAfile '$sig/cert.pem' -in '$sig/$f' > '$sig/$f.verify' 2>&1; rc=\$?
    [ \$rc -eq 0 ] && grep -q 'Signature verification: ok' '$sig/$f.verify' || { cat '$sig/$f.verify'; exit 1; }"
done
check "osslsigncode verify refuses a signed DLL changed afterwards" bash -c "
  cp '$sig/QXAttentionPlugin.dll' '$sig/tampered.dll' &&
  printf 'X' | dd of='$sig/tampered.dll' bs=1 seek=4096 conv=notrunc status=none &&
  ! osslsigncode verify -CAfile '$sig/cert.pem' -in '$sig/tampered.dll'"
check "scripts/verify-dll.sh: the signed DLL is the archive's build" \
  "$src/scripts/verify-dll.sh" "$sig/QXAttentionPlugin.dll" "$pkg/bin/QXAttentionPlugin.dll"
check "scripts/verify-dll.sh: a changed signed DLL is not" \
  bash -c "! '$src/scripts/verify-dll.sh' '$sig/tampered.dll' '$pkg/bin/QXAttentionPlugin.dll'"
check "the signed DLL still loads and runs" \
  run_host "$work/signed.out" "$sig/QXAttentionPlugin.dll" wine "$work/host_c11.exe"

[ $failures -eq 0 ] && { echo "package: all checks passed"; exit 0; }
echo "package: $failures checks FAILED"
exit 1
