#!/bin/bash
# lifecycle.sh on a machine of its own: user-mode Linux with two vcan interfaces, under systemd. The
# base system is below an overlay and stays as it is.
#
#   systemd_machine.sh BASE PACKAGES FACTS [TIMEOUT-SECONDS]
#
# Exit status 77 when there is no user-mode Linux.
set -euo pipefail
base=$1 packages=$2 facts=$3 timeout=${4:-600}
kernel=$(command -v linux.uml) || exit 77
compgen -G "/usr/lib/uml/modules/*/kernel/drivers/net/can/vcan.ko" >/dev/null || exit 77

run=$(mktemp -d "$PWD/build/package-test/machine.XXXXXX")
cleanup() {
    # As the shell counts them: a signal may come before the line after the start.
    # shellcheck disable=SC2046 # a word for each
    kill -TERM $(jobs -rp) 2>/dev/null || true
    rm -rf "$run"
}
trap cleanup EXIT

cat >"$run/lifecycle.service" <<END
[Unit]
After=basic.target
SuccessAction=poweroff-force
FailureAction=poweroff-force

[Service]
Type=oneshot
Environment=KT_PATIENCE=${KT_PATIENCE:-120}
ExecStart=/packages/lifecycle.sh systemd /packages /facts
END

{
    echo "#!/bin/bash"
    printf 'base=%q packages=%q facts=%q run=%q\n' "$base" "$packages" "$facts" "$run"
    cat <<'END'
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
mount -t proc proc /proc
mount -t tmpfs tmpfs /run
modules=/usr/lib/uml/modules/$(uname -r)/kernel
for module in net/can/can net/can/can-raw drivers/net/can/dev/can-dev drivers/net/can/vcan \
    fs/overlayfs/overlay; do
    insmod "$modules/$module.ko" || poweroff -f
done
root=/run/root
mkdir -p $root /run/upper /run/work
mount -t overlay overlay -o lowerdir="$base",upperdir=/run/upper,workdir=/run/work $root ||
    poweroff -f
mkdir -p $root/packages $root/facts
mount --bind "$packages" $root/packages
mount --bind "$facts" $root/facts
ip link set lo up
ip link add dev can0 type vcan
ip link add dev can1 type vcan

units=$root/etc/systemd/system
cp "$run/lifecycle.service" $units
ln -s ../lifecycle.service $units/multi-user.target.wants/
# No hardware, no terminal, no network
for unit in getty.target systemd-udevd.service systemd-udev-trigger.service systemd-logind.service \
    systemd-timesyncd.service systemd-networkd.service; do
    ln -sf /dev/null $units/$unit
done
echo package-test >$root/etc/hostname
umount -l /proc
cd $root || poweroff -f
mount --move . /
exec chroot . /lib/systemd/systemd
END
} >"$run/init"
chmod +x "$run/init"

# The guest's memory is a file in TMPDIR or /dev/shm; a container's /dev/shm is often too small.
avail=$(df --output=avail -k /dev/shm 2>/dev/null | tail -n 1) || avail=0
[ "${avail:-0}" -gt 700000 ] || export TMPDIR=$run

timeout -k 5 "$timeout" "$kernel" mem=512M rootfstype=hostfs rw init="$run/init" con=null \
    con0=fd:0,fd:1 quiet loglevel=1 uml_dir="$run/" umid=package-test </dev/null \
    >"$facts/console" 2>&1 &
wait $! || true
[ -e "$facts/complete" ]
