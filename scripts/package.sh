#!/usr/bin/env bash
# Builds the x64 MSI with wixl: KestalKeyVaultKSP.dll into System32 (and the x86 build's into
# SysWOW64), kestalksp.exe under
# Program Files\Kestal\Key Vault KSP, the provider registered by the tool at install and
# unregistered at uninstall. The version is the CMake project's.
#
#   scripts/package.sh [--no-build] [--bin DIR] [--bin86 DIR] [--out DIR]
#
# Default: builds first (scripts/build.sh), takes build/mingw/bin and build/mingw-x86/bin, writes
# build/KestalKeyVaultKSP-<version>-x64.msi and prints its path.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=1
bin=$top/build/mingw/bin
bin86=$top/build/mingw-x86/bin
out=$top/build
while [ $# -gt 0 ]; do
  case $1 in
    --no-build) build=0 ;;
    --bin) bin=$2; shift ;;
    --bin86) bin86=$2; shift ;;
    --out) out=$2; shift ;;
    *) echo "usage: $0 [--no-build] [--bin DIR] [--bin86 DIR] [--out DIR]" >&2; exit 2 ;;
  esac
  shift
done

command -v wixl >/dev/null || { echo "package: wixl not found: run scripts/install-deps.sh" >&2; exit 1; }
[ "$build" = 0 ] || "$top/scripts/build.sh"
for f in KestalKeyVaultKSP.dll kestalksp.exe; do
  [ -f "$bin/$f" ] || { echo "package: $bin/$f is missing: build first (scripts/build.sh)" >&2; exit 1; }
done
[ -f "$bin86/KestalKeyVaultKSP.dll" ] ||
  { echo "package: $bin86/KestalKeyVaultKSP.dll is missing: build first (scripts/build.sh)" >&2; exit 1; }
bin86=$(cd "$bin86" && pwd)
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$bin/../CMakeCache.txt")
[ -n "$version" ] || { echo "package: no project version in $bin/../CMakeCache.txt" >&2; exit 1; }

mkdir -p "$out"
msi=$out/KestalKeyVaultKSP-$version-x64.msi
msi=$(cd "$out" && pwd)/$(basename "$msi")
# wixl takes file sources relative to the working folder only.
(cd "$bin" && wixl -a x64 -D Version="$version" -D BinDir=. -D Bin86Dir="$(realpath --relative-to=. "$bin86")" \
  -o "$msi" "$top/packaging/KestalKeyVaultKSP.wxs")
echo "$msi"
