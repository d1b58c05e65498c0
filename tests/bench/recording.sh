#!/bin/bash
# What a received frame costs while the traffic of its port is recorded, on 32-bit ARM; see arm_guest.sh for the arguments.
exec "$(dirname "${BASH_SOURCE[0]}")/arm_guest.sh" "$@" recording
