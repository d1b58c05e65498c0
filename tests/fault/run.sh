#!/bin/bash
# Run every fault sweep. The exit status is 0 only when none of them found anything; one that cannot
# run here says so and is left out.
#   run.sh BIN_DIR [--all]
# --all leaves no place out; the default takes some minutes of one core.
# KT_FAULT_JOBS is the number of attempts at a time, 2 by default.
set -euo pipefail

[ $# -ge 1 ] || { echo "usage: run.sh BIN_DIR [--all]" >&2; exit 2; }
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
bin=$(cd "$1" && pwd)
all=${2:-}
jobs=${KT_FAULT_JOBS:-2}
export PYTHONDONTWRITEBYTECODE=1

failed=0
sweep() {
    local status=0
    "$@" ${all:+"$all"} || status=$?
    [ $status = 0 ] || [ $status = 77 ] || failed=1
}

# One CAN port for each attempt at a time
ports=$(seq -s, -f 'can%g' 0 $((jobs - 1)))
sweep "$bin/kt-softcan" run --ports "$ports" -- "$bin/fault_sweep" --jobs "$jobs"
sweep "$bin/kill_sweep" --count 1000
sweep "$here/kill_service.py" "$bin" --count 40
sweep "$here/power_loss.py" "$bin"
sweep "$bin/damage_sweep" --count 300
sweep "$here/damage_service.py" "$bin"
exit $failed
