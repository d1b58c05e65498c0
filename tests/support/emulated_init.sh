#!/bin/busybox sh
# shellcheck shell=sh
# Process 1 of an emulated machine, run by busybox from its initramfs; emulated_machine.sh wrote
# /settings beside it. Loads the modules, mounts the root and runs the tests there.
export PATH=/bin
/bin/busybox --install -s /bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
stty -onlcr </dev/console
. /settings
. /guest_root.sh

share() { # TAG FOLDER CACHE OPTION
    mkdir -p "$2"
    mount -t 9p -o "trans=virtio,version=9p2000.L,msize=512000,cache=$3,$4" "$1" "$2"
}

end() {
    [ $# = 0 ] || echo "$*" >/share/unable
    sync
    poweroff -f
}

for module in $modules; do
    insmod "/modules/$module.ko" || echo "kernel module $module cannot be loaded"
done
share run /share none rw || end
echo 1 >/share/started
case $root in
    host) share root /lower loose ro ;;
    disk) mkdir /lower && mount -t ext4 -o ro /dev/vda /lower ;;
esac || end "the root cannot be mounted"
mkdir /memory
mount -t tmpfs tmpfs /memory
make_guest_root /lower /memory /new || end "no overlay file system"

# On the machine's own root they may lie below a folder that has just been emptied.
for name in repo bin; do
    eval "folder=\$$name"
    mkdir -p "/new$folder"
    if [ $root = host ]; then
        mount -o bind "/lower$folder" "/new$folder"
    elif [ -z "$(ls "/new$folder")" ]; then
        share $name "/new$folder" loose ro
    fi || end "$folder cannot be mounted"
done
mkdir -p "/new$run"
mount -o bind /share "/new$run"

chroot /new /bin/bash "$run/tests"
echo $? >/share/status
end
