#!/usr/bin/env bash
# Configures and builds the mingw cross build (build/mingw).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset mingw -Wno-dev >/dev/null
cmake --build --preset mingw
