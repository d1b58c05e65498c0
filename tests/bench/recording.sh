#!/bin/bash
# What a frame costs while the traffic is recorded, on 32-bit ARM; for the arguments see arm_guest.sh.
exec "$(dirname "${BASH_SOURCE[0]}")/arm_guest.sh" "$@" recording
