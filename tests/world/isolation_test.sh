#!/usr/bin/env bash
# The walls of the test world: Wine never starts where the DLL's traffic could reach a real network.
set -uo pipefail
top=$1
world=$top/tools/testworld
failures=0
pass() { echo "PASS: $*"; }
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

expect_refusal() { # description pattern command...
  local what=$1 pattern=$2; shift 2
  local out rc
  out=$("$@" 2>&1); rc=$?
  if [ "$rc" = 3 ] && grep -q "$pattern" <<<"$out"; then pass "$what"; else fail "$what (rc=$rc: $out)"; fi
}

[ "${KESTAL_WORLD:-}" = 1 ] || { echo "FAIL: run inside the test world"; exit 1; }

# We are inside: only lo, the metadata address on it, no route out, names mapped.
[ "$(ip -o link show | awk -F': ' '{print $2}')" = lo ] && pass "only lo in the world" || fail "only lo in the world"
# (grep reads all it is given: with -q it could stop early and fail the pipe under pipefail)
ip -o addr show dev lo | grep '169.254.169.254/32' >/dev/null && pass "169.254.169.254 on lo" || fail "169.254.169.254 on lo"
! ip route get 192.0.2.1 >/dev/null 2>&1 && pass "no route out" || fail "no route out"
getent hosts login.microsoftonline.com | grep '^127.0.0.1' >/dev/null && pass "login name on loopback" || fail "login name on loopback"

# wine-run refuses outside the launcher.
expect_refusal "wine-run outside the world" "not inside the test world" env -u KESTAL_WORLD "$world/wine-run" cmd /c exit

# wine-run and the launcher's inside both refuse a namespace with another interface.
with_veth() { unshare --net --mount --pid --fork --mount-proc bash -c 'ip link add kv0 type veth peer name kv1 && exec "$@"' _ "$@"; }
expect_refusal "wine-run beside another interface" "interfaces besides lo" with_veth "$world/wine-run" cmd /c exit
expect_refusal "world start beside another interface" "interfaces besides lo" with_veth "$world/world-inner" true

# A wineserver already serving a prefix is refused, however it was started.
prefix=$(mktemp -d "$KESTAL_WORLD_DIR/other-prefix.XXXXXX")
(export WINEPREFIX=$prefix; exec wineserver -f -p </dev/null >/dev/null 2>&1) &
server=$!
for _ in $(seq 50); do (. "$world/isolation.sh"; world_server_alive "$prefix") && break; sleep 0.1; done
expect_refusal "prefix with a running wineserver" "already serves the prefix" \
  bash -c '. "$1/isolation.sh"; world_check_no_wineserver "$2"' _ "$world" "$prefix"
WINEPREFIX=$prefix wineserver -k >/dev/null 2>&1; wait "$server" 2>/dev/null

[ "$failures" = 0 ] && echo "isolation: all checks passed" || { echo "isolation: $failures failed"; exit 1; }
