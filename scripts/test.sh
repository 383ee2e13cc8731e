#!/usr/bin/env bash
# The test command: installs what is missing, builds, and runs every test inside the
# test world. Leaves a JUnit report of every test case at build/test-report.xml.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
exec tools/testworld/launch ctest --preset mingw --output-junit "$PWD/build/test-report.xml" "$@"
