#!/bin/bash
# System tests on CAN controllers: an emulated PC with four SJA1000 cards on two buses. The gateway
# has can0 and can1, the other nodes can2 and can3 at the far ends. The service runs with its real
# absolute paths; the machine's own files are below an overlay and stay as they are.
#
#   lane_c.sh [--bin DIR] [--junit FILE] [--timeout SECONDS] [pytest arguments...]
#
# The tests of ON_CONTROLLERS in tests/system/conftest.py, or those of them that the arguments name.
# The kernel is Debian's, downloaded to build/lane-c where it is not there yet.
# Exit status: pytest's, or 77 when the lane cannot run here.
set -euo pipefail
lane=C
. "$(dirname "${BASH_SOURCE[0]}")/emulated_machine.sh"
. "$repo/packaging/private_apt.sh"

# In the order of loading
modules="virtio_ring virtio virtio_pci_legacy_dev virtio_pci_modern_dev virtio_pci netfs fscache
    9pnet 9pnet_virtio 9p overlay can can-raw can-dev sja1000 kvaser_pci"

parse_arguments "$@"
[ "$(dpkg --print-architecture 2>/dev/null)" = amd64 ] || unable "no Debian machine of amd64"
need_program qemu-system-x86_64 qemu-system-x86
need_program cpio cpio
busybox=$(command -v busybox) && ! ldd "$busybox" >/dev/null 2>&1 ||
    unable "no busybox that stands alone (package busybox-static)"

# NAME_VERSION of the image that this machine's apt knows as the newest
newest_image() {
    apt-cache show --no-all-versions linux-image-amd64 2>/dev/null |
        sed -n 's/^Depends: \(linux-image-[^ ]*\) (= \([^)]*\)).*/\1_\2/p' | head -n 1
}

# By the package lists of the machine, which may be too old or missing, or by fetched ones
download_image() {
    local lists=/var/lib/apt/lists image
    cd "$work"
    for lists in /var/lib/apt/lists "$work/apt/lists"; do
        [ "$lists" = /var/lib/apt/lists ] ||
            private_apt "$work/apt" amd64 -o Dir::State::lists="$lists" update || true
        image=$(private_apt "$work/apt" amd64 -o Dir::State::lists="$lists" -y --print-uris \
            install linux-image-amd64 | sed -n 's/.* \(linux-image-[0-9][^_]*\)_.*/\1/p')
        ! private_apt "$work/apt" amd64 -o Dir::State::lists="$lists" download "$image" || return 0
    done
    return 1
}

fetch_kernel() {
    local work=$cache/work image
    rm -rf "$work"
    mkdir -p "$work/apt/lists/partial"
    echo "lane C: fetching the kernel"
    if (download_image) >"$cache/fetch.log" 2>&1; then
        image=$(basename "$(echo "$work"/linux-image-*.deb)" _amd64.deb)
        rm -rf "${cache:?}"/linux-image-*
        # shellcheck disable=SC2086 # a list of modules
        unpack_kernel "$work"/linux-image-*.deb "$work/kernel" $modules
        mv "$work/kernel" "$cache/$image"
    fi
    rm -rf "$work"
}

keep_cache
[ -e "$cache/$(newest_image)/vmlinuz" ] || fetch_kernel
kernel=$(echo "$cache"/linux-image-*)
[ -e "$kernel/vmlinuz" ] || unable "no kernel, see $cache/fetch.log"
leave_cache

begin_run
write_tests controllers 4 <<'END'
for port in can2 can3; do
    ip link set $port type can bitrate 125000 && ip link set up $port ||
        give_up "the controllers do not come up"
done
END
# shellcheck disable=SC2086 # a list of modules
write_initramfs host "$busybox" "$kernel" $modules
cards=()
for bus in bus0 bus1 bus0 bus1; do
    cards+=(-device "kvaser_pci,canbus=$bus")
done
# shellcheck disable=SC2046 # several arguments
run_machine "$kernel/vmlinuz" ttyS0 qemu-system-x86_64 -accel tcg -cpu max -m 768 \
    -object can-bus,id=bus0 -object can-bus,id=bus1 "${cards[@]}" \
    $(shared_folder root / readonly=on)
