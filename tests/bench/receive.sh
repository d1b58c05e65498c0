#!/bin/bash
# What a received frame costs, on 32-bit ARM; see arm_guest.sh for the arguments.
exec "$(dirname "${BASH_SOURCE[0]}")/arm_guest.sh" "$@" receive
