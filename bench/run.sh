#!/usr/bin/env bash
# Benchmarks of the library against zip, Python's zipfile and curl, in one command: builds
# (bench/build.sh), then runs bench/bench.py, which generates the data, starts the local
# processing site, prints the table and writes bench/RESULTS.md.
#
#   bench/run.sh                        # default: 1 GiB job folder over 60 files, 3 repetitions,
#                                       # peak memory at 100 MiB, 1 GiB and 4 GiB
#   bench/run.sh --size-mb 200 --upload-mb 200 --memory-mb 50,200 --reps 5
#   bench/run.sh --once-off             # also the 4.5 GB file and the 70,000-file folder
#   bench/run.sh --profile --skip pack,job,memory   # where the upload's time goes
#   bench/run.sh --help                 # every switch
#
# BENCH_BUILD names another build folder (default <checkout>/build-bench), BENCH_SOURCE another
# source tree to build the library from (default the checkout). Generated data stays under
# <build>/work/data for the next run (--keep-data also keeps the large once-off inputs);
# remove that folder to free the disk.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BENCH_BUILD:-$root/build-bench}

extra=()
for arg in "$@"; do
    if [ "$arg" = --help ] || [ "$arg" = -h ]; then
        exec python3 "$root/bench/bench.py" --build "$build" --source "$root" --help
    fi
    # The upload profile samples with perf.
    if [ "$arg" = --profile ]; then
        extra+=(linux-perf)
    fi
done
"$root/bench/build.sh" "${extra[@]}"
exec python3 "$root/bench/bench.py" --build "$build" --source "$root" "$@"
