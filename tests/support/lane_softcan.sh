#!/bin/bash
# System tests on this machine, over a bus world of kt-softcan.
#
#   lane_softcan.sh [--bin DIR] [--junit FILE] [pytest arguments...]
#
# All system tests, or the files and tests that the arguments name.
# Exit status: pytest's, or 77 when the lane cannot run here.
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
bin=$repo/build/release/bin junit=
while [ $# -gt 0 ]; do
    case $1 in
        --bin) bin=$(realpath -- "$2"); shift 2 ;;
        --junit) junit=$2; shift 2 ;;
        *) break ;;
    esac
done

# Without a path among the arguments pytest gets the folder.
tests=tests/system
for argument; do
    [[ $argument != tests/* ]] || tests=
done

# The library that kt-softcan preloads goes into the interpreter as well, so it must be a plain
# build even where the programs under test carry a sanitizer.
softcan=$repo/build/release/bin/kt-softcan
[ -x "$softcan" ] || softcan=$bin/kt-softcan
if [ ! -x "$softcan" ]; then
    echo "lane softcan: kt-softcan is not built"
    exit 77
fi

case $bin in
    */asan/bin | */coverage/bin) factor=${KT_TIME_FACTOR:-3} ;;
    */tsan/bin) factor=${KT_TIME_FACTOR:-5} ;;
    *) factor=${KT_TIME_FACTOR:-1} ;;
esac

# Interfaces start down, as the kernel's do.
# shellcheck disable=SC2016 # expands inside the world
inside='
for port in can0 can1; do
    ip link set "$port" type can bitrate 125000 && ip link set up "$port" || exit 1
done
exec /usr/bin/python3 -m pytest "$@"
'

cd "$repo"
export KT_LANE=softcan KT_BIN=$bin KT_SOFTCAN_PROGRAM=$softcan KT_TIME_FACTOR=$factor
export PYTHONDONTWRITEBYTECODE=1
exec "$softcan" run --ports can0,can1 -- /bin/bash -c "$inside" - -c tests/system/pytest.ini \
    $tests ${junit:+--junitxml="$junit"} "$@"
