#!/bin/bash
# Full buses on 32-bit ARM gateways of 500 and of 250 million instructions a second; see
# arm_guest.sh for the arguments.
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
out=loss.jsonl arguments=()
while [ $# -gt 0 ]; do
    case $1 in
        --out) out=$2; shift 2 ;;
        *) arguments+=("$1"); shift ;;
    esac
done
for shift in 1 2; do
    "$here/arm_guest.sh" "${arguments[@]}" --out "$out.$shift" --shift $shift loss
done
cat "$out.1" "$out.2" >"$out"
rm "$out.1" "$out.2"
