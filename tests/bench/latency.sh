#!/bin/bash
# From a bus to another process and back, on 32-bit ARM; see arm_guest.sh for the arguments.
exec "$(dirname "${BASH_SOURCE[0]}")/arm_guest.sh" "$@" latency
