#!/usr/bin/env bash
# The x86 DLL under Wine's WoW64, inside the test world: a 32-bit program loads it by name as the
# router does (so the export must be undecorated, and every import a system DLL) and signs,
# verifies, exports and enumerates against the emulated vault. 32-bit Wine can fail silently
# (exit 0, no output), so the run is judged by the program's printed markers alone.
# Usage: kestal32_test.sh <source dir> <x86 bin dir>
set -uo pipefail
top=$1 bin=$2
fail() { echo "FAIL: $*"; exit 1; }
[ "${KESTAL_WORLD:-}" = 1 ] || fail "run inside the test world"
. "$top/tools/testworld/isolation.sh"
world_check_only_lo
[ -f "$bin/KestalKeyVaultKSP.dll" ] && [ -f "$bin/kestal32.exe" ] || fail "no x86 build in $bin (scripts/build.sh)"

# Wine's 32-bit half (unpacked by install-deps), and a WoW64 prefix of this run's own, copied from a
# template kept beside the world's 64-bit one, with its own wineserver started here, inside.
export WINEDLLPATH=$top/build/deps/wine-i386/usr/lib/i386-linux-gnu/wine
[ -f "$WINEDLLPATH/i386-windows/kernel32.dll" ] || fail "no 32-bit Wine in $WINEDLLPATH (scripts/install-deps.sh)"
template=$top/build/testworld/prefix-template-wow64
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
# A template made under an older test CA is made again, as the world does with its own.
[ "$top/build/testworld/pki/ca.pem" -nt "$template/system.reg" ] && rm -rf "$template"
if [ ! -d "$template/drive_c/windows/syswow64" ]; then
  echo "making the WoW64 prefix template (once, ~20 s)"
  start_server && wineboot -u </dev/null >/dev/null 2>&1 && stop_server
  rm -rf "$template.tmp" && cp -a "$WINEPREFIX" "$template.tmp" && rm -rf "$template" && mv "$template.tmp" "$template"
fi
cp -a "$template/." "$WINEPREFIX/" && rm -f "$WINEPREFIX/wineserver"
start_server
wine cmd /c exit </dev/null >/dev/null 2>&1

tenant=00000000-0000-0000-0000-0000000a3286 client=11111111-1111-1111-1111-1111111a3286 secret=x86-test-secret
control() { curl -sf -X POST -H 'Content-Type: application/json' -d "$2" "$KESTAL_CONTROL_URL$1" >/dev/null ||
  fail "control API $1"; }
control /reset '{}'
control /apps "{\"tenant\":\"$tenant\",\"clientId\":\"$client\",\"secret\":\"$secret\"}"
control /vaults/kestaltest/keys '{"name":"rsa32","kty":"RSA","key_size":2048}'
control /vaults/kestaltest/keys '{"name":"ec32","kty":"EC","crv":"P-256","tags":{"AlgID":"ECDSA_P256"}}'

out=$(cd "$bin" && "$top/tools/testworld/wine-run" kestal32.exe kestaltest "$tenant" "$client" "$secret" 2>&1 </dev/null |
  tr -d '\r')
echo "$out"
for step in WOW64 LOAD ENUMKEYS "SIGN RSA" "EXPORT RSA" "SIGN EC" "EXPORT EC" DONE; do
  grep -qx "KESTAL32 $step OK" <<<"$out" || fail "no marker KESTAL32 $step OK"
done
echo "kestal32: every step passed"
