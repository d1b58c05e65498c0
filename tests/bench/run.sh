#!/bin/bash
# Run the benchmarks: each driver writes its group's results to build/bench.
#   run.sh BIN_DIR ARM_BIN_DIR          everything, and the page docs/performance.md with its plots
#   run.sh --check BIN_DIR ARM_BIN_DIR  what is counted, held against baseline.json
#   run.sh --store BIN_DIR ARM_BIN_DIR  the same, stored as the new baseline.json
# BIN_DIR has the programs of the release preset, ARM_BIN_DIR those of the armhf preset. A group that
# this machine cannot measure says why and is left out.
set -euo pipefail

how=page
case ${1:-} in
    --check | --store) how=${1#--}; shift ;;
esac
[ $# = 2 ] || { echo "usage: run.sh [--check | --store] BIN_DIR ARM_BIN_DIR" >&2; exit 2; }
bin=$(realpath -- "$1") arm=$(realpath -m -- "$2")
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(cd "$here/../.." && pwd)
out=$repo/build/bench/$how
export PYTHONDONTWRITEBYTECODE=1 PATH=/usr/bin:$PATH

counted=()
[ $how = page ] || counted=(--check)

rm -rf "$out"
mkdir -p "$out"
failed=0 results=()
measure() { # NAME COMMAND...
    local name=$1 status=0 file=$out/$1.jsonl
    shift
    echo "bench: $name"
    "$@" --bin "$bin" --arm-bin "$arm" --out "$file" "${counted[@]}" >"$out/$name.log" 2>&1 ||
        status=$?
    case $status in
        0) results+=("$file") ;;
        77) echo "bench: $name: $(tail -n 1 "$out/$name.log")" ;;
        *)
            tail -n 40 "$out/$name.log" >&2
            echo "bench: $name failed"
            failed=1
            ;;
    esac
}

if [ $how = page ]; then
    measure can "$here/arm_guest.sh" receive transmit recording idle latency cyclic
    measure loss-500 "$here/arm_guest.sh" --shift 1 loss
    measure loss-250 "$here/arm_guest.sh" --shift 2 loss
else
    # What an idle minute takes depends on what the kernel does in it.
    measure can "$here/arm_guest.sh" receive transmit recording
fi
for name in configuration rest footprint; do
    measure $name "$here/$name.py"
done
# What a watcher costs depends on when it looks, so it is no count that repeats.
[ $how != page ] || measure watch "$here/watch.py"
case $how in
    page) python3 "$here/report.py" "$repo/docs/performance.md" "$repo/docs/images" "${results[@]}" ;;
    *) python3 "$here/baseline.py" "$how" "$here/baseline.json" "${results[@]}" || failed=1 ;;
esac
exit $failed
