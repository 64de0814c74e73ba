#!/usr/bin/env bash
# The library's main job on this machine: builds the command-line tool, starts the local
# processing site, and sends a small measurement folder once to the server and once to a shared
# folder, then shows what arrived where.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/deps.sh"
build="$root/build-demo"
share="$build/share"
cmake -S "$root" -B "$build" -DBUILD_TESTING=OFF -DCMAKE_BUILD_TYPE=Release \
    -DDATAEXCHANGE_SHARE_ROOT="$share" >/dev/null
cmake --build "$build" -j"$(nproc)" --target dataexchange-upload exampleHost >/dev/null
tool="$build/tools/dataexchange-upload"
work="$build/demo"
rm -rf "$work" "$share"
mkdir -p "$work/site" "$work/runs/cal7"

echo "== The library"
"$build/tools/exampleHost"

echo "== Starting the local processing site"
python3 "$root/tools/processing-site/processing_site.py" --root "$work/site" --quiet \
    --write-config "$build/tools" >"$work/site.port" &
site=$!
trap 'kill $site 2>/dev/null || true' EXIT
for _ in $(seq 100); do [ -s "$work/site.port" ] && break; sleep 0.1; done
echo "listening on 127.0.0.1:$(head -1 "$work/site.port"); config.xml written beside the tool"

echo "== A sample measurement folder"
printf 'x;y;z\n1.0;2.0;3.0\n' >"$work/runs/cal7/points.csv"
printf 'Messung;Wert\nTemperatur;21.5\n' >"$work/runs/cal7/Messung_äöü.csv"
head -c 65536 /dev/urandom >"$work/runs/cal7/frames.bin"
ls -l "$work/runs/cal7"

# Debug lines of the library go to standard error; the demo keeps them out of the way.
echo "== Upload to the server (Location 2)"
"$tool" --device-type 0 --data-type 0 --serial 4711 --user demo --location 2 \
    "$work/runs/cal7" 2>"$work/debug-server.log"
echo "-- stored by the site:"
ls -l "$work/site/storage"
echo "-- job requested:"
cat "$work/site/jobs.jsonl"

echo "== Upload to the shared folder (Location 1, share root $share)"
mkdir -p "$share/measurement/processing/cvX/precalibration"
"$tool" --device-type 0 --data-type 0 --serial 4711 --user demo --location 1 \
    "$work/runs/cal7" 2>"$work/debug-share.log"
echo "-- in the shared folder:"
ls -l "$share/measurement/processing/cvX/precalibration"
for info in "$share"/measurement/processing/cvX/precalibration/*.info; do
    echo "-- $(basename "$info"):"
    cat "$info"
done
echo "== Done; stopping the site"
