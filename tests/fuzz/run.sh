#!/bin/bash
# Fuzz every target, two at a time: first its stored corpus, then SECONDS seconds from there. One
# line a target; the exit status is 0 only when nothing was found.
#   run.sh BIN_DIR [SECONDS]
# Beside BIN_DIR: corpus/<target> grows from run to run, findings/<target>-* are inputs to repeat
# with "BIN_DIR/<target> FILE", log/<target>.log has the last run.
set -euo pipefail

[ $# -ge 1 ] || { echo "usage: run.sh BIN_DIR [SECONDS]" >&2; exit 2; }
bin=$(cd "$1" && pwd)
seconds=${2:-${KT_FUZZ_SECONDS:-60}}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
out=$(dirname "$bin")

memory=/dev/shm
[ -w "$memory" ] || memory=/tmp
# A target that dies on a finding cannot clear up behind itself.
TMPDIR=$(mktemp -d "$memory/kt-fuzz-run-XXXXXX")
export TMPDIR
trap 'rm -rf "$TMPDIR"' EXIT

symbolizer=$(command -v llvm-symbolizer-14 || command -v llvm-symbolizer || true)
[ -z "$symbolizer" ] || export ASAN_SYMBOLIZER_PATH=$symbolizer UBSAN_SYMBOLIZER_PATH=$symbolizer

# TARGET LIBFUZZER-ARGUMENTS...
fuzz() {
    local target=$1
    shift
    "$bin/$target" -dict="$here/dictionary/$target.dict" -max_len=8192 -timeout=60 \
        -print_final_stats=1 -artifact_prefix="$out/findings/$target-" "$@" \
        >>"$out/log/$target.log" 2>&1
}

# The last number behind NAME in the log of TARGET
number() {
    grep -ao "$2 *[0-9]\+" "$out/log/$1.log" | tail -n 1 | grep -o '[0-9]\+$' || echo 0
}

run_target() {
    local target=$1 stored=$here/corpus/$1 grown=$out/corpus/$1 found=none status=0
    mkdir -p "$grown"
    : >"$out/log/$target.log"
    local before=$TMPDIR/$target.before
    touch "$before"
    fuzz "$target" -runs=0 "$stored" || status=$?
    if [ $status = 0 ] && [ "$seconds" -gt 0 ]; then
        fuzz "$target" -max_total_time="$seconds" "$grown" "$stored" || status=$?
    fi
    if [ $status != 0 ]; then
        found=$(find "$out/findings" -name "$target-*" -newer "$before" | tr '\n' ' ')
        found="${found:-the target did not run }(see $out/log/$target.log)"
    fi
    printf '%-20s %9s executions  %6s/s  coverage %5s  findings: %s\n' "$target" \
        "$(number "$target" number_of_executed_units:)" \
        "$(number "$target" average_exec_per_sec:)" "$(number "$target" cov:)" "$found"
    return $status
}

mkdir -p "$out/findings" "$out/log"
failed=0
running=0
for folder in "$here"/corpus/*/; do
    if [ $running = 2 ]; then
        wait -n || failed=1
        running=1
    fi
    run_target "$(basename "$folder")" &
    running=$((running + 1))
done
while [ $running -gt 0 ]; do
    wait -n || failed=1
    running=$((running - 1))
done
exit $failed
