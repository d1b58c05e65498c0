#!/bin/bash
# Run the benchmarks and print each number beside the one it is measured against.
#   run.sh BIN_DIR
# The programs' own reports are left beside BIN_DIR, as bench_rest.json and bench_import.json.
set -euo pipefail

[ $# = 1 ] || { echo "usage: run.sh BIN_DIR" >&2; exit 2; }
bin=$(cd "$1" && pwd)
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
out=$(dirname "$bin")

for program in bench_rest bench_import; do
    echo "bench: $program"
    "$bin/$program" --benchmark_repetitions=3 --benchmark_format=json \
        >"$out/$program.json" 2>"$out/$program.log" || {
        cat "$out/$program.log" >&2
        exit 1
    }
done
/usr/bin/python3 "$here/table.py" "$out/bench_rest.json" "$out/bench_import.json"
