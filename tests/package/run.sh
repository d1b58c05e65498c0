#!/bin/bash
# Tests of the Debian packages: built, looked at, installed, upgraded and purged in a chroot and on
# a machine of its own under systemd.
#
#   run.sh [--junit FILE] [pytest arguments...]
#
# Exit status: pytest's, or 77 when the tests cannot run here.
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
junit=
while [ $# -gt 0 ]; do
    case $1 in
        --junit) junit=$2; shift 2 ;;
        *) break ;;
    esac
done

unable() {
    echo "lane package: cannot run here: $*"
    exit 77
}

[ "$(id -u)" = 0 ] || unable "a chroot needs root"
[ "$(dpkg --print-architecture 2>/dev/null)" = amd64 ] || unable "no Debian machine of amd64"
for pair in debootstrap:debootstrap lintian:lintian dh:debhelper \
    arm-linux-gnueabihf-g++:g++-arm-linux-gnueabihf; do
    command -v "${pair%%:*}" >/dev/null || unable "the package ${pair#*:} is missing"
done
unshare --mount --net --pid --fork true 2>/dev/null || unable "namespaces are not allowed"

cd "$repo"
mkdir -p build/package-test
# Most of its time is waiting for the network, so it goes beside the build.
tests/package/base_system.sh build/package-test/base >build/package-test/base.log 2>&1 &
base=$!
status=0
packaging/package.sh amd64 armhf || status=$?
wait $base || unable "the chroot cannot be made, see build/package-test/base.log"
[ $status = 0 ] || exit 1

export LC_ALL=C.UTF-8 PYTHONDONTWRITEBYTECODE=1
exec /usr/bin/python3 -m pytest -c tests/package/pytest.ini tests/package \
    ${junit:+--junitxml="$junit"} "$@"
