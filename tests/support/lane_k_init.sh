# shellcheck shell=bash
# Process 1 of lane K, read by the init script that lane_k.sh writes (repo, bin, run, pytest are
# its variables). Builds a root whose changes stay in memory, brings two vcan ports up, runs pytest.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 HOME=/root PYTHONDONTWRITEBYTECODE=1
echo 1 >"$run/started"

give_up() {
    echo "$*" >"$run/unable"
    sync
    poweroff -f
}

mount -t proc proc /proc
mount -t tmpfs tmpfs /run
modules=/usr/lib/uml/modules/$(uname -r)/kernel
for module in net/can/can net/can/can-raw drivers/net/can/dev/can-dev drivers/net/can/vcan \
    fs/overlayfs/overlay; do
    insmod "$modules/$module.ko" || give_up "kernel module $module cannot be loaded"
done

new=/run/root
. "$repo/tests/support/guest_root.sh"
make_guest_root / /run $new || give_up "no overlay file system"
for folder in "$repo" "$bin" "$run"; do
    mkdir -p "$new$folder"
    mount --bind "$folder" "$new$folder"
done

ip link set lo up
for port in can0 can1; do
    ip link add dev $port type vcan && ip link set up $port || give_up "vcan $port cannot be made"
done

chroot $new /bin/bash -c 'cd "$1" && shift && exec /usr/bin/python3 -m pytest "$@"' - \
    "$repo" "${pytest[@]}"
echo $? >"$run/status"
sync
poweroff -f
