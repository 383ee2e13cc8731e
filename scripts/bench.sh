#!/usr/bin/env bash
# The benchmark: installs what is missing (gnuplot too), builds, runs kspbench under Wine
# inside the test world against the emulated Azure, and plots. Results in build/bench
# (results.json, summary.md, bench.png); a full run also copies the JSON and the plot to
# docs/, where the README shows them. Options go to kspbench (--quick, --only PART) and
# keep docs/ as it is.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
if ! command -v gnuplot >/dev/null; then
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq gnuplot-nox >/dev/null
fi
scripts/build.sh >/dev/null
out=$PWD/build/bench
rm -rf "$out"
mkdir -p "$out"
cpu=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)
export KESTAL_BENCH_HOST="$(. /etc/os-release && echo "$PRETTY_NAME"), $cpu, $(nproc) cores"
# Every part is bounded in count and time; this bounds the whole run as well.
timeout 900 tools/testworld/launch tools/bench/run "$out" "$@"
gnuplot -e "dir='$out'" tools/bench/plot.gp
if [ $# -eq 0 ]; then
  cp "$out/results.json" docs/bench-results.json
  cp "$out/bench.png" docs/bench.png
fi
cat "$out/summary.md"
