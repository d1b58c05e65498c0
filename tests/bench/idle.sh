#!/bin/bash
# How often the threads wake up while nothing is due, on 32-bit ARM; see arm_guest.sh for the arguments.
exec "$(dirname "${BASH_SOURCE[0]}")/arm_guest.sh" "$@" idle
