#!/bin/bash
# System tests on 32-bit ARM: an emulated machine with Debian's kernel and userland for armhf and two
# vcan interfaces. The service runs with its real absolute paths.
#
#   lane_a.sh [--all] [--bin DIR] [--junit FILE] [--timeout SECONDS] [pytest arguments...]
#
# The tests of ON_ARM in tests/system/conftest.py, with --all those that lane K takes; or what the
# arguments name. Kernel and userland are downloaded to build/lane-a where they are not there yet.
# DIR has the programs of the armhf preset (build/armhf/bin).
# Exit status: pytest's, or 77 when the lane cannot run here.
set -euo pipefail
lane=A
. "$(dirname "${BASH_SOURCE[0]}")/emulated_machine.sh"
. "$repo/tests/support/arm_machine.sh"

all=
[ "${1:-}" != --all ] || { all=1; shift; }
parse_arguments --bin "$repo/build/armhf/bin" "$@"
# What is named runs, whether it is among the chosen ones or not.
[ -n "$all" ] || [ -z "$tests" ] || export KT_CHOSEN_TESTS=1
[ -x "$bin/kt-can-proprietary" ] || unable "the armhf preset is not built"
fetch_arm_machine

begin_run
write_tests arm 6 < <(arm_ports)
# shellcheck disable=SC2086 # several arguments
run_arm_machine -smp "${KT_LANE_A_CPUS:-1}" ${KT_LANE_A_ICOUNT:+-icount "$KT_LANE_A_ICOUNT"}
