#!/bin/bash
# The service on live CAN traffic until Ctrl-C.
#
#   run-live.sh BIN [--bare]
#
# Uses the machine's CAN interfaces, or the two of a bus world of its own where there are none.
# Files go below KT_ROOT, by default a scratch folder that is removed at the end. Without --bare: a
# demonstration configuration, a demonstration device on every port, and the live view.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source_root=$(cd "$here/../.." && pwd)
bin=$1
shift
bare=
[ "${1:-}" != --bare ] || bare=1

say() { echo "run: $*"; }

kernel_ports() {
    local name ports=()
    if [ -n "${KT_CAN_PORTS:-}" ]; then
        for name in ${KT_CAN_PORTS//,/ }; do
            [ -e "/sys/class/net/$name" ] || return 0
            ports+=("$name")
        done
    else
        for name in $(cd /sys/class/net && ls -dv -- *); do
            [ "$(cat "/sys/class/net/$name/type" 2>/dev/null)" != 280 ] || ports+=("$name")
        done
    fi
    (IFS=,; echo "${ports[*]-}")
}

if [ -z "${KT_LIVE_PORTS:-}" ]; then
    found=$(kernel_ports)
    if [ -z "$found" ]; then
        say "no CAN interfaces here, using the virtual ports can0 and can1"
        say "to enter their bus from another terminal: $bin/kt-softcan join -- candump can0"
        export KT_LIVE_PORTS=can0,can1
        exec "$bin/kt-softcan" run --ports can0,can1 -- "${BASH_SOURCE[0]}" "$bin" ${bare:+--bare}
    fi
    export KT_LIVE_PORTS=$found
    say "using the CAN interfaces $found"
fi
export KT_CAN_PORTS=$KT_LIVE_PORTS

scratch=
if [ -z "${KT_ROOT:-}" ]; then
    scratch=$(mktemp -d "${TMPDIR:-/tmp}/kt-live.XXXXXX")
    export KT_ROOT=$scratch
fi
log=$KT_ROOT/service.log
persistent=$KT_ROOT/data/config/kt-can-proprietary/can_proprietary.db
working=$KT_ROOT/run/config/kt-can-proprietary/can_proprietary.db

started=()
service=

# Ask each process to stop, and insist after five seconds.
stop_all() {
    local pid i
    for pid in "$@"; do
        kill -TERM "$pid" 2>/dev/null || true
    done
    for pid in "$@"; do
        for ((i = 0; i < 100; i++)); do
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.05
        done
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
}

cleanup() {
    trap '' INT TERM HUP
    stop_all "${started[@]}"
    [ -z "$scratch" ] || rm -rf "$scratch"
    say "everything is stopped"
}
trap cleanup EXIT
trap 'exit 0' INT
trap 'exit 143' TERM HUP

start_service() {
    "$bin/kt-can-proprietary" 2>>"$log" &
    service=$!
    started+=("$service")
}

wait_for() {
    local i
    for ((i = 0; i < 200; i++)); do
        ! "$@" >/dev/null 2>&1 || return 0
        kill -0 "$service" 2>/dev/null || break
        sleep 0.05
    done
    say "the service did not come up:"
    cat "$log" >&2
    exit 1
}

stop_service() {
    stop_all "$service"
    service=
}

has_ports() { [ "$(sqlite3 "$working" 'SELECT COUNT(*) FROM interface_setting')" -gt 0 ]; }
has_tag() { "$bin/kt-tag" get "$1"; }

mkdir -p "$KT_ROOT/etc/default/config/kt-can-proprietary"
cp "$source_root/schema/can_proprietary.sql" "$KT_ROOT/etc/default/config/kt-can-proprietary/"

if [ -n "$bare" ]; then
    say "the service alone, files below $KT_ROOT"
    "$bin/kt-can-proprietary" &
    started+=($!)
    wait "${started[0]}"
    exit
fi

# The first start makes the databases; a persistent one that has devices is somebody's own.
if [ ! -e "$persistent" ]; then
    start_service
    wait_for has_ports
    stop_service
    sqlite3 -bail "$persistent" <"$source_root/tools/kt-demo-device/demo.sql"
    rm -f "$working"
fi
start_service
wait_for has_tag can_proprietary/drive/control_command

IFS=, read -ra port_names <<<"$KT_LIVE_PORTS"
"$bin/kt-demo-device" --port "${port_names[0]}" --node drive --node sensor >"$KT_ROOT/device1.log" &
started+=($!)
if [ ${#port_names[@]} -gt 1 ]; then
    "$bin/kt-demo-device" --port "${port_names[1]}" --node legacy >"$KT_ROOT/device2.log" &
    started+=($!)
fi
"$bin/kt-tag" set can_proprietary/drive/control_command 1
"$bin/kt-tag" set can_proprietary/drive/control_target 1500

/usr/bin/python3 "$here/live_view.py" --ports "$KT_LIVE_PORTS" --kt-tag "$bin/kt-tag" \
    --hint "Set: KT_ROOT=$KT_ROOT ${bin#"$PWD"/}/kt-tag set NAME VALUE" &
view=$!
started+=("$view")
wait "$view"
