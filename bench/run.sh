#!/usr/bin/env bash
# Benchmarks of the library against zip, Python's zipfile and curl, in one command: builds
# (bench/build.sh), then runs bench/bench.py, which generates the data, starts the local
# processing site, prints the table and writes bench/RESULTS.md.
#
#   bench/run.sh                        # default: 1 GiB job folder over 60 files, 3 repetitions,
#                                       # peak memory at 100 MiB, 1 GiB and 4 GiB, and the
#                                       # parallel packing and shaped-links sections below
#   bench/run.sh --size-mb 200 --upload-mb 200 --memory-mb 50,200 --reps 5
#   bench/run.sh --once-off             # also the 4.5 GB file and the 70,000-file folder
#   bench/run.sh --profile --skip pack,job,memory,parallel   # where the upload's time goes
#   bench/run.sh --help                 # every switch
#
# Sections (pack, upload, job, memory, parallel, links): --skip LIST leaves those out, --only
# LIST runs just those. The upload section also sends the file streamed through libcurl
# (dataExchangeSetStreamingUpload) and holds its rate, CPU and peak RSS against curl's and Qt's.
# "parallel" holds the library's packing threads against one thread, zip, Python's zipfile, 7zz
# and pigz on the same data: a mixed folder (--mixed-mb, default 142: 24 CSVs and 24 random
# files) packed at 1, 2 and all-core threads, byte identity across thread counts, and its whole
# job to the server at 2 threads (through Qt and streamed); one big file (--big-mb, default 2048;
# --big-kind csv|float|random; 0 leaves it out) at 1 and 2 threads, its archive checked with
# unzip and Python; peak RSS at 2 and 32 threads (--parallel-memory-mb, default 100,1024,4096);
# and the single-file route's copy, QFile::copy against copy_file_range and cp (--copy-mb,
# default 1024).
#   bench/run.sh --only parallel        # that section alone (about 25 minutes at the defaults)
#   bench/run.sh --only parallel --mixed-mb 20 --big-mb 100 --parallel-memory-mb 50 \
#       --copy-mb 100 --reps 1          # a quick look at small sizes
#   bench/run.sh --skip parallel        # everything else
# "links" (root only, else skipped with a line saying so) makes two network namespaces joined by
# a veth pair, shapes the client's side with tc tbf at each of --link-rates (default
# 1gbit,2500mbit) and sends one file (--links-mb, default 1024) to the PHP site
# (tools/processing-site/php) with curl -F, the library through Qt and streamed: the library's
# upload stage against curl's time. The namespaces go when the run ends.
#   bench/run.sh --only upload,parallel,links --big-mb 0 --parallel-memory-mb '' --copy-mb 0
#                                       # the streaming upload's figures (about 10 minutes)
#   bench/run.sh --compression [--mixed-mb N] [--random-mb N] [--reps N] [--big-4g]
#                                       # dataExchangeSetCompression: level 1 vs 7zz -mx=1, storing
#                                       # vs level 6, an incompressible folder vs cp, peak RSS per
#                                       # level and threads; --big-4g: the 4 GiB non-ASCII case
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
# The compression choices: bench/compression.py, with its own switches after --compression.
if [ "${1:-}" = --compression ]; then
    exec python3 "$root/bench/compression.py" --build "$build" --source "$root" "${@:2}"
fi
exec python3 "$root/bench/bench.py" --build "$build" --source "$root" "$@"
