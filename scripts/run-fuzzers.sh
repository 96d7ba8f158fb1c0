#!/usr/bin/env bash
# Runs each libFuzzer target in turn for the given seconds, from the seeds in fuzz/corpus, and
# prints its executions and whether it crashed. A crash input is left as crash-* in the target's
# work folder. Usage: run-fuzzers.sh FUZZ_BUILD_FOLDER SECONDS TARGET...
set -uo pipefail

folder=$(realpath "$1")
seconds=$2
shift 2
seeds=$(realpath "$(dirname "$0")/../fuzz/corpus")
failed=0
for target in "$@"; do
    work="$folder/$target.work"
    mkdir -p "$work/corpus"
    # New inputs go to the work folder: the seeds in the source tree stay as they are.
    # A target's dictionary (fuzz/NAME.dict) gives the mutator the grammar's words.
    dictionary=()
    [[ -f "$seeds/../${target#fuzz_}.dict" ]] && dictionary=(-dict="$seeds/../${target#fuzz_}.dict")
    (cd "$work" && "$folder/$target" -max_total_time="$seconds" -print_final_stats=1 \
        "${dictionary[@]}" corpus "$seeds/${target#fuzz_}" >"$work/log" 2>&1)
    status=$?
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$work/log" | grep -o '[0-9]*$')
    if [[ $status -eq 0 ]]; then
        echo "$target: ${runs:-?} executions in ${seconds} s, no crash"
    else
        echo "$target: crashed (exit $status), see $work/log"
        failed=1
    fi
done
exit $failed
