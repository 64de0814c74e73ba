#!/usr/bin/env bash
# Builds and runs the whole test suite twice: a normal build, then one with AddressSanitizer and
# UndefinedBehaviorSanitizer. Then the Windows platform layer and the whole Windows DLL under
# Wine, the concurrency test under ThreadSanitizer, and the fuzzers for a minute each.
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
# The whole DLL under Wine: its C-ABI tests, uploads over HTTP(S) and to a UNC share, the CLI, the
# win64 zip. The first run on a machine builds the Windows dependencies (25-45 minutes); later
# runs take them from the cache outside the clone.
echo "=== test pass: windows DLL (Wine) ==="
"$root/scripts/build-windows.sh"

# ThreadSanitizer: the concurrency test alone, in a build of its own. tests/hardening/tsan.supp
# covers what TSan cannot see inside the uninstrumented Qt and C libraries. Run without address
# randomisation: TSan's fixed memory layout clashes with kernels that randomise many mmap bits.
echo "=== test pass: tsan (concurrency) ==="
tsan_build="$root/build-tsan"
cmake -S "$root" -B "$tsan_build" -DDATAEXCHANGE_SHARE_ROOT="$tsan_build/share" \
    -DPython3_EXECUTABLE="$python" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_FLAGS=-fsanitize=thread -DCMAKE_CXX_FLAGS=-fsanitize=thread \
    -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread \
    >/dev/null
cmake --build "$tsan_build" -j"$jobs" --target ConcurrencyTest
(cd "$tsan_build" &&
    TSAN_OPTIONS="halt_on_error=1 suppressions=$root/tests/hardening/tsan.supp" \
        setarch "$(uname -m)" -R ctest --output-on-failure --timeout 600 -R '^ConcurrencyTest$')

# libFuzzer with ASan and UBSan (clang-14): each fuzzer 60 s, side by side, from the seed corpora
# in the tree. What they add goes into the build folder, never into the tree.
echo "=== test pass: fuzz ==="
"$root/scripts/deps.sh" clang-14 libclang-rt-14-dev
fuzz_build="$root/build-fuzz"
cmake -S "$root" -B "$fuzz_build" -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
    -DDATAEXCHANGE_SHARE_ROOT="$fuzz_build/share" -DPython3_EXECUTABLE="$python" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDATAEXCHANGE_SANITIZE=ON -DDATAEXCHANGE_FUZZ=ON >/dev/null
fuzzers=(configReader optionCalls)
targets=()
for name in "${fuzzers[@]}"; do targets+=("fuzz${name^}"); done
cmake --build "$fuzz_build" -j"$jobs" --target "${targets[@]}"
fuzz_pids=()
for name in "${fuzzers[@]}"; do
    mkdir -p "$fuzz_build/corpus/$name"
    dictionary=()
    [ -f "$root/tests/fuzz/$name.dict" ] && dictionary=(-dict="$root/tests/fuzz/$name.dict")
    LSAN_OPTIONS=suppressions="$root/tests/lsan.supp" \
        "$fuzz_build/fuzz/fuzz${name^}" -max_total_time=60 -print_final_stats=1 \
        -artifact_prefix="$fuzz_build/$name-" "${dictionary[@]}" \
        "$fuzz_build/corpus/$name" "$root/tests/fuzz/corpus/$name" >"$fuzz_build/$name.log" 2>&1 &
    fuzz_pids+=($!)
done
fuzz_failed=0
for n in "${!fuzzers[@]}"; do
    log="$fuzz_build/${fuzzers[$n]}.log"
    if ! wait "${fuzz_pids[$n]}"; then
        fuzz_failed=1
        grep -v -e '^#[0-9]' "$log" | tail -40
    fi
    echo "${fuzzers[$n]}: $(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" || echo 'no summary')"
done
[ "$fuzz_failed" -eq 0 ]
