# shellcheck shell=bash
# The emulated 32-bit ARM machine of lane A and of the benchmarks: Debian's kernel and userland for
# armhf, downloaded to build/lane-a where they are not there yet. Read after emulated_machine.sh.

PATH=$PATH:/usr/sbin:/sbin
. "$repo/packaging/private_apt.sh"

# In the order of loading
modules="virtio_pci_legacy_dev virtio_pci_modern_dev virtio_pci virtio_blk netfs fscache 9pnet
    9pnet_virtio 9p crc16 mbcache jbd2 crc32c_generic ext4 overlay can can-raw can-dev vcan"
packages="busybox-static libc-bin bash coreutils dash util-linux mount sed grep findutils procps
    iproute2 can-utils python3 python3-pytest python3-requests python3-can sqlite3 curl libcurl4
    libjansson4 libmicrohttpd12 libmosquitto1 libprotobuf-c1 libsqlite3-0 libstdc++6"

download() {
    local apt=$work/apt image
    private_apt "$apt" armhf update || echo "going on with the package lists that there are"
    # shellcheck disable=SC2086 # a list of packages
    private_apt "$apt" armhf -y --download-only install $packages
    image=$(private_apt "$apt" armhf -y --print-uris install linux-image-armmp |
        sed -n 's/.* \(linux-image-[0-9][^_]*\)_.*/\1/p')
    cd "$work"
    private_apt "$apt" armhf download "$image"
}

# The packages' files without running anything of theirs; what is only read by people stays behind.
unpack_root() {
    local root=$1 archive folder
    for folder in bin sbin lib; do
        mkdir -p "$root/usr/$folder"
        ln -s "usr/$folder" "$root/$folder"
    done
    for archive in "$work"/apt/cache/archives/*.deb; do
        dpkg-deb --fsys-tarfile "$archive" | tar -x --keep-directory-symlink -C "$root" \
            --exclude='./usr/share/doc/*' --exclude='./usr/share/man/*' \
            --exclude='./usr/share/locale/*' --exclude='./usr/share/perl*' \
            --exclude='./usr/lib/*/perl*'
    done
    echo "root:x:0:0:root:/root:/bin/bash" >"$root/etc/passwd"
    echo "root:x:0:" >"$root/etc/group"
    echo "127.0.0.1 localhost" >"$root/etc/hosts"
    # Of use where this machine has the same Python, which reads them; else they are passed over.
    /usr/bin/python3 -m compileall -q -j 0 -s "$root" "$root"/usr/lib/python3* || true
}

make_image() {
    local root=$1 image=$2 size
    size=$(du -sk "$root" | cut -f 1)
    truncate -s $((size * 5 / 4 + 20480))K "$image"
    mkfs.ext4 -q -F -O ^has_journal -d "$root" "$image"
}

prepare() (
    set -e
    work=$cache/work
    rm -rf "$cache/complete" "$work"
    mkdir -p "$work/root"
    download
    # shellcheck disable=SC2086 # a list of modules
    unpack_kernel "$work"/linux-image-*.deb "$work/kernel" $modules
    unpack_root "$work/root"
    cp "$work/root/bin/busybox" "$work/kernel/"
    make_image "$work/root" "$cache/root.img"
    rm -rf "$cache/kernel"
    mv "$work/kernel" "$cache/kernel"
    rm -rf "$work"
    echo $packages $modules >"$cache/complete"
)

fetch_arm_machine() {
    need_program qemu-system-arm qemu-system-arm
    need_program mkfs.ext4 e2fsprogs
    need_program cpio cpio
    command -v dpkg-deb >/dev/null && command -v apt-get >/dev/null || unable "no Debian machine"

    keep_cache
    if [ "$(cat "$cache/complete" 2>/dev/null)" != "$(echo $packages $modules)" ]; then
        echo "lane A: fetching kernel and userland"
        prepare >"$cache/fetch.log" 2>&1 &
        wait $! || unable "no kernel or userland, see $cache/fetch.log"
    fi
    leave_cache
}

# run_arm_machine QEMU-ARGUMENTS...: boots and waits; ends the script with the tests' status
run_arm_machine() {
    local shares
    # shellcheck disable=SC2086 # a list of modules
    write_initramfs disk "$cache/kernel/busybox" "$cache/kernel" $modules
    shares=$(shared_folder repo "$repo" readonly=on)
    [[ $bin/ = $repo/* ]] || shares+=" $(shared_folder bin "$bin" readonly=on)"
    # shellcheck disable=SC2086 # several arguments
    run_machine "$cache/kernel/vmlinuz" ttyAMA0 qemu-system-arm -M virt,highmem=off \
        -cpu cortex-a15 -accel tcg -m 768 $shares "$@" -device virtio-blk-pci,drive=root \
        -drive "if=none,id=root,format=raw,readonly=on,file=$cache/root.img"
}

# Commands for the machine: its CAN ports
arm_ports() {
    cat <<'END'
for port in can0 can1; do
    ip link add dev $port type vcan && ip link set up $port || give_up "vcan $port cannot be made"
done
END
}
