#!/usr/bin/env bash
# The demo: the provider DLL under Wine, inside the test world, against the emulated Azure.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh >/dev/null
exec tools/testworld/launch tools/testworld/wine-run build/mingw/bin/kspdemo.exe --seed-settings
