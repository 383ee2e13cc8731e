#!/usr/bin/env bash
# Configures and builds the mingw cross builds: x64 with the tests (build/mingw), and the
# 32-bit DLL for WOW64 callers with its test program (build/mingw-x86).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset mingw -Wno-dev >/dev/null
cmake --build --preset mingw
cmake --preset mingw-x86 -Wno-dev >/dev/null
cmake --build --preset mingw-x86
