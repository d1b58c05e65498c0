#!/bin/bash
# How often the threads wake up while nothing is due, on 32-bit ARM; for the arguments see
# arm_guest.sh.
exec "$(dirname "${BASH_SOURCE[0]}")/arm_guest.sh" "$@" idle
