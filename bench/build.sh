#!/usr/bin/env bash
# Builds what the benchmarks run, into build-bench (or $BENCH_BUILD): a Release library with a
# share root inside the build folder, the bench host (public headers and the shared library
# only) in a folder of its own, the data generator and the measurement aids. Installs what is
# missing first; extra arguments are further Debian packages to make sure of.
#
# BENCH_SOURCE names another source tree to build the library from (default: this checkout).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BENCH_BUILD:-$root/build-bench}
source=${BENCH_SOURCE:-$root}

# /usr/bin/time (package "time") reports the peak RSS; 7zz (package "7zip") and pigz are what
# the parallel packing is held against.
"$root/scripts/deps.sh" time 7zip pigz "$@"

echo "== Building the Release library into $build" >&2
cmake -S "$source" -B "$build" -DBUILD_TESTING=OFF -DCMAKE_BUILD_TYPE=Release \
    -DDATAEXCHANGE_SHARE_ROOT="$build/share" >/dev/null
cmake --build "$build" -j2 --target dataExchange >/dev/null

# The host sits in a folder of its own: the library reads config.xml beside the calling
# executable, and the benchmark writes one there for the local processing site.
mkdir -p "$build/host" "$build/share/measurement/processing/cvX/precalibration"
cc -std=c99 -O2 -Wall -Wextra -pedantic-errors -I"$source/include" "$root/bench/benchHost.c" \
    -o "$build/host/benchHost" -L"$build" -ldataExchange -Wl,-rpath,"$build"
cc -std=c99 -O2 -Wall -Wextra "$root/bench/gendata.c" -o "$build/host/gendata" -lm
# The upload profile's measurement aid: the library's upload path next to a same-thread writer.
c++ -std=c++17 -O2 -fPIC -Wall -Wextra "$root/bench/uploadPaths.cpp" -o "$build/host/uploadPaths" \
    $(pkg-config --cflags --libs Qt5Network Qt5Core)
# The single-file route's copy, made by QFile::copy and by copy_file_range(2).
c++ -std=c++17 -O2 -fPIC -Wall -Wextra "$root/bench/copyWays.cpp" -o "$build/host/copyWays" \
    $(pkg-config --cflags --libs Qt5Core)
