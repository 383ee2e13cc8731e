#!/usr/bin/env bash
# Installs what the build and the test world need; safe to run again.
#   - Debian packages (cross compilers, Wine, CMake, Node.js, namespace tools, wixl and
#     msitools for the MSI)
#   - json-c and GoogleTest cross-built for mingw-w64 from Debian's own sources,
#     cached under build/deps (nothing third-party is kept in the repository); json-c
#     also for i686 (build/deps/prefix-i686), for the 32-bit DLL
#   - Wine's 32-bit half (libwine:i386, unpacked, not installed) under build/deps/wine-i386,
#     so the test world can run 32-bit programs under WoW64
#   - the emulator's npm packages, from its lockfile
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
deps=${KESTAL_DEPS_DIR:-$top/build/deps}
prefix=$deps/prefix
prefix_i686=$deps/prefix-i686
toolchain=$top/cmake/mingw-w64-x86_64.cmake
toolchain_i686=$top/cmake/mingw-w64-i686.cmake
wine_i386=$deps/wine-i386
say() { printf 'install-deps: %s\n' "$*"; }

packages=(gcc-mingw-w64-x86-64 g++-mingw-w64-x86-64 gcc-mingw-w64-i686 g++-mingw-w64-i686
          wine wine64 cmake dpkg-dev
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

cross_build() { # name source-dir extra-cmake-args...  (CROSS_TOOLCHAIN/CROSS_PREFIX override the x64 ones)
  local name=$1 src=$2 log=$deps/build-$1.log; shift 2
  {
    cmake -S "$src" -B "$deps/build-$name" -G "Unix Makefiles" -Wno-dev \
      -DCMAKE_TOOLCHAIN_FILE="${CROSS_TOOLCHAIN:-$toolchain}" -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_INSTALL_PREFIX="${CROSS_PREFIX:-$prefix}" -DBUILD_SHARED_LIBS=OFF "$@" &&
    cmake --build "$deps/build-$name" -j"$(nproc)" &&
    cmake --install "$deps/build-$name"
  } >"$log" 2>&1 || { tail -30 "$log"; say "building $name failed (log: $log)"; exit 1; }
}

json_c_source() { # prints the unpacked source tree, fetching it when missing
  local src
  src=$(find "$deps/src-json-c" -maxdepth 1 -mindepth 1 -type d -name 'json-c-*' 2>/dev/null | head -1)
  if [ -z "$src" ]; then
    enable_deb_src
    rm -rf "$deps/src-json-c" && mkdir -p "$deps/src-json-c"
    (cd "$deps/src-json-c" && apt-get source -qq json-c >/dev/null 2>&1)
    src=$(find "$deps/src-json-c" -maxdepth 1 -mindepth 1 -type d -name 'json-c-*' | head -1)
  fi
  [ -n "$src" ] || { say "apt-get source json-c gave no source tree"; exit 1; }
  printf '%s\n' "$src"
}

build_json_c() {
  [ -f "$prefix/lib/cmake/json-c/json-c-config.cmake" ] && return
  say "cross-building json-c from Debian's source package"
  local src
  src=$(json_c_source)
  cross_build json-c "$src" -DBUILD_STATIC_LIBS=ON -DBUILD_TESTING=OFF -DDISABLE_WERROR=ON
}

# The 32-bit DLL links json-c only; its tests run as one 32-bit program without GoogleTest.
build_json_c_i686() {
  [ -f "$prefix_i686/lib/cmake/json-c/json-c-config.cmake" ] && return
  say "cross-building json-c for i686"
  local src
  src=$(json_c_source)
  CROSS_TOOLCHAIN=$toolchain_i686 CROSS_PREFIX=$prefix_i686 \
    cross_build i686-json-c "$src" -DBUILD_STATIC_LIBS=ON -DBUILD_TESTING=OFF -DDISABLE_WERROR=ON
}

# Debian 12's wine64 runs 32-bit programs through WoW64 once Wine's i386 DLLs are on WINEDLLPATH.
# Installing wine32:i386 would need the i386 architecture enabled system-wide (and its index
# is not always consistent), so the package matching the installed libwine is fetched with a
# private i386 package list and unpacked under build/deps; nothing on the system changes.
unpack_wine_i386() {
  local version lib=$wine_i386/usr/lib/i386-linux-gnu/wine
  version=$(dpkg-query -W -f='${Version}' libwine 2>/dev/null) || { say "libwine is not installed"; exit 1; }
  [ -f "$wine_i386/version" ] && [ "$(cat "$wine_i386/version")" = "$version" ] &&
    [ -f "$lib/i386-windows/kernel32.dll" ] && return
  need_root
  say "fetching Wine's 32-bit half (libwine:i386 $version, about 95 MB)"
  local apt=$deps/apt-i386 tmp=$deps/wine-i386.tmp
  rm -rf "$apt" "$tmp" && mkdir -p "$apt/lists/partial" "$tmp"
  local opts=(-o APT::Architecture=i386 -o APT::Architectures=i386 -o Dir::State::Lists="$apt/lists"
              -o Dir::Cache::pkgcache="$apt/pkgcache.bin" -o Dir::Cache::srcpkgcache="$apt/srcpkgcache.bin"
              -o Acquire::IndexTargets::deb-src::Sources::DefaultEnabled=false)
  # An index that fails to refresh (a security mirror ahead of its clock) is not fatal: the
  # download below says whether the package was found.
  apt-get -qq "${opts[@]}" update >/dev/null 2>&1 || true
  (cd "$apt" && apt-get -qq "${opts[@]}" download "libwine:i386=$version" >/dev/null 2>&1) ||
    { say "apt-get could not download libwine:i386=$version"; exit 1; }
  dpkg-deb -x "$apt"/libwine_*_i386.deb "$tmp"
  # The 64-bit loader looks for its Unix side next to the DLL path it is given.
  ln -sfn /usr/lib/x86_64-linux-gnu/wine/x86_64-unix "$tmp/usr/lib/i386-linux-gnu/wine/x86_64-unix"
  echo "$version" > "$tmp/version"
  rm -rf "$wine_i386" "$apt" && mv "$tmp" "$wine_i386"
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
build_json_c_i686
unpack_wine_i386
install_emulator
say "ready (dependencies in $prefix, $prefix_i686 and $wine_i386)"
