#!/bin/bash
# System tests on a real SocketCAN kernel: user-mode Linux with two vcan interfaces. The service
# runs with its real absolute paths; the machine's own files are below an overlay and stay as they
# are.
#
#   lane_k.sh [--bin DIR] [--junit FILE] [--timeout SECONDS] [pytest arguments...]
#
# All system tests, or the files and tests that the arguments name.
# Exit status: pytest's, or 77 when the lane cannot run here.
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
bin=$repo/build/release/bin junit= timeout=3600
while [ $# -gt 0 ]; do
    case $1 in
        --bin) bin=$(realpath -- "$2"); shift 2 ;;
        --junit) junit=$2; shift 2 ;;
        --timeout) timeout=$2; shift 2 ;;
        *) break ;;
    esac
done

# Without a path among the arguments pytest gets the folder.
tests=tests/system
for argument; do
    [[ $argument != tests/* ]] || tests=
done

unable() {
    echo "lane K: cannot run here: $*"
    exit 77
}

kernel=$(command -v linux.uml) || unable "no user-mode Linux (package user-mode-linux)"
compgen -G "/usr/lib/uml/modules/*/kernel/drivers/net/can/vcan.ko" >/dev/null ||
    unable "user-mode Linux has no CAN modules"

mkdir -p "$repo/build"
run=$(mktemp -d "$repo/build/lane-k.XXXXXX")
cleanup() {
    # As the shell counts them: a signal may come before the line after a start.
    # shellcheck disable=SC2046 # a word for each
    kill -TERM $(jobs -rp) 2>/dev/null || true
    rm -rf "$run"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

color=no
[ ! -t 1 ] || color=yes

# An init script of its own carries the settings: the kernel gives init no environment.
{
    echo "#!/bin/bash"
    printf 'repo=%q bin=%q run=%q\n' "$repo" "$bin" "$run"
    printf 'pytest=('
    printf '%q ' --color=$color -c tests/system/pytest.ini $tests ${junit:+--junitxml="$junit"} "$@"
    printf ')\n'
    printf 'export KT_LANE=kernel KT_BIN=%q KT_TIME_FACTOR=%q\n' "$bin" "${KT_TIME_FACTOR:-4}"
    for name in KT_ALL_TESTS KT_MODEL_SEED KT_MODEL_SECONDS KT_LOAD_SECONDS KT_BUS_SECONDS KT_CLASH_SECONDS \
        KT_CLOCK_WRAP KT_SOAK_SECONDS KT_SOAK_RATE; do
        [ -z "${!name:-}" ] || printf 'export %s=%q\n' "$name" "${!name}"
    done
    echo ". $(printf %q "$repo/tests/support/lane_k_init.sh")"
} >"$run/init"
chmod +x "$run/init"

# The guest's memory is a file in TMPDIR or /dev/shm; a container's /dev/shm is often too small.
avail=$(df --output=avail -k /dev/shm 2>/dev/null | tail -n 1) || avail=0
[ "${avail:-0}" -gt 700000 ] || export TMPDIR=$run

# Its own process group, so that the guest's processes end with it.
timeout -k 5 "$timeout" "$kernel" mem=512M rootfstype=hostfs rw init="$run/init" con=null \
    con0=fd:0,fd:1 quiet loglevel=1 uml_dir="$run/" umid=lane-k </dev/null &
uml=$!

for ((i = 0; i < 3000; i++)); do
    [ ! -e "$run/started" ] && kill -0 "$uml" 2>/dev/null || break
    sleep 0.1
done
[ -e "$run/started" ] || unable "user-mode Linux does not boot"

wait "$uml" || true
[ ! -e "$run/unable" ] || unable "$(cat "$run/unable")"
if [ ! -e "$run/status" ]; then
    echo "lane K: ended without a result (limit $timeout s)"
    exit 1
fi
exit "$(cat "$run/status")"
