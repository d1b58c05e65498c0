#!/bin/bash
# The life of the packages on one machine: installed, used, upgraded, restored, removed, purged.
# Judges nothing: what is seen goes into files, a command's output into NAME and its exit status
# into NAME.status.
#
#   lifecycle.sh systemd|setpriv PACKAGES FACTS
#
# PACKAGES has the folders old/ and new/. With setpriv nobody starts services: the script does what
# the unit says, on ports of kt-softcan.
supervisor=$1 packages=$2 facts=$3
export PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive
export KT_SOFTCAN_DIR=/run/kt-softcan-worlds
api=http://127.0.0.1:8080/CAN-proprietary
user=kt-can-proprietary
unit=/lib/systemd/system/kt-can-proprietary.service
patience=${KT_PATIENCE:-60}

fact() {
    local name=$1
    shift
    "$@" >"$facts/$name" 2>&1 </dev/null
    echo $? >"$facts/$name.status"
}

# Until the command succeeds, or patience ends
await() {
    local end=$((SECONDS + patience))
    until "$@" >/dev/null 2>&1; do
        [ $SECONDS -lt $end ] || return 1
        sleep 0.1
    done
}

service_pid() { pgrep -o -x -u $user -f /usr/bin/kt-can-proprietary; }
service_gone() { ! service_pid; }
# A request before the first port thread may be too early, which the service would complain about.
running() { grep -qsx can0-port /proc/"$(service_pid)"/task/*/comm; }
overview() { curl -fsS $api/overview; }
await_service() { await running && await overview; }
# Each by its thread, which may come later than the first one.
ports_up() { [ "$(in_bus ip -o link list up | grep -c ': can[01]:')" = 2 ]; }

# As the unit: user, groups, capability, and nothing to write but its folders. Its runtime folders
# are those that systemd makes. The nice limit is left out: root of a container may not set it.
start_without_systemd() {
    local folder folders
    folders=$(sed -n 's/^RuntimeDirectory=//p' $unit)
    for folder in $folders kt-softcan-worlds; do
        mkdir -p /run/"$folder" && chown $user:$user /run/"$folder"
    done
    # shellcheck disable=SC2016 # expands in the new namespace
    setsid unshare --mount /bin/sh -c '
        for folder in $(sed -n "s/^ReadWritePaths=-*//p" "$1") $2; do
            mount --bind $folder $folder || exit 1
        done
        mount -o remount,bind,ro / && mount -o remount,bind,ro /run && mount -t tmpfs tmpfs /tmp ||
            exit 1
        set -a
        . /etc/default/kt-can-proprietary
        exec setpriv --reuid $3 --regid $3 --groups $3,kt-dx \
            --inh-caps=-all,+net_admin --ambient-caps=-all,+net_admin \
            --bounding-set=-all,+net_admin --no-new-privs \
            kt-softcan run --ports can0,can1 -- /usr/bin/kt-can-proprietary
    ' - $unit "$(for folder in $folders kt-softcan-worlds; do echo /run/"$folder"; done)" $user \
        >>/var/log/kt-can-proprietary.out 2>&1 </dev/null &
}

in_bus() {
    if [ "$supervisor" = systemd ]; then "$@"; else kt-softcan join -- "$@"; fi
}

start() {
    if [ "$supervisor" = systemd ]; then systemctl start $user; else start_without_systemd; fi
    await_service
}

stop() {
    if [ "$supervisor" = systemd ]; then systemctl stop $user; else pkill -TERM -x -u $user -f \
        /usr/bin/kt-can-proprietary; fi
    await service_gone
}

look_at_the_process() {
    local pid
    pid=$(service_pid)
    fact process cat "/proc/$pid/status"
    fact mounts cat "/proc/$pid/mounts"
    # The nice value is the 19th field; the name before it has no blanks.
    fact threads sh -c 'cut -d " " -f 2,19 /proc/'"$pid"'/task/*/stat'
}

post() { curl -fsS -d "$2" "$api/$1"; }

