#!/bin/bash
# The service on live CAN traffic until Ctrl-C.
#
#   run-live.sh BIN [--bare | --mqtt]
#
# Uses the machine's CAN interfaces, or the two of a bus world of its own where there are none.
# Files go below KT_ROOT, by default a scratch folder that is removed at the end. Without --bare: a
# demonstration configuration, loaded through the REST API into a service that has no devices, the
# demonstration devices that the configuration knows, and the live view; with --mqtt a broker of its
# own on loopback, too, and the bridge to it.
#
# Exit status: 0 after Ctrl-C, 128 + number after another signal or when the terminal (129) or the
# reader of a pipe (141) has gone, 1 when something that it started has ended by itself.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source_root=$(cd "$here/../.." && pwd)
bin=$1
shift
bare='' mqtt=''
case ${1:-} in
    --bare) bare=$1; shift ;;
    --mqtt) mqtt=$1; shift ;;
esac
[ $# = 0 ] || { echo "run: unknown argument $1" >&2; exit 2; }

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
        worlds=${KT_SOFTCAN_DIR:-/tmp/kt-softcan-$(id -u)}
        [ -e "$worlds" ] || export KT_LIVE_WORLDS="$worlds"
        exec "$bin/kt-softcan" run --ports can0,can1 -- "${BASH_SOURCE[0]}" "$bin" $bare $mqtt
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

terminal='' ended='' ended_status=0 ended_log=''

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
    trap '' HUP INT QUIT TERM PIPE
    # As the shell counts them: a signal may come before the line after a start.
    # shellcheck disable=SC2046 # a word for each
    stop_all $(jobs -rp)
    restore_terminal
    [ -z "$ended" ] || tell_end >&2 || true
    [ -z "$scratch" ] || rm -rf "$scratch"
    remove_worlds
    say "everything is stopped" 2>/dev/null || true # the terminal may be gone
}

# The view does so itself unless it was killed.
restore_terminal() {
    [ -n "$terminal" ] || return 0
    # Not for ever: a terminal that takes no output would have it wait.
    { timeout --foreground 2 stty "$terminal" </dev/tty; } 2>/dev/null || true
    [ "$ended" != "the live view" ] || printf '\e[0m\e[?7h\e[?25h\e[?1049l' 2>/dev/null || true
}

# The folder of bus worlds, if it came with this one and no other has come since.
remove_worlds() {
    [ -n "${KT_LIVE_WORLDS:-}" ] || return 0
    rm -f "$KT_SOFTCAN"
    rmdir "$KT_LIVE_WORLDS" 2>/dev/null || true
}

# What has ended by itself, how, and its last words
tell_end() {
    local how="status $ended_status" signal
    [ "$ended_status" -le 128 ] || ! signal=$(kill -l "$ended_status" 2>/dev/null) ||
        how+=", signal $signal"
    echo "run: $ended has ended ($how)"
    [ -n "$ended_log" ] || return 0
    [ -s "$ended_log" ] || { echo "run: it had nothing to say"; return 0; }
    echo "run: the last lines of its log:"
    tail -n 15 "$ended_log"
}
trap cleanup EXIT
trap 'exit 129' HUP
trap 'exit 0' INT
trap 'exit 131' QUIT
trap 'exit 143' TERM

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
    # A signal is acted upon at once while the shell waits, and no redirection holds then.
    /usr/bin/python3 "$here/demonstration.py" nodes "$number" >"$KT_ROOT/nodes$number" &
    wait $!
    read -ra options <"$KT_ROOT/nodes$number" || true
    [ ${#options[@]} -gt 0 ] || return 0
    "$bin/kt-demo-device" --port "$port" "${options[@]}" >"$KT_ROOT/device$number.log" 2>&1 &
    names[$!]="the demonstration device on $port" logs[$!]=$KT_ROOT/device$number.log
    case " ${options[*]} " in
        *" drive "*)
            set_tag can_proprietary/drive/control_command 1
            set_tag can_proprietary/drive/control_target 1500
            ;;
    esac
}

# Until one of the processes ends by itself.
watch_over() {
    local pid=
    wait -n -p pid "${!names[@]}" 2>/dev/null || ended_status=$?
    case ${names[$pid]}:$ended_status in
        # It was asked to end, or nobody looks any more.
        "the live view:0" | "the live view:129" | "the live view:141") exit "$ended_status" ;;
    esac
    ended=${names[$pid]} ended_log=${logs[$pid]:-}
    exit 1
}

