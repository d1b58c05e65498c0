#!/bin/bash
# The two commands of the README on a Debian 12 that has nothing else: ./dev run until its view
# shows values, ended with SIGINT, then ./dev test.
#
#   fresh_debian.sh [--changes [PATH...]]
#
# The system is made by debootstrap in a scratch folder below TMPDIR and removed at the end; mirror
# and settings are those of this machine's own apt. Into it goes the committed tree, with --changes
# also what is not committed yet (below the paths given). Needs root, debootstrap and the network;
# takes as long as a full build and every test of the default lanes.
#
# One line for each step with its time. Exit status: 0 when both commands did, 77 when it cannot
# run.
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
changes='' paths=()
case ${1:-} in
    --changes) changes=1; shift; paths=("$@") ;;
    '') ;;
    *) echo "fresh: unknown argument $1" >&2; exit 2 ;;
esac

unable() {
    echo "fresh: cannot run here: $*"
    exit 77
}

[ "$(id -u)" = 0 ] || unable "not root"
command -v debootstrap >/dev/null || unable "no debootstrap (package debootstrap)"
mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Codename: bookworm' 2>/dev/null | head -n 1)
[ -n "$mirror" ] || unable "the apt sources of this machine have no Debian 12"

# Mounts and processes are in namespaces of their own and end with them, on every path.
if [ -z "${KT_FRESH_SCRATCH:-}" ]; then
    KT_FRESH_SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/kt-fresh.XXXXXX")
    export KT_FRESH_SCRATCH
    cleanup() {
        trap '' HUP INT TERM
        # As the shell counts them: a signal may come before the line after the start.
        # shellcheck disable=SC2046 # a word for each
        kill -KILL $(jobs -rp) 2>/dev/null || true
        wait 2>/dev/null
        rm -rf --one-file-system "$KT_FRESH_SCRATCH"
    }
    trap cleanup EXIT
    trap 'exit 129' HUP
    trap 'exit 130' INT
    trap 'exit 143' TERM
    unshare --mount --pid --fork --kill-child --mount-proc --propagation private \
        "${BASH_SOURCE[0]}" ${changes:+--changes "${paths[@]}"} &
    status=0
    wait $! || status=$?
    exit $status
fi

scratch=$KT_FRESH_SCRATCH
system=$scratch/system
tree=/root/kt-can-proprietary
begin=$SECONDS

# step TEXT COMMAND...: its output goes to a log that is shown when it fails
step() {
    local text=$1 start=$SECONDS status=0
    shift
    "$@" >"$scratch/log" 2>&1 &
    wait $! || status=$?
    if [ $status = 0 ]; then
        echo "fresh: $text: done ($((SECONDS - start)) s)"
        return
    fi
    echo "fresh: $text: failed with status $status ($((SECONDS - start)) s)"
    tail -n 60 "$scratch/log"
    tail -n 30 "$system$tree"/build/setup.log 2>/dev/null || true
    exit 1
}

make_system() {
    debootstrap --variant=minbase bookworm "$system" "$mirror"
}

# The machine's own sources and settings, keys and name resolution
copy_apt() {
    local folder
    for folder in apt.conf.d sources.list.d trusted.gpg.d keyrings preferences.d auth.conf.d; do
        [ ! -d "/etc/apt/$folder" ] || cp -rL "/etc/apt/$folder" "$system/etc/apt/"
    done
    rm -f "$system"/etc/apt/sources.list "$system"/etc/apt/preferences.d/*
    [ ! -e /etc/apt/sources.list ] || cp /etc/apt/sources.list "$system/etc/apt/"
    cp -rL /usr/share/keyrings "$system/usr/share/"
    cp -L /etc/resolv.conf /etc/hosts "$system/etc/"
}

# A root that is a mount itself can be made private, as tests with namespaces of their own need it.
mount_kernel() {
    mount --bind "$system" "$system"
    mount -t proc proc "$system/proc"
    mount -t tmpfs -o mode=755 dev "$system/dev"
    mount -t tmpfs -o mode=755 run "$system/run"
    mkdir "$system/dev/pts" "$system/dev/shm"
    mount -t devpts -o newinstance,ptmxmode=0666 devpts "$system/dev/pts"
    mount -t tmpfs -o mode=1777 shm "$system/dev/shm"
    mknod -m 666 "$system/dev/null" c 1 3
    mknod -m 666 "$system/dev/zero" c 1 5
    mknod -m 666 "$system/dev/full" c 1 7
    mknod -m 666 "$system/dev/random" c 1 8
    mknod -m 666 "$system/dev/urandom" c 1 9
    mknod -m 666 "$system/dev/tty" c 5 0
    ln -s pts/ptmx "$system/dev/ptmx"
    ln -s /proc/self/fd "$system/dev/fd"
    ln -s fd/0 "$system/dev/stdin"
    ln -s fd/1 "$system/dev/stdout"
    ln -s fd/2 "$system/dev/stderr"
}

copy_tree() {
    git clone -q --no-hardlinks "$repo" "$system$tree"
    rm -rf "$system$tree/.git" # ./dev needs none
    [ -n "$changes" ] || return 0
    cd "$repo"
    git ls-files -z --cached --others --exclude-standard -- "${paths[@]}" |
        while IFS= read -r -d '' file; do
            if [ -e "$file" ]; then
                install -D -m "$(stat -c %a "$file")" "$file" "$system$tree/$file"
            else
                rm -f "$system$tree/$file"
            fi
        done
}

inside() {
    exec env -i --default-signal HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin \
        chroot "$system" /bin/bash -c "cd $tree && exec \"\$@\"" - "$@"
}

# Until a value that a device sent shows, then SIGINT as Ctrl-C sends it; status 0 is wanted.
run_until_values() {
    local output=$scratch/run status=0 i
    inside ./dev run </dev/null >"$output" 2>&1 &
    local run=$!
    for ((i = 0; i < 18000; i++)); do
        ! grep -q '^tag can_proprietary/drive/control_speed [1-9]' "$output" || break
        kill -0 $run 2>/dev/null || break
        sleep 0.1
    done
    kill -INT $run 2>/dev/null || true
    wait $run || status=$?
    grep -v '^frame ' "$output" || true
    grep -q '^tag can_proprietary/drive/control_speed [1-9]' "$output" || return 1
    return $status
}

left_behind() {
    local found
    found=$(find "$system/tmp" "$system/run" -mindepth 1 ! -path '*/lock*' ! -path '*/apt*')
    [ -z "$found" ] || { echo "left behind: $found"; return 1; }
}

run_tests() {
    inside ./dev test </dev/null >"$scratch/test" 2>&1 &
    local status=0
    wait $! || status=$?
    cat "$scratch/test"
    return $status
}

step "debootstrap, Debian 12 minbase" make_system
step "apt settings of this machine" copy_apt
mount_kernel
step "tree copied$([ -z "$changes" ] || echo ", with what is not committed")" copy_tree
packages() { chroot "$system" dpkg-query -W -f x | wc -c; }
echo "fresh: $(packages) packages before"
step "./dev run shows live values and ends with status 0 on SIGINT" run_until_values
grep '^dev:\|^run:' "$scratch/run" | sed 's/^/    /'
step "nothing is left in /tmp and /run" left_behind
step "./dev test" run_tests
grep '^dev: test:\|passed, ' "$scratch/test" | sed 's/^/    /'
echo "fresh: $(packages) packages after; both commands did, $((SECONDS - begin)) s in all"
