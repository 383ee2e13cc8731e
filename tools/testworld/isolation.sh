# Checks that keep the test world off the real network. Sourced by world-inner and wine-run.

world_refuse() { echo "test world: refusing to run: $*" >&2; exit 3; }

# The namespace must hold nothing but lo: any other interface could reach a real network.
world_check_only_lo() {
  local links
  links=$(ip -o link show | awk -F': ' '{print $2}' | sed 's/@.*//' | sort -u | tr '\n' ' ')
  [ "$links" = "lo " ] || world_refuse "the network namespace holds interfaces besides lo: $links"
}

# No route may lead off the machine (TEST-NET-1 stands for any outside address).
world_check_no_route_out() {
  if ip route get 192.0.2.1 >/dev/null 2>&1; then
    world_refuse "an outside address is routable: $(ip route get 192.0.2.1 2>&1 | head -1)"
  fi
}

# Turns delayed ACK off on every local route of lo; fails the run if a route cannot be changed.
world_quickack_local_routes() {
  local route
  ip route show table local dev lo | grep '^local ' | while read -r route; do
    # shellcheck disable=SC2086 # the route's own words, as ip printed them
    ip route change $route dev lo table local quickack 1 ||
      world_refuse "could not set quickack on the local route: $route"
  done
  ip route show table local dev lo | grep '^local ' | grep -vq 'quickack 1' &&
    world_refuse "a local route is left without quickack: $(ip route show table local dev lo)"
  return 0
}

# Where Wine keeps the server socket of a prefix. Upstream Wine uses
# /tmp/.wine-UID/server-DEV-INODE; Debian's Wine makes a private wine-XXXXXX directory
# under TMPDIR and records its name in the prefix's "wineserver" file.
world_server_dir() {
  local prefix=$1 base=/tmp/.wine-$(id -u)
  if [ -f "$prefix/wineserver" ]; then base=${TMPDIR:-/tmp}/$(cat "$prefix/wineserver"); fi
  printf '%s/server-%x-%x' "$base" "$(stat -c %d "$prefix")" "$(stat -c %i "$prefix")"
}

# True when a wineserver answers on the prefix's socket.
world_server_alive() {
  local sock
  sock="$(world_server_dir "$1")/socket"
  [ -S "$sock" ] || return 1
  node -e '
    const s = require("net").connect(process.argv[1]);
    s.on("connect", () => process.exit(0));
    s.on("error", () => process.exit(1));
    setTimeout(() => process.exit(1), 2000);' "$sock"
}

# A wineserver that already serves the prefix may have been started outside this namespace.
world_check_no_wineserver() {
  local prefix=$1 dir
  dir=$(world_server_dir "$prefix")
  if world_server_alive "$prefix"; then
    world_refuse "a wineserver already serves the prefix $prefix ($dir)"
  fi
  # What is left is stale: a server that is gone.
  rm -rf "$dir"
  rm -f "$prefix/wineserver"
}
