# shellcheck shell=bash
# What lanes C and A share: a kernel of Debian's on an emulated machine, which runs pytest on a root
# of its own and says how that ended. The service has its real absolute paths there; this machine's
# files stay as they are.
#
# A lane sets lane, its letter, and calls: parse_arguments, keep_cache, begin_run, write_tests,
# write_initramfs, run_machine.

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

unable() {
    echo "lane $lane: cannot run here: $*"
    exit 77
}

need_program() { # PROGRAM PACKAGE
    command -v "$1" >/dev/null || unable "no $1 (package $2)"
}

# Without a path among the arguments pytest gets the folder.
parse_arguments() {
    bin=$repo/build/release/bin junit= timeout=3600 tests=tests/system
    while [ $# -gt 0 ]; do
        case $1 in
            --bin) bin=$(realpath -- "$2"); shift 2 ;;
            --junit) junit=$(realpath -m -- "$2"); shift 2 ;;
            --timeout) timeout=$2; shift 2 ;;
            *) break ;;
        esac
    done
    pytest=("$@")
    local argument
    for argument; do
        [[ $argument != tests/* ]] || tests=
    done
}

# The folder of what was downloaded, which one run at a time may fill
keep_cache() {
    cache=$repo/build/lane-${lane,,}
    mkdir -p "$cache"
    exec 9>"$cache/lock"
    flock 9
}

leave_cache() {
    exec 9>&-
}

# unpack_kernel ARCHIVE FOLDER MODULES...: the kernel as FOLDER/vmlinuz, and the modules
unpack_kernel() {
    local archive=$1 folder=$2 module paths=()
    shift 2
    for module; do
        paths+=("*/$module.ko")
    done
    mkdir -p "$folder"
    dpkg-deb --fsys-tarfile "$archive" |
        tar -x -C "$folder" --wildcards --transform 's|.*/||' --transform 's|^vmlinuz-.*|vmlinuz|' \
            './boot/vmlinuz-*' "${paths[@]}"
}

begin_run() {
    run=$(mktemp -d "$repo/build/lane-${lane,,}.XXXXXX")
    trap end_run EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
}

end_run() {
    # As the shell counts them: a signal may come before the line after a start.
    # shellcheck disable=SC2046 # a word for each
    kill -TERM $(jobs -rp) 2>/dev/null || true
    rm -rf "$run"
}

# write_script KT_LANE FACTOR <<<"commands": what the machine runs, after its environment
write_script() {
    local name
    {
        echo "export PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 HOME=/root"
        echo "export PYTHONDONTWRITEBYTECODE=1"
        printf 'export KT_LANE=%q KT_BIN=%q KT_TIME_FACTOR=%q\n' "$1" "$bin" \
            "${KT_TIME_FACTOR:-$2}"
        for name in KT_CHOSEN_TESTS KT_ALL_TESTS KT_MODEL_SEED KT_MODEL_SECONDS KT_LOAD_SECONDS \
            KT_SOAK_SECONDS KT_SOAK_RATE KT_SOAK_OPTIONS; do
            [ -z "${!name:-}" ] || printf 'export %s=%q\n' "$name" "${!name}"
        done
        printf 'export KT_RESULTS=%q\n' "$run/results"
        printf 'give_up() { echo "$*" >%q; exit 1; }\n' "$run/unable"
        echo "ip link set lo up"
        cat
    } >"$run/tests"
}

# write_tests KT_LANE FACTOR <<<"commands that bring the ports up"
write_tests() {
    local color=no
    [ ! -t 1 ] || color=yes
    write_script "$@"
    {
        printf 'cd %q && exec /usr/bin/python3 -m pytest ' "$repo"
        printf '%q ' --color=$color -c tests/system/pytest.ini $tests \
            ${junit:+--junitxml="$run/junit.xml"} "${pytest[@]}"
        echo
    } >>"$run/tests"
}

# What is to stay of a run before its folder goes
keep_results() {
    [ ! -d "$run/results" ] || cp -r "$run/results/." "$repo/build/"
    [ -z "$junit" ] || [ ! -e "$run/junit.xml" ] || cp "$run/junit.xml" "$junit"
}

# write_initramfs ROOT BUSYBOX FOLDER MODULES...: a root by which emulated_init.sh mounts it
write_initramfs() {
    local root=$1 busybox=$2 folder=$3 content=$run/initramfs module
    shift 3
    mkdir -p "$content"/{bin,modules,proc,sys,dev}
    cp "$busybox" "$content/bin/busybox"
    cp "$repo/tests/support/emulated_init.sh" "$content/init"
    cp "$repo/tests/support/guest_root.sh" "$content/"
    for module; do
        cp "$folder/$module.ko" "$content/modules/"
    done
    printf '%s=%s\n' root "$root" modules "'$*'" repo "${repo@Q}" bin "${bin@Q}" \
        run "${run@Q}" >"$content/settings"
    (cd "$content" && find . | cpio --quiet -o -H newc) >"$run/initramfs.cpio"
}

# shared_folder TAG FOLDER [OPTION]: arguments of QEMU
shared_folder() {
    echo -virtfs "local,path=$2,mount_tag=$1,security_model=none,multidevs=remap${3:+,$3}"
}

# run_machine KERNEL CONSOLE QEMU...: boots and waits; ends the script with the tests' status
run_machine() {
    local kernel=$1 device=$2 machine console i
    shift 2
    # QEMU leaves what it writes to without waiting in that mode, so it gets a pipe of its own.
    mkfifo "$run/console"
    cat "$run/console" &
    console=$!
    # Its own process group, so that it ends with its children. A machine that stands still while it
    # boots has the kernel believe that its timer does not work.
    timeout -k 5 "$timeout" "$@" -nodefaults -display none -chardev stdio,id=console \
        -serial chardev:console -no-reboot -kernel "$kernel" -initrd "$run/initramfs.cpio" \
        -append "console=$device quiet loglevel=1 panic=-1 no_timer_check kt.lane=$lane" \
        $(shared_folder run "$run") </dev/null >"$run/console" 2>&1 &
    machine=$!
    for ((i = 0; i < 3000; i++)); do
        [ ! -e "$run/started" ] && kill -0 "$machine" 2>/dev/null || break
        sleep 0.1
    done
    [ -e "$run/started" ] || unable "the emulated machine does not boot"
    wait "$machine" || true
    wait "$console" || true
    keep_results
    [ ! -e "$run/unable" ] || unable "$(cat "$run/unable")"
    if [ ! -e "$run/status" ]; then
        echo "lane $lane: ended without a result (limit $timeout s)"
        exit 1
    fi
    exit "$(cat "$run/status")"
}
