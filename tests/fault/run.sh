#!/bin/bash
# Run every fault sweep. The exit status is 0 only when none of them found anything.
#   run.sh BIN_DIR [--all]
# --all leaves no place out; the default takes about a minute of one core.
set -euo pipefail

[ $# -ge 1 ] || { echo "usage: run.sh BIN_DIR [--all]" >&2; exit 2; }
bin=$(cd "$1" && pwd)
all=${2:-}

# One command a line, seen from BIN_DIR
sweeps=(
)

failed=0
for sweep in "${sweeps[@]}"; do
    read -ra command <<<"$sweep"
    "$bin/${command[0]}" "${command[@]:1}" ${all:+"$all"} || failed=1
done
exit $failed