use_it() {
    fact configured post device '{"portId": 1, "deviceName": "drive", "transactionList": [
        {"transactionEnable": true, "transactionName": "state", "transactionType": 1,
         "consumeToutEnable": false, "frameList": [{"canId": 385, "dataLength": 2, "blockList": [
          {"blockType": 0, "tagName": "speed", "tagType": 6, "tagSize": 2, "startOffset": 0,
           "access": "ro", "swap": 0, "scalingFunc": 0}]}]}]}'
    fact applied post action '{"option": 0}'
    await kt-tag get $tag
    # The frame is repeated: the tag stands a moment before the port listens.
    await spoken
    fact member setpriv --reuid nobody --regid nogroup --groups kt-dx kt-tag get $tag
    fact stranger setpriv --reuid nobody --regid nogroup --clear-groups kt-tag get $tag
    fact recording post traffic/1 '{"option": 1}'
    await recorded
    fact recorded cat $recording
    await grep Success $events
    fact events cat $events
}
tag=can_proprietary/drive/state_speed
recording=/run/tmp/kt-can-proprietary/traffic-log0.csv
events=/run/kt-event-agent/events.jsonl
spoken() { in_bus cansend can0 181#DC05 && [ "$(kt-tag get $tag)" = 1500 ]; }
recorded() { in_bus cansend can0 181#DC05 && [ "$(wc -l <$recording)" -gt 1 ]; }

remains() {
    find / \( -path /proc -o -path /sys -o -path /dev -o -path /var/log -o -path "$packages" \
        -o -path "$facts" -o -path /run/systemd -o -path /run/kt-softcan-worlds \) -prune \
        -o \( -name '*kt-can-proprietary*' -o -name 'can_proprietary*' -o -name 'kt-dx-mqtt*' -o -path '/run/kt-*' \
        -o -path '/usr/bin/kt-*' -o -path /data -o -path /etc/default/config \) -print
}

install() { dpkg -i "$1"/*.deb; }

bridge_status() { mosquitto_sub -h 127.0.0.1 -W $patience -C 1 -t "kt/$(hostname)/status"; }
bridge_offline() { bridge_status | grep -q offline; }
current_value() { mosquitto_sub -h 127.0.0.1 -W 5 -C 1 -t "$topic" | grep -q '"value":1500,'; }

# The bridge beside a broker of this machine, as its unit starts it
use_the_bridge() {
    if [ "$supervisor" != systemd ]; then
        mosquitto -d
        setpriv --reuid kt-dx-mqtt --regid kt-dx-mqtt --groups kt-dx-mqtt,kt-dx \
            --inh-caps=-all --bounding-set=-all --no-new-privs /usr/bin/kt-dx-mqtt \
            >>/var/log/kt-dx-mqtt.out 2>&1 </dev/null &
    fi
    topic=kt/$(hostname)/tags/$tag
    # The broker listens a moment after its command has ended, and keeps the tag's first value till
    # the next one comes.
    await current_value
    fact published mosquitto_sub -h 127.0.0.1 -W $patience -C 1 -t "$topic"
    fact status bridge_status
    fact bridge_process sh -c 'cat /proc/$(pgrep -o -x -u kt-dx-mqtt kt-dx-mqtt)/status'
    fact bridge_settings setpriv --reuid kt-dx-mqtt --regid kt-dx-mqtt --clear-groups \
        kt-dx-mqtt --check
    fact bridge_folders stat -c '%n %U:%G %a' /etc/kt-dx-mqtt /etc/kt-dx-mqtt.conf
    fact bridge_verified systemd-analyze verify --man=no $bridge_unit
    fact bridge_exposure systemd-analyze security --offline=true $bridge_unit
    # It stays away until the service is not restarted any more: its requests would be too early.
    if [ "$supervisor" = systemd ]; then
        systemctl disable --now kt-dx-mqtt
    else
        pkill -TERM -x kt-dx-mqtt
    fi
    await bridge_offline
    fact bridge_stopped bridge_status
    [ "$supervisor" = systemd ] || pkill -TERM -x mosquitto
}
bridge_unit=/lib/systemd/system/kt-dx-mqtt.service

fact installed install "$packages/old"
[ "$supervisor" = systemd ] || start_without_systemd
await_service
await ports_up
fact first_overview overview
look_at_the_process
fact folders stat -c '%n %U:%G %a' /etc/default/config/kt-can-proprietary/can_proprietary.sql \
    /data/config/kt-can-proprietary /data/config/kt-can-proprietary/can_proprietary.db \
    /run/config/kt-can-proprietary /run/config/kt-can-proprietary/can_proprietary.db \
    /run/tmp/kt-can-proprietary /run/kt-dx /run/kt-dx/tags /run/kt-event-agent \
    /run/kt-platform/led3 /run/kt-rest/CAN-proprietary.address
fact links in_bus ip -o link show
fact verified systemd-analyze verify --man=no $unit
fact exposure systemd-analyze security --offline=true $unit
use_it
use_the_bridge

if [ "$supervisor" = systemd ]; then
    before=$(service_pid)
    kill -KILL "$before"
    await service_gone
    await_service
    fact restarted overview
    before=$(service_pid)
else
    stop
fi
fact upgraded install "$packages/new"
[ "$supervisor" = systemd ] || start_without_systemd
await_service
fact versions dpkg-query -W -f '${Package} ${Version} ${db:Status-Status}\n' 'kt-*'
fact upgraded_overview overview
fact schemas sha256sum /etc/default/config/kt-can-proprietary/can_proprietary.sql \
    /data/config/kt-can-proprietary/default/can_proprietary.sql
fact another_process test "$(service_pid)" != "${before:-}"

# The restore of docs/operations.md: root brings the files back.
stop
cp -r /data/config/kt-can-proprietary /root/backup
rm -rf /data/config/kt-can-proprietary /run/config/kt-can-proprietary
mkdir -p /data/config/kt-can-proprietary
cp -r /root/backup/. /data/config/kt-can-proprietary/
fact own_again systemd-tmpfiles --create kt-can-proprietary.conf
start
fact restored_overview overview
fact restored_owner stat -c %U:%G /data/config/kt-can-proprietary/can_proprietary.db
rm -r /root/backup
[ "$supervisor" != systemd ] || systemctl enable --now kt-dx-mqtt

[ "$supervisor" = systemd ] || stop
fact removed dpkg -r kt-can-proprietary
fact still_running service_pid
fact kept ls /data/config/kt-can-proprietary/can_proprietary.db \
    /etc/default/config/kt-can-proprietary/can_proprietary.sql
fact purged dpkg -P kt-dx-mqtt kt-can-proprietary kt-can-proprietary-platform
fact remains remains
if [ "$supervisor" = systemd ]; then
    fact journal journalctl -u $user --no-pager -o cat
else
    fact journal cat /var/log/kt-can-proprietary.out
fi
touch "$facts/complete"
