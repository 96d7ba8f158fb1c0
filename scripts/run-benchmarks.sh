#!/usr/bin/env bash
# Runs every benchmark in the test environment (benchmarks that need a sound server start their
# own private one) and prints the figures.
set -euo pipefail
build_dir=${1:-build}
here=$(cd "$(dirname "$0")" && pwd)
shopt -s nullglob
benchmarks=("$build_dir"/bench/bench_*)
if [[ ${#benchmarks[@]} -eq 0 ]]; then
    echo "no benchmarks built in $build_dir/bench"
    exit 1
fi
for benchmark in "${benchmarks[@]}"; do
    [[ -f "$benchmark" && -x "$benchmark" ]] || continue
    echo "== $(basename "$benchmark")"
    "$here/test-env.sh" "$benchmark"
done
