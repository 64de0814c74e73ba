#!/usr/bin/env bash
# Builds the library and runs the example host: version and the seven options.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/deps.sh"
build="$root/build-demo"
cmake -S "$root" -B "$build" -DBUILD_TESTING=OFF -DDATAEXCHANGE_SHARE_ROOT="$build/share" >/dev/null
cmake --build "$build" -j"$(nproc)" --target exampleHost
"$build/tools/exampleHost"
