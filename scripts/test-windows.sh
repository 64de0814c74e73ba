#!/usr/bin/env bash
# Builds the platform layer for 64-bit Windows with MinGW-w64 and runs its tests under Wine, in a
# fresh Wine prefix inside the build folder. DATAEXCHANGE_WINDOWS_BUILD chooses the build folder.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${DATAEXCHANGE_WINDOWS_BUILD:-$root/build-windows}
started=$(date +%s)

"$root/scripts/deps.sh" g++-mingw-w64-x86-64-posix wine wine64

echo "=== test pass: windows (Wine) ==="
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDATAEXCHANGE_PLATFORM_ONLY=ON >/dev/null
cmake --build "$build" -j"$(nproc)"

export WINEPREFIX="$build/wineprefix" WINEDEBUG=-all,err+module WINEDLLOVERRIDES="mscoree,mshtml="
rm -rf "$WINEPREFIX"
mkdir -p "$WINEPREFIX"
trap 'wineserver -k || true' EXIT
# Wine's services must run before ctest; otherwise each test waits on the inherited stderr.
wineserver -p
wine wineboot -i </dev/null >/dev/null 2>&1
(cd "$build" && ctest --output-on-failure --timeout 300)
echo "Windows leg: $(($(date +%s) - started)) s"