# Nobody chose an address: the default one, unless another program has it.
choose_address() {
    [ -z "${KT_REST_LISTEN:-}" ] || return 0
    (: <>/dev/tcp/127.0.0.1/8080) 2>/dev/null || return 0
    export KT_REST_LISTEN=127.0.0.1:0
    say "another program has 127.0.0.1:8080, the REST API takes a free port; it is in $address"
}

# A broker on a port of loopback. Status: 0 when it runs, 1 when another program has the port.
start_broker() {
    local port=$1 folder=$KT_ROOT/mqtt
    printf 'listener %s 127.0.0.1\nallow_anonymous true\n' "$port" >"$folder/mosquitto.conf"
    mosquitto -c "$folder/mosquitto.conf" >"$folder/mosquitto.log" 2>&1 &
    names[$!]="the broker" logs[$!]=$folder/mosquitto.log
    # Its own word: on the port might listen another's.
    until grep -q ' running$' "$folder/mosquitto.log"; do
        if ! kill -0 $! 2>/dev/null; then
            grep -q 'Address already in use' "$folder/mosquitto.log" || watch_over
            unset "names[$!]" "logs[$!]"
            return 1
        fi
        sleep 0.05
    done
}

# A broker of its own and the bridge to it, which the next lines show how to look at.
start_mqtt() {
    local port=1883 folder=$KT_ROOT/mqtt
    mkdir -p "$folder"
    until start_broker "$port"; do
        port=$((port + 1))
    done
    printf 'broker_port = %s\nprefix = kt/gateway\nrest_url = %s\n' "$port" "$rest" \
        >"$folder/bridge.conf"
    [ -z "${KT_REST_TOKEN_FILE:-}" ] ||
        echo "rest_token_file = $(realpath "$KT_REST_TOKEN_FILE")" >>"$folder/bridge.conf"
    "$bin/kt-dx-mqtt" --config "$folder/bridge.conf" >"$folder/bridge.log" 2>&1 &
    names[$!]="the bridge" logs[$!]=$folder/bridge.log
    export KT_LIVE_MQTT_PORT=$port
    say "MQTT broker: 127.0.0.1:$port; what it gets: mosquitto_sub -p $port -v -t 'kt/gateway/#'"
}

declare -A names logs
mkdir -p "$KT_ROOT/etc/default/config/kt-can-proprietary"
cp "$source_root/schema/can_proprietary.sql" "$KT_ROOT/etc/default/config/kt-can-proprietary/"

# An address left behind by a service that was killed would be asked in vain.
address=$KT_ROOT/run/kt-rest/CAN-proprietary.address
rm -f "$address"
choose_address

if [ -n "$bare" ]; then
    say "the service alone, files below $KT_ROOT"
    "$bin/kt-can-proprietary" &
    names[$!]="the service"
    watch_over
fi

say "starting the service, files below $KT_ROOT"
"$bin/kt-can-proprietary" >>"$log" 2>&1 &
service=$!
names[$service]="the service" logs[$service]=$log
/usr/bin/python3 "$here/demonstration.py" load --service "$service" --log "$log" &
loaded=0
wait $! || loaded=$?
if [ $loaded != 0 ]; then
    kill -0 "$service" 2>/dev/null || watch_over
    [ $loaded != 2 ] || exit 1
    say "the service said:" >&2
    tail -n 15 "$log" >&2
    exit 1
fi
rest="http${KT_REST_TLS_CERT:+s}://$(cat "$address")/CAN-proprietary"
say "REST API: $rest"
[ -z "$mqtt" ] || start_mqtt

IFS=, read -ra port_names <<<"$KT_LIVE_PORTS"
play "${port_names[0]}" 1
[ ${#port_names[@]} -lt 2 ] || play "${port_names[1]}" 2

[ ! -t 1 ] || terminal=$({ stty -g </dev/tty; } 2>/dev/null) || true
/usr/bin/python3 "$here/live_view.py" --ports "$KT_LIVE_PORTS" --kt-tag "$bin/kt-tag" \
    --rest "$rest" &
names[$!]="the live view"
watch_over
