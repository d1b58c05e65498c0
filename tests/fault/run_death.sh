#!/bin/bash
# Run the sweeps of sudden death and of damaged databases. The exit status is 0 only when none of
# them found anything; one that cannot run here says so and is left out.
#   run_death.sh BIN_DIR [--all]
set -euo pipefail

[ $# -ge 1 ] || { echo "usage: run_death.sh BIN_DIR [--all]" >&2; exit 2; }
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
bin=$(cd "$1" && pwd)
all=${2:-}
export PYTHONDONTWRITEBYTECODE=1

failed=0
sweep() {
    local status=0
    "$@" ${all:+"$all"} || status=$?
    [ $status = 0 ] || [ $status = 77 ] || failed=1
}

sweep "$bin/kill_sweep" --count 1000
sweep "$here/kill_service.py" "$bin" --count 40
sweep "$here/power_loss.py" "$bin"
sweep "$bin/damage_sweep" --count 300
sweep "$here/damage_service.py" "$bin"
exit $failed
