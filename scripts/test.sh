#!/usr/bin/env bash
# Builds and runs the whole test suite twice: a normal build, then one with AddressSanitizer and
# UndefinedBehaviorSanitizer. Then the Windows platform layer under Wine.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/deps.sh"
jobs=$(nproc)
# The system's interpreter starts faster than a version manager's shim; tests start many.
python=$(command -v /usr/bin/python3 || command -v python3)

run_pass() {
    local name=$1
    shift
    local build="$root/build-$name"
    echo "=== test pass: $name ==="
    cmake -S "$root" -B "$build" -DDATAEXCHANGE_SHARE_ROOT="$build/share" \
        -DPython3_EXECUTABLE="$python" "$@" >/dev/null
    cmake --build "$build" -j"$jobs"
    (cd "$build" && ctest --output-on-failure --timeout 600 -j"$jobs")
}

run_pass normal -DCMAKE_BUILD_TYPE=RelWithDebInfo
ASAN_OPTIONS=halt_on_error=1:detect_leaks=1 \
    UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    LSAN_OPTIONS=suppressions="$root/tests/lsan.supp" \
    run_pass sanitize -DCMAKE_BUILD_TYPE=Debug -DDATAEXCHANGE_SANITIZE=ON
if [ -x "$root/scripts/test-windows.sh" ]; then
    "$root/scripts/test-windows.sh"
fi
