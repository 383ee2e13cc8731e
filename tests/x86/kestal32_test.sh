#!/usr/bin/env bash
# The x86 DLL under Wine's WoW64, inside the test world: a 32-bit program loads it as the router
# does and signs, verifies, exports and enumerates against the emulated vault. 32-bit Wine can
# fail silently (exit 0, no output), so the run is judged by its printed markers alone.
# Usage: kestal32_test.sh <source dir> <x86 bin dir>
set -uo pipefail
top=$1 bin=$2
world=$top/tools/testworld
fail() { echo "FAIL: $*"; exit 1; }
[ "${KESTAL_WORLD:-}" = 1 ] || fail "run inside the test world"
. "$world/isolation.sh"
world_check_only_lo

# The DLL as the router and the MSI see it: PE32, the plain export, system imports only.
dll=$bin/KestalKeyVaultKSP.dll
[ -f "$dll" ] && [ -f "$bin/kestal32.exe" ] || fail "no x86 build in $bin (scripts/build.sh makes it)"
pe=$(i686-w64-mingw32-objdump -p "$dll") || fail "objdump cannot read $dll"
grep -q 'file format pei-i386' <<<"$pe" || fail "$dll is not a 32-bit DLL"
grep -qE '^\s+\[\s*0\] GetKeyStorageInterface$' <<<"$pe" || fail "GetKeyStorageInterface is not exported undecorated"
imports=$(awk '/DLL Name:/ {print tolower($3)}' <<<"$pe" | tr '\n' ' ')
grep -q 'winhttp.dll' <<<"$imports" && ! grep -qE 'lib(gcc|stdc|winpthread)|json' <<<"$imports" ||
  fail "imports are not Windows system DLLs only: $imports"

# Wine's 32-bit half (install-deps unpacks it) and a WoW64 prefix of this run's own, made from a
# template kept beside the world's 64-bit one, with its own wineserver started here, inside.
export WINEDLLPATH=$top/build/deps/wine-i386/usr/lib/i386-linux-gnu/wine
[ -f "$WINEDLLPATH/i386-windows/kernel32.dll" ] || fail "no 32-bit Wine in $WINEDLLPATH (scripts/install-deps.sh)"
template=${KESTAL_WORLD_STATE:-$top/build/testworld}/prefix-template-wow64
export WINEPREFIX=$KESTAL_WORLD_DIR/prefix-wow64
server=
start_server() {
  world_check_no_wineserver "$WINEPREFIX"
  wineserver -f -p </dev/null >/dev/null 2>&1 &
  server=$!
  for _ in $(seq 100); do world_server_alive "$WINEPREFIX" && return; sleep 0.1; done
  fail "the WoW64 prefix's wineserver did not start"
}
stop_server() { wineserver -k >/dev/null 2>&1; wait "$server" 2>/dev/null; server=; }
trap '[ -z "$server" ] || stop_server' EXIT
mkdir -p "$WINEPREFIX"
if [ -f "$template/system.reg" ] && [ -d "$template/drive_c/windows/syswow64" ]; then
  cp -a "$template/." "$WINEPREFIX/" && rm -f "$WINEPREFIX/wineserver"
  start_server
else
  echo "making the WoW64 prefix template (once, ~25 s)"
  start_server
  wineboot -u </dev/null >/dev/null 2>&1
  stop_server
  rm -rf "$template.tmp" && cp -a "$WINEPREFIX" "$template.tmp" && rm -rf "$template" && mv "$template.tmp" "$template"
  start_server
fi
wine cmd /c exit </dev/null >/dev/null 2>&1

# The vault and the app the program signs in as.
tenant=00000000-0000-0000-0000-0000000a3286 client=11111111-1111-1111-1111-1111111a3286 secret=x86-test-secret
control() { curl -sf -X "$1" -H 'Content-Type: application/json' ${3:+-d "$3"} "$KESTAL_CONTROL_URL$2" >/dev/null ||
  fail "control API $1 $2"; }
control POST /reset
control POST /apps "{\"tenant\":\"$tenant\",\"clientId\":\"$client\",\"secret\":\"$secret\"}"
control POST /vaults/kestaltest/keys '{"name":"rsa32","kty":"RSA","key_size":2048}'
control POST /vaults/kestaltest/keys '{"name":"ec32","kty":"EC","crv":"P-256","tags":{"AlgID":"ECDSA_P256"}}'

out=$(cd "$bin" && "$world/wine-run" kestal32.exe kestaltest "$tenant" "$client" "$secret" 2>&1 </dev/null | tr -d "\r")
echo "$out"
missing=0
for step in WOW64 LOAD ENUMKEYS "SIGN RSA" "EXPORT RSA" "SIGN EC" "EXPORT EC" DONE; do
  grep -qx "KESTAL32 $step OK" <<<"$out" || { echo "FAIL: no marker KESTAL32 $step OK"; missing=1; }
done
[ "$missing" = 0 ] && echo "kestal32: every step passed"
exit "$missing"
