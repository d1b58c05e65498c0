#!/bin/bash
# lifecycle.sh in a chroot with processes, network and mounts of its own; nothing of it stays.
#
#   chroot_machine.sh ROOT PACKAGES FACTS       ROOT: a copy of the base system, changed
set -euo pipefail
if [ "${1:-}" != inside ]; then
    exec unshare --mount --net --pid --fork "$0" inside "$@"
fi
root=$2
mount --bind "$root" "$root"
mount -t proc proc "$root/proc"
mount -t tmpfs tmpfs "$root/run"
mount --rbind /dev "$root/dev"
mkdir -p "$root/packages" "$root/facts"
mount --bind "$3" "$root/packages"
mount --bind "$4" "$root/facts"
ip link set lo up
chroot "$root" /packages/lifecycle.sh setpriv /packages /facts
