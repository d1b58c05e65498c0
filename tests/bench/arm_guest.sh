#!/bin/bash
# Benchmarks on 32-bit ARM in one start of an emulated machine that counts instructions: one
# nanosecond of its clock is one instruction, of the kernel's or of a program's, so every figure is a
# count and repeats. Idle time is skipped.
#
#   arm_guest.sh [--arm-bin DIR] [--bin DIR] [--out FILE] [--check] [--shift N] [--seconds N]
#                [--timeout SECONDS] GROUP...
#
# A group is a module of tests/bench/guest. --shift N: 2^N nanoseconds an instruction, so that 1 is
# a gateway of 500 million instructions a second and 2 one of 250 million. --seconds N: each
# case of the group cyclic goes on for so long on the machine's clock. --timeout: on this machine's.
# Exit status: 77 when this machine cannot run it.
set -euo pipefail
lane=A
. "$(dirname "${BASH_SOURCE[0]}")/../support/emulated_machine.sh"
. "$repo/tests/support/arm_machine.sh"

bin=$repo/build/armhf/bin out= check= shift=0 seconds=0 timeout=3600 groups=()
while [ $# -gt 0 ]; do
    case $1 in
        --arm-bin) bin=$(realpath -- "$2"); shift 2 ;;
        --bin) shift 2 ;;
        --out) out=$(realpath -m -- "$2"); shift 2 ;;
        --check) check=--check; shift ;;
        --shift) shift=$2; shift 2 ;;
        --seconds) seconds=$2; shift 2 ;;
        --timeout) timeout=$2; shift 2 ;;
        -*) echo "arm_guest.sh: unknown option $1" >&2; exit 2 ;;
        *) groups+=("$1"); shift ;;
    esac
done

keep_results() {
    [ -e "$run/results.jsonl" ] || return 0
    if [ -z "$out" ]; then
        cat "$run/results.jsonl"
    else
        mkdir -p "$(dirname "$out")"
        cp "$run/results.jsonl" "$out"
    fi
}

for program in kt-can-proprietary can-floor can-load; do
    [ -x "$bin/$program" ] || unable "no $bin/$program: the armhf preset is not built"
done
fetch_arm_machine
begin_run
{
    arm_ports
    printf 'cd %q && exec /usr/bin/python3 -S tests/bench/guest/run.py ' "$repo"
    printf '%q ' --out "$run/results.jsonl" $check --shift "$shift" --seconds "$seconds" \
        "${groups[@]}"
    echo
} | write_script arm 1
run_arm_machine -icount "shift=$shift,sleep=off"
