#!/bin/bash
# The service on live CAN traffic until Ctrl-C.
#
#   run-live.sh BIN [--bare]
#
# Uses the machine's CAN interfaces, or the two of a bus world of its own where there are none.
# Files go below KT_ROOT, by default a scratch folder that is removed at the end. Without --bare: a
# demonstration configuration, loaded through the REST API into a service that has no devices, the
# demonstration devices that the configuration knows, and the live view.
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

started=()

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

# Wait for a background process: a signal is acted upon at once, and no redirection holds then.
attend() {
    local status=0
    started+=("$1")
    wait "$1" || status=$?
    unset 'started[-1]'
    return "$status"
}

set_tag() {
    local i
    for ((i = 0; i < 200; i++)); do
        ! "$bin/kt-tag" set "$1" "$2" 2>/dev/null || return 0
        sleep 0.05
    done
    say "no tag $1 to set"
}

# A demonstration device on one port, for the nodes that the configuration has there.
play() {
    local port=$1 number=$2 options
    /usr/bin/python3 "$here/demonstration.py" nodes "$number" >"$KT_ROOT/nodes$number" &
    attend $!
    read -ra options <"$KT_ROOT/nodes$number" || true
    [ ${#options[@]} -gt 0 ] || return 0
    "$bin/kt-demo-device" --port "$port" "${options[@]}" >"$KT_ROOT/device$number.log" &
    started+=($!)
    case " ${options[*]} " in
        *" drive "*)
            set_tag can_proprietary/drive/control_command 1
            set_tag can_proprietary/drive/control_target 1500
            ;;
    esac
}

mkdir -p "$KT_ROOT/etc/default/config/kt-can-proprietary"
cp "$source_root/schema/can_proprietary.sql" "$KT_ROOT/etc/default/config/kt-can-proprietary/"

if [ -n "$bare" ]; then
    say "the service alone, files below $KT_ROOT"
    "$bin/kt-can-proprietary" &
    started+=($!)
    wait "${started[0]}"
    exit
fi

# Nobody chose an address: the default one, unless another program has it.
if [ -z "${KT_REST_LISTEN:-}" ] && (: <>/dev/tcp/127.0.0.1/8080) 2>/dev/null; then
    export KT_REST_LISTEN=127.0.0.1:0
fi

# An address left behind by a service that was killed would be asked in vain.
address=$KT_ROOT/run/kt-rest/CAN-proprietary.address
rm -f "$address"
"$bin/kt-can-proprietary" 2>>"$log" &
service=$!
started+=("$service")
/usr/bin/python3 "$here/demonstration.py" load --service "$service" &
if ! attend $!; then
    say "the service said:"
    cat "$log" >&2
    exit 1
fi
say "REST API: http${KT_REST_TLS_CERT:+s}://$(cat "$address")/CAN-proprietary"

IFS=, read -ra port_names <<<"$KT_LIVE_PORTS"
play "${port_names[0]}" 1
[ ${#port_names[@]} -lt 2 ] || play "${port_names[1]}" 2

/usr/bin/python3 "$here/live_view.py" --ports "$KT_LIVE_PORTS" --kt-tag "$bin/kt-tag" \
    --hint "Set: KT_ROOT=$KT_ROOT ${bin#"$PWD"/}/kt-tag set NAME VALUE" &
view=$!
started+=("$view")
wait "$view"
