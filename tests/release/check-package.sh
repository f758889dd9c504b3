#!/usr/bin/env bash
# The release archive as an integrator meets it; "ok" or "FAIL" per check.
#   check-package.sh [--quick] ZIP | --from-build TREE (the archive CPack makes)
# --quick: its files, documents, debug files and PDBs. Otherwise also, under the
# caller's WINEPREFIX: the version, the header, checksums, signing; hosts built
# and run in a fresh prefix, $WINEPREFIX-hosts, and (beside the other checks)
# examples/host.c with the test build against fusion-sim as the service in
# another, $WINEPREFIX-story. The hosts' "init" runs net.exe against the service
# and writes the plug-in's log: in prefixes of their own, other Windows tests
# may run in the caller's meanwhile. Both are copied from $WINEPREFIX.pristine
# when there is one (a ctest run's), else from a pristine copy kept beside them.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
quick=0 zip="" tree=""
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=1 ;;
    --from-build) tree=$2; shift ;;
    *) zip=$1 ;;
  esac
  shift
done
work=$(mktemp -d "${TMPDIR:-/tmp}/qx-package.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0
check() {
  local what=$1; shift
  if "$@" >"$work/last.log" 2>&1; then echo "ok   $what"; else
    echo "FAIL $what"; failures=$((failures + 1)); tail -20 "$work/last.log" | sed 's/^/     /'
  fi
}
done_checks() {
  [ $failures -eq 0 ] && echo "package: all checks passed" || echo "package: $failures checks FAILED"
  exit $((failures > 0))
}
if [ -n "$tree" ]; then
  epoch=${SOURCE_DATE_EPOCH:-$(git -C "$src" log -1 --format=%ct 2>/dev/null || date +%s)}
  (cd "$tree" && SOURCE_DATE_EPOCH=$epoch cpack -G External -B "$work/cpack") \
    >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; echo "package: cpack failed"; exit 1; }
  zip=$(ls "$work"/cpack/*.zip)
fi
[ -f "$zip" ] || { echo "usage: check-package.sh [--quick] ZIP | --from-build TREE" >&2; exit 2; }
zip=$(cd "$(dirname "$zip")" && pwd)/$(basename "$zip")
echo "package: $zip"
pkg=$work/unpacked
mkdir "$pkg" && (cd "$pkg" && cmake -E tar xf "$zip") || { echo "package: cannot unpack"; exit 1; }
m=x86_64-w64-mingw32
cc=($m-gcc-posix -Wall -Wextra -Werror -I"$pkg/include")

# symbols/ is a symbol store: NAME/KEY/NAME.
bins="QXAttentionPlugin.dll qxhost.exe fusion-sim.exe logread.exe"
printf '%s\n' CHANGELOG.md LICENSE README.md THIRD-PARTY-NOTICES docs/{integration,log-records,logread}.md \
  examples/host.c include/qx_plugin.h lib/{QXAttentionPlugin.lib,libQXAttentionPlugin.dll.a} \
  share/lnav/qx_{attention,sensorlib}_log.json test/QXAttentionPlugin-TEST-noauth.dll \
  $(for f in $bins; do echo "bin/$f debug/$f.debug symbols/$f/KEY/$f symbols/${f%.*}.pdb/KEY/${f%.*}.pdb"; done) |
  LC_ALL=C sort >"$work/expected"
(cd "$pkg" && find . -type f | sed 's|^\./||; s|^\(symbols/[^/]*\)/[^/]*/|\1/KEY/|' | LC_ALL=C sort) >"$work/found"
check "the archive holds exactly the shipped files, its entries sorted" \
  eval 'diff "$work/expected" "$work/found" && cmake -E tar tf "$zip" | sed "s|/$||" | LC_ALL=C sort -c'
check "the documents name only files the archive holds; LICENSE is the MIT licence" \
  eval 'python3 "$here/check-doc-refs.py" "$pkg" && grep -qx "MIT License" "$pkg/LICENSE"'

if [ $quick -eq 0 ]; then
  : "${WINEPREFIX:?check-package.sh: set WINEPREFIX (a prepared Wine prefix)}"
  export WINEDEBUG=${WINEDEBUG:--all}
  check "examples/host.c builds against lib/libQXAttentionPlugin.dll.a (gcc, C99)" \
    "${cc[@]}" -std=c99 -pedantic-errors "$pkg/examples/host.c" -L"$pkg/lib" -lQXAttentionPlugin -o "$work/example.exe"
  story=$WINEPREFIX-story hosts=$WINEPREFIX-hosts
  pristine=$WINEPREFIX.pristine && [ -f "$pristine/system.reg" ] || pristine=""
  "$src/scripts/wine-prefix.sh" create "$hosts" $pristine >"$work/hosts.log" 2>&1 &
  hosts_pid=$!
  # The simulated user looks away once the example says attention is on.
  (
    export WINEPREFIX=$story WINEPATH=
    trap '"$src/scripts/wine-prefix.sh" stop "$WINEPREFIX" >/dev/null 2>&1' EXIT
    run=$work/story && mkdir -p "$run" && cp "$work/example.exe" "$run/host.exe" &&
      cp "$pkg/test/QXAttentionPlugin-TEST-noauth.dll" "$run/QXAttentionPlugin.dll" &&
      "$src/scripts/wine-prefix.sh" create "$WINEPREFIX" $pristine >/dev/null &&
      timeout 60 wine "$pkg/bin/fusion-sim.exe" install --quiet </dev/null || exit 1
    (cd "$run" && timeout 240 wine host.exe 120 </dev/null >out.txt 2>&1; echo $? >rc.txt) &
    for _ in $(seq 900); do  # up to 180 s for attention to be on
      grep -q "waiting up to" "$run/out.txt" 2>/dev/null || [ -f "$run/rc.txt" ] && break
      sleep 0.2
    done
    timeout 60 wine "$pkg/bin/fusion-sim.exe" ctl look-away </dev/null
    wait
    cat "$run/out.txt"
    timeout 60 wine "$pkg/bin/fusion-sim.exe" uninstall </dev/null >/dev/null 2>&1
    [ "$(cat "$run/rc.txt")" = 0 ] && grep -q "the user looked away" "$run/out.txt"
  ) >"$work/story.log" 2>&1 &
  story_pid=$!
  trap 'for p in "$story" "$hosts"; do "$src/scripts/wine-prefix.sh" stop "$p" >/dev/null 2>&1; done; rm -rf "$work"' EXIT
fi

# A binary: stripped, its debug file (DWARF lines) named by .gnu_debuglink
# (NULs to a multiple of 4 bytes, then its CRC-32 as in gzip's trailer); its
# PDB under the CodeView signature and age, it under its time stamp and image
# size; the PDB's modules, ours with files, every path under /qx/ (the build
# machine's folders mapped) or /usr/; its lookups resolve through the PDB alone.
binary() (
  f=$pkg/bin/$1 d=$pkg/debug/$1.debug l=$work/$1.link
  h=$($m-objdump -h -t "$f") && ! grep -E '\.debug_|^\[' <<<"$h" && $m-objdump -h "$d" | grep -q ' \.debug_line ' &&
    $m-objcopy --dump-section .gnu_debuglink="$l" "$f" "$l.copy" && [ "$(head -c -4 "$l" | tr -d '\0')" = "$1.debug" ] &&
    [ "$(stat -c %s "$l")" -eq $(((${#1} + 10) / 4 * 4 + 4)) ] && cmp <(tail -c 4 "$l") <(gzip -1c <"$d" | tail -c 8 | head -c 4) ||
    exit 1
  read -r sig age pdb < <($m-objdump -p "$f" | sed -n 's/.*RSDS signature \(.*\) age \(.*\) pdb \(.*\))/\1 \2 \3/p')
  p=$pkg/symbols/$pdb/${sig^^}$(printf %X "$age")/$pdb
  summary=$(llvm-pdbutil dump -summary "$p") && echo "CodeView: $sig age $age, $pdb; $summary"
  guid=$(sed -n 's/^ *GUID: {\(.*\)}/\1/p' <<<"$summary")
  [ "$pdb" = "${1%.*}.pdb" ] && [ "${guid//-/}" = "${sig^^}" ] && grep -qx " *Age: $age" <<<"$summary" || exit 1
  h=$(llvm-readobj --file-headers "$f")
  key=$(printf "%08X%x" "$(sed -n 's/.*TimeDateStamp: .*(\(0x.*\))/\1/p' <<<"$h")" "$(sed -n "s/.*SizeOfImage: //p" <<<"$h")")
  dump=$(llvm-pdbutil dump -modules -files "$p") && cmp "$f" "$pkg/symbols/$1/$key/$1" &&
    grep -A2 -E '^ *Mod [0-9]+ \| `/qx/build/' <<<"$dump" | grep -E '# files: [1-9]' || exit 1
  ! { grep -oE '(Mod [0-9]+ \| |Obj: )`/[^`]*' <<<"$dump" | sed 's/.*`//'
      sed -nE 's/^ *- (\((MD5|None): [0-9A-F]*\) )?(.*)$/\3/p' <<<"$dump"; } | grep -vE '^/(qx|usr)/' &&
    python3 "$here/pdb-lookup.py" "$pkg" "$src" "$@"
)
check "bin/QXAttentionPlugin.dll: debug file, PDB; PluginAction, file-local StartSensorThread, inlined GetSensorDataSize" \
  binary QXAttentionPlugin.dll PluginAction StartSensorThread:local GetSensorDataSize:in:GetSensorData
check "bin/fusion-sim.exe: debug file, PDB; wmain resolves" binary fusion-sim.exe wmain@tools/fusion-sim
for f in qxhost logread; do check "bin/$f.exe: debug file, PDB; main resolves" binary $f.exe main@tools/$f; done
[ $quick -eq 1 ] && done_checks

# ran CODE COMMAND...: under Wine in the hosts' prefix with bin/ on WINEPATH,
# COMMAND ends with CODE.
ran() {
  wait "$hosts_pid" 2>/dev/null || [ -f "$hosts/system.reg" ] || { cat "$work/hosts.log"; return 1; }
  WINEPREFIX=$hosts WINEPATH="Z:${pkg//\//\\}\\bin" timeout 120 wine "${@:2}"
  [ $? -eq "$1" ]
}
# A development build: CHANGELOG.md's newest number or a newer one, "-dev+" and its commit.
tools_version() {
  read -r version commit < <(sed -n 's/^Version \(.*\), built from commit \([0-9a-f]\{40\}\)\.$/\1 \2/p' "$pkg/README.md")
  newest=$(sed -n 's/^## \[\([0-9][0-9.]*\)\] - .*/\1/p' "$pkg/CHANGELOG.md" | head -1)
  number=${version%-dev+"${commit:0:12}"}
  echo "README: $version $commit; CHANGELOG.md: $newest"
  [ -n "$commit" ] && [ "$(basename "$zip")" = "QXAttentionPlugin-$version-win64.zip" ] &&
    { [ "$number" = "$newest" ] ||
      { [ "$number" != "$version" ] && [ "$(printf '%s\n' "$newest" "$number" | sort -V | head -1)" = "$newest" ]; }; } ||
    return 1
  for tool in qxhost fusion-sim logread; do
    got=$(WINEPATH= timeout 60 wine "$pkg/bin/$tool.exe" --version </dev/null | tr -d '\r') && echo "$got" &&
      [ "$got" = "$tool $version (commit $commit)" ] || return 1
  done
}
check "the tools' --version, README.md, the archive's name and CHANGELOG.md agree" tools_version

header() {
  for std in c:c89 c:c99 c:c11 c++:c++98 c++:c++11; do
    "${cc[@]}" -x "${std%%:*}" -std="${std#*:}" -pedantic-errors -fsyntax-only "$pkg/include/qx_plugin.h" || return 1
  done
}
check "qx_plugin.h compiles as C89, C99, C11, C++98 and C++11, pedantic" header
check "C89 host (gcc, libQXAttentionPlugin.dll.a) finds bin/ on PATH; status 3 refused" eval \
  '"${cc[@]}" -std=c89 -pedantic-errors "$here/host.c" -L"$pkg/lib" -lQXAttentionPlugin -o "$work/gnu.exe" && ran 0 "$work/gnu.exe"'
check "MSVC-style host (clang, lld-link, QXAttentionPlugin.lib): status 3 refused; the GCC exception in its filter" eval \
  'clang --target=x86_64-pc-windows-msvc -ffreestanding -fms-extensions -std=c89 -O2 -Wall -Wextra -Werror \
     -I"$pkg/include" -c "$here/host.c" -o "$work/msvc.obj" && lld-link -nologo -nodefaultlib -entry:mainCRTStartup \
     -subsystem:console -out:"$work/msvc.exe" "$work/msvc.obj" "$pkg/lib/QXAttentionPlugin.lib" \
     /usr/$m/lib/libkernel32.a /usr/$m/lib/libntdll.a && ran 3 "$work/msvc.exe"'
check "examples/host.c builds against QXAttentionPlugin.lib (clang, lld)" \
  clang --target=$m -fuse-ld=lld -std=c99 -Wall -Wextra -Werror -I"$pkg/include" "$pkg/examples/host.c" \
  "$pkg/lib/QXAttentionPlugin.lib" -o "$work/example-lld.exe" -L"$(dirname "$($m-gcc-posix -print-libgcc-file-name)")"

# The checksums' signature by a throwaway OpenPGP key.
sums() (
  export GNUPGHOME=$work/gnupg && mkdir -m 700 "$GNUPGHOME" && mkdir "$work/dist" && cp "$zip" "$work/dist/" || exit 1
  trap 'gpgconf --kill all' EXIT  # the agent this key started
  gpg --batch --pinentry-mode loopback --passphrase '' --quick-gen-key 'QX throwaway <qx@example.invalid>' ed25519 sign 1d \
    2>/dev/null && QX_GPG_KEY=qx@example.invalid "$src/scripts/checksums.sh" "$work/dist" "${zip##*/}" &&
    (cd "$work/dist" && sha256sum -c SHA256SUMS) &&
    (cd "$pkg" && sha256sum -c "$work/dist/${zip##*/}.contents.sha256" | grep -c ': OK$') &&
    gpg --verify "$work/dist/SHA256SUMS.asc" "$work/dist/SHA256SUMS" || exit 1
  echo "0000  extra" >>"$work/dist/SHA256SUMS"
  ! gpg --verify "$work/dist/SHA256SUMS.asc" "$work/dist/SHA256SUMS" 2>/dev/null
)
check "SHA256SUMS and the inner list pass sha256sum -c; their signature verifies, not once changed" sums

sign() (
  mkdir "$work/sign" && cd "$work/sign" && cp "$pkg/bin/QXAttentionPlugin.dll" . &&
    openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj '/CN=QX throwaway' \
      -addext extendedKeyUsage=codeSigning -keyout key.pem -out cert.pem &&
    openssl pkcs12 -export -inkey key.pem -in cert.pem -passout pass:x -out test.p12 &&
    QX_SIGN_PKCS12=test.p12 QX_SIGN_PASSWORD=x "$src/scripts/sign.sh" QXAttentionPlugin.dll &&
    osslsigncode verify -CAfile cert.pem -in QXAttentionPlugin.dll | grep 'Signature verification: ok' &&
    "$src/scripts/verify-dll.sh" QXAttentionPlugin.dll "$pkg/bin/QXAttentionPlugin.dll" || exit 1
  printf 'X' | dd of=QXAttentionPlugin.dll bs=1 seek=4096 conv=notrunc status=none
  ! "$src/scripts/verify-dll.sh" QXAttentionPlugin.dll "$pkg/bin/QXAttentionPlugin.dll"
)
check "sign.sh signs the DLL (throwaway certificate); verify-dll.sh finds it the archive's build, not once changed" sign
story() { wait "$story_pid"; local s=$?; cat "$work/story.log"; return $s; }
check "examples/host.c + test build + fusion-sim service: the look-away report arrives" story
done_checks
