#!/bin/bash
# Run the benchmarks and print each number beside the one it is measured against.
#   run.sh BIN_DIR
# The programs' own reports are left beside BIN_DIR, as bench_rest.json, bench_import.json and, where
# kt-dx-mqtt is built, bench_watch.json.
set -euo pipefail

[ $# = 1 ] || { echo "usage: run.sh BIN_DIR" >&2; exit 2; }
bin=$(cd "$1" && pwd)
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
out=$(dirname "$bin")

programs=(bench_rest bench_import)
[ ! -x "$bin/bench_watch" ] || programs+=(bench_watch)
for program in "${programs[@]}"; do
    echo "bench: $program"
    "$bin/$program" --benchmark_repetitions=3 --benchmark_format=json \
        >"$out/$program.json" 2>"$out/$program.log" || {
        cat "$out/$program.log" >&2
        exit 1
    }
done
/usr/bin/python3 "$here/table.py" "${programs[@]/#/$out/}"
