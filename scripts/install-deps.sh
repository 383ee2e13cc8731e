#!/usr/bin/env bash
# Installs what the build and the test world need; safe to run again.
#   - Debian packages (cross compilers, Wine, CMake, Node.js, namespace tools, wixl and
#     msitools for the MSI)
#   - json-c and GoogleTest cross-built for mingw-w64 from Debian's own sources,
#     cached under build/deps (nothing third-party is kept in the repository)
#   - the emulator's npm packages, from its lockfile
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
deps=${KESTAL_DEPS_DIR:-$top/build/deps}
prefix=$deps/prefix
toolchain=$top/cmake/mingw-w64-x86_64.cmake
say() { printf 'install-deps: %s\n' "$*"; }

packages=(gcc-mingw-w64-x86-64 g++-mingw-w64-x86-64 wine wine64 cmake dpkg-dev
          iproute2 util-linux openssl ca-certificates googletest
          wixl msitools)
command -v node >/dev/null || packages+=(nodejs)
command -v npm >/dev/null || packages+=(npm)

need_root() {
  [ "$(id -u)" = 0 ] || { say "must run as root (apt-get, namespaces)"; exit 1; }
}

apt_updated=
apt_update() { [ -n "$apt_updated" ] || { apt-get update -qq; apt_updated=1; }; }

install_packages() {
  local missing=()
  for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return
  need_root
  say "installing ${missing[*]}"
  apt_update
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
}

# apt-get source needs a deb-src entry; mirror the machine's own deb sources.
enable_deb_src() {
  grep -rqs '^Types:.*deb-src' /etc/apt/sources.list.d/ && return
  grep -qs '^deb-src' /etc/apt/sources.list && return
  need_root
  local src=/etc/apt/sources.list.d/debian.sources
  [ -f "$src" ] || { say "no $src to mirror for deb-src"; exit 1; }
  sed 's/^Types: deb$/Types: deb-src/' "$src" > /etc/apt/sources.list.d/kestal-deb-src.sources
  apt_updated=
  apt_update
}

cross_build() { # name source-dir extra-cmake-args...
  local name=$1 src=$2 log=$deps/build-$1.log; shift 2
  {
    cmake -S "$src" -B "$deps/build-$name" -G "Unix Makefiles" -Wno-dev \
      -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_INSTALL_PREFIX="$prefix" -DBUILD_SHARED_LIBS=OFF "$@" &&
    cmake --build "$deps/build-$name" -j"$(nproc)" &&
    cmake --install "$deps/build-$name"
  } >"$log" 2>&1 || { tail -30 "$log"; say "building $name failed (log: $log)"; exit 1; }
}

build_json_c() {
  [ -f "$prefix/lib/cmake/json-c/json-c-config.cmake" ] && return
  enable_deb_src
  say "cross-building json-c from Debian's source package"
  rm -rf "$deps/src-json-c" && mkdir -p "$deps/src-json-c"
  (cd "$deps/src-json-c" && apt-get source -qq json-c >/dev/null 2>&1)
  local src
  src=$(find "$deps/src-json-c" -maxdepth 1 -mindepth 1 -type d -name 'json-c-*' | head -1)
  [ -n "$src" ] || { say "apt-get source json-c gave no source tree"; exit 1; }
  cross_build json-c "$src" -DBUILD_STATIC_LIBS=ON -DBUILD_TESTING=OFF -DDISABLE_WERROR=ON
}

build_googletest() {
  [ -f "$prefix/lib/cmake/GTest/GTestConfig.cmake" ] && return
  say "cross-building GoogleTest from /usr/src/googletest"
  cross_build googletest /usr/src/googletest -Dgtest_disable_pthreads=OFF
}

install_emulator() {
  local dir=$top/emulator stamp=$deps/emulator-npm.stamp
  [ -f "$dir/package-lock.json" ] || return 0
  [ -f "$stamp" ] && cmp -s "$stamp" "$dir/package-lock.json" && return
  say "installing the emulator's npm packages"
  (cd "$dir" && npm ci --no-audit --no-fund --loglevel=error >/dev/null)
  cp "$dir/package-lock.json" "$stamp"
}

install_packages
mkdir -p "$deps"
build_json_c
build_googletest
install_emulator
say "ready (dependencies in $prefix)"
