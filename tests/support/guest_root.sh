# shellcheck shell=sh
# A guest's root: what lies below is left as it is, every change stays in memory, and the folders
# that the service writes start empty. Read by the init scripts of the lanes.
#
#   make_guest_root LOWER MEMORY NEW
#
# LOWER is a mounted root, MEMORY a folder on a tmpfs; the root is mounted at NEW.
make_guest_root() {
    mkdir -p "$2/upper" "$2/work" "$3"
    mount -t overlay overlay -o "lowerdir=$1,upperdir=$2/upper,workdir=$2/work" "$3" || return 1
    mkdir -p "$3/data" "$3/etc/default/config"
    mount -t proc proc "$3/proc"
    mount -t sysfs sysfs "$3/sys"
    mount -t devtmpfs devtmpfs "$3/dev"
    mkdir -p "$3/dev/shm" "$3/dev/pts"
    ln -sfn /proc/self/fd "$3/dev/fd"
    mount -t devpts devpts "$3/dev/pts"
    for folder in run data tmp dev/shm; do
        mount -t tmpfs tmpfs "$3/$folder"
    done
    chmod 1777 "$3/tmp" "$3/dev/shm"
}
