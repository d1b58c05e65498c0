# shellcheck shell=bash
# Progress of something long, and signals that end it; sourced by ./dev.
#
# On a terminal one line renews itself. Elsewhere, and on a terminal that knows no control
# characters, a plain line appears at the start of each tenth and at the end.

progress_live='' progress_title='' progress_start=0 progress_tenth=-1 progress_text=''

# While something runs, a signal ends that first, then ./dev as the signal would have.
running=
catch_signals() {
    local name
    for name in HUP INT QUIT TERM; do
        # shellcheck disable=SC2064 # the name is meant to be in it
        trap "end_by_signal $name" $name
    done
}

release_signals() {
    trap - HUP INT QUIT TERM
}

end_by_signal() {
    trap '' HUP INT QUIT TERM
    progress_clear || true # the terminal may be gone, here and below
    [ -z "$running" ] || stop_group "$running"
    echo "dev: ended by SIG$1" >&2 || true
    trap - "$1"
    kill -s "$1" "$BASHPID"
}

# A build tool's children have groups of their own, and it ends them itself when it is asked to.
stop_group() {
    kill -TERM -- "-$1" 2>/dev/null || kill -TERM "$1" 2>/dev/null || return 0
    local i
    for ((i = 0; i < 100; i++)); do
        kill -0 -- "-$1" 2>/dev/null || return 0
        sleep 0.05
    done
    kill -KILL -- "-$1" 2>/dev/null || true
}

progress_elapsed() {
    local seconds=$((SECONDS - progress_start))
    printf '%d:%02d' $((seconds / 60)) $((seconds % 60))
}

progress_begin() {
    progress_title=$1 progress_start=$SECONDS progress_tenth=-1 progress_text='' progress_live=''
    if [ -t 1 ] && [ "${TERM:-dumb}" != dumb ]; then
        progress_live=1
    fi
    progress_draw
}

# How far it is, in percent, in words; without a number only the words are new. A smaller one than
# before begins another part.
progress_step() {
    progress_text=$2
    if [ -n "$1" ]; then
        [ $(($1 / 10)) -ge "$progress_tenth" ] || progress_tenth=-1
        if [ -z "$progress_live" ] && [ $(($1 / 10)) -gt "$progress_tenth" ]; then
            echo "$progress_title: $progress_text, $(progress_elapsed)"
        fi
        progress_tenth=$(($1 / 10))
    fi
    progress_draw
}

progress_draw() {
    [ -n "$progress_live" ] || return 0
    local line columns
    line="$progress_title: ${progress_text:+$progress_text, }$(progress_elapsed)"
    read -r _ columns < <({ stty size </dev/tty; } 2>/dev/null || echo 24 80)
    [ "${columns:-0}" -gt 0 ] || columns=80
    printf '\r%s\e[K' "${line:0:columns - 1}"
}

progress_clear() {
    [ -z "$progress_live" ] || [ -z "$progress_title" ] || printf '\r\e[K'
    progress_title=
}

# Run a command in a group of its own and give every line it writes to HANDLER; its status.
# Without input of its own it cannot wait for an answer that nobody sees asked for.
follow() {
    local handler=$1 line part='' status=0 output
    shift
    catch_signals
    exec {output}< <(exec setsid "$@" </dev/null 2>&1)
    running=$!
    while true; do
        if IFS= read -r -t 1 -u "$output" line; then
            "$handler" "$part$line"
            part=''
        elif [ $? -gt 128 ]; then
            part+=$line # no whole line yet
            progress_draw
        else
            break
        fi
    done
    exec {output}<&-
    wait "$running" || status=$?
    running=
    release_signals
    return "$status"
}
