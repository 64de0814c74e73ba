#!/usr/bin/env bash
# Builds the whole library for 64-bit Windows (MinGW-w64 against the prefix of windows-deps.sh:
# dataExchange.dll, its import libraries and .def, exampleHost.exe, dataexchange-upload.exe) and
# smoke-tests it under Wine, in a fresh Wine prefix inside the build folder: the exports, both
# programs, and one upload of a small folder to the local processing site.
# DATAEXCHANGE_WINDOWS_FULL_BUILD chooses the build folder. Each step prints its duration.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${DATAEXCHANGE_WINDOWS_FULL_BUILD:-$root/build-windows-full}
started=$SECONDS
step_started=$SECONDS

step() {  # step NAME: ends the previous step (printing its duration) and starts the next
    if [ -n "${step_name:-}" ]; then
        echo "    $step_name: $((SECONDS - step_started)) s"
    fi
    step_name=$1
    step_started=$SECONDS
    [ -z "$step_name" ] || echo "==> $step_name"
}

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

step "packages"
"$root/scripts/deps.sh" g++-mingw-w64-x86-64-posix wine wine64 llvm-14

step "Windows dependencies"
prefix=$("$root/scripts/windows-deps.sh" | tail -n1)
[ -f "$prefix/toolchain-mingw-w64.cmake" ] || fail "no toolchain file in '$prefix'"
echo "prefix: $prefix"

step "configure"
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$prefix/toolchain-mingw-w64.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF >/dev/null

step "build"
cmake --build "$build" -j"$(nproc)"
for file in dataExchange.dll libdataExchange.dll.a dataExchange.def dataExchange.lib \
    exampleHost.exe dataexchange-upload.exe; do
    [ -f "$build/$file" ] || fail "the build made no $file"
done

step "exports"
# Exactly the functions of the Linux version script, undecorated, in the DLL, the .def and the
# MSVC import library.
expected=$(sed -n 's/^ *\(dataExchange[A-Za-z0-9]*\);$/\1/p' "$root/api/dataExchange.map" | sort)
exported=$(x86_64-w64-mingw32-objdump -p "$build/dataExchange.dll" |
    sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/s/^\s*\[ *[0-9]*\] //p' | sort)
defined=$(sed -n 's/^ *\([A-Za-z0-9_@]*\) @[0-9]*$/\1/p' "$build/dataExchange.def" | sort)
# GNU nm does not read the short import members that llvm-dlltool writes; llvm-nm does.
llvm_nm=$(command -v llvm-nm-14 || command -v llvm-nm) || fail "no llvm-nm"
imported=$("$llvm_nm" "$build/dataExchange.lib" |
    sed -n 's/^.* T __imp_//p' | sort)
[ "$exported" = "$expected" ] || fail "DLL exports differ from api/dataExchange.map:
$(diff <(echo "$expected") <(echo "$exported") || true)"
[ "$defined" = "$expected" ] || fail "dataExchange.def differs from the exports"
[ "$imported" = "$expected" ] || fail "dataExchange.lib differs from the exports"
echo "$(echo "$exported" | wc -l) exports in dataExchange.dll, .def and .lib, as in dataExchange.map"
# The MSVC import library must link a host too: exampleHost once more, against dataExchange.lib.
x86_64-w64-mingw32-gcc-posix -std=c99 -Wall -Wextra -pedantic-errors -Werror -I"$root/include" \
    "$root/tools/exampleHost.c" "$build/dataExchange.lib" -o "$build/exampleHost-msvc-lib.exe"

step "Wine prefix"
export WINEPREFIX="$build/wineprefix" WINEDEBUG=-all,err+module WINEDLLOVERRIDES="mscoree,mshtml="
# Qt, QuaZip, OpenSSL, zlib and the MinGW runtime DLLs come from the prefix's bin.
export WINEPATH="Z:${prefix//\//\\}\\bin"
rm -rf "$WINEPREFIX"
mkdir -p "$WINEPREFIX"
site_pid=""
cleanup() {
    [ -z "$site_pid" ] || kill "$site_pid" 2>/dev/null || true
    wineserver -k || true
}
trap cleanup EXIT
wineserver -p
wine wineboot -i </dev/null >/dev/null 2>&1

# check NAME OUTPUT PATTERN...: every pattern (grep -E) must occur in OUTPUT, whose lines end
# in CR LF (standard output of a Windows program is in text mode).
check() {
    local name=$1 output=${2//$'\r'/}
    shift 2
    for pattern in "$@"; do
        grep -qE -- "$pattern" <<<"$output" || fail "$name: no line matching '$pattern' in:
$output"
    done
}
options=("^ *Data type " "^ *Device type " "^ *Email address " "^ *Location " "^ *Report "
    "^ *Serial number " "^ *User ")

step "exampleHost.exe"
output=$(cd "$build" && wine exampleHost.exe </dev/null) || fail "exampleHost.exe: status $?"
echo "${output//$'\r'/}"
check exampleHost.exe "$output" "^dataExchange v2\.[0-9]+\.[0-9]+ .*Windows" "${options[@]}"
output=$(cd "$build" && wine exampleHost-msvc-lib.exe </dev/null) ||
    fail "exampleHost-msvc-lib.exe: status $?"
check exampleHost-msvc-lib.exe "$output" "^dataExchange v2\." "${options[@]}"

step "dataexchange-upload.exe --version, --list-options"
output=$(cd "$build" && wine dataexchange-upload.exe --version </dev/null) ||
    fail "dataexchange-upload.exe --version: status $?"
echo "${output//$'\r'/}"
check "--version" "$output" "v2\.[0-9]+\.[0-9]+ .*Windows" "^revision [0-9a-f]{40}$"
output=$(cd "$build" && wine dataexchange-upload.exe --list-options </dev/null) ||
    fail "dataexchange-upload.exe --list-options: status $?"
echo "${output//$'\r'/}"
check "--list-options" "$output" "${options[@]}"

step "upload to the local processing site"
smoke="$build/smoke"
rm -rf "$smoke"
# A folder's own files only: the library refuses a folder with sub-folders.
mkdir -p "$smoke/site" "$smoke/cal7"
printf 'calibration %s\n' 1 2 3 >"$smoke/cal7/cal.txt"
head -c 200000 /dev/urandom >"$smoke/cal7/raw.bin"
# config.xml beside the program points the library at the site.
coproc site { exec python3 "$root/tools/processing-site/processing_site.py" --root "$smoke/site" \
    --write-config "$build" --quiet --watch-stdin; }
# shellcheck disable=SC2154 # set by coproc
site_pid=$site_PID
read -r -t 30 port <&"${site[0]}" || fail "the processing site did not start"
echo "processing site on 127.0.0.1:$port"
status=0
upload_started=$SECONDS
# The library's debug log (OutputDebugString on Windows) is kept, with Wine's time stamps, in
# upload-debug.log; the program's own standard error goes to the output as usual.
output=$(cd "$build" && WINEDEBUG=-all,err+module,+debugstr,+timestamp timeout 300 \
    wine dataexchange-upload.exe --device-type 0 --data-type 0 --serial 4711 --location 2 \
    "Z:${smoke//\//\\}\\cal7" </dev/null 2>"$smoke/upload-stderr.log") || status=$?
grep ':debugstr:' "$smoke/upload-stderr.log" >"$smoke/upload-debug.log" || true
echo "${output//$'\r'/}"
grep -v ':debugstr:' "$smoke/upload-stderr.log" || true
echo "upload: status $status after $((SECONDS - upload_started)) s; the library's debug log:"
sed -e 's/:[0-9a-f]*:warn:debugstr:OutputDebugStringA / /' "$smoke/upload-debug.log"
((status == 0)) || fail "upload: status $status"
check upload "$output" "^Delivered as: precalibration_cal7\.zip$" "^Destination: server$"
stored="$smoke/site/storage/precalibration_cal7.zip"
[ -f "$stored" ] || fail "upload: the site stored no $stored"
python3 - "$stored" <<'EOF' || fail "upload: the stored archive is not the folder"
import sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as archive:
    assert archive.testzip() is None, "corrupt entry"
    names = sorted(archive.namelist())
    assert names == ["cal.txt", "raw.bin"], names
    print("stored archive:", ", ".join(f"{i.filename} {i.file_size} B" for i in archive.infolist()))
EOF
grep -q '"sn", "4711"' "$smoke/site/jobs.jsonl" || fail "upload: no job request for serial 4711"
kill "$site_pid" 2>/dev/null || true
wait "$site_pid" 2>/dev/null || true
site_pid=""
rm -f "$build/config.xml"

step "delivery to the shared folder through a UNC path"
# Wine maps \\<server>\<share> to $WINEPREFIX/dosdevices/unc/<server>/<share>; the share here is
# a folder of the smoke test, with the library's UNC template \\fileserver\measurement\....
mkdir -p "$smoke/share/processing/cvX/precalibration" "$WINEPREFIX/dosdevices/unc/fileserver"
ln -sfn "$smoke/share" "$WINEPREFIX/dosdevices/unc/fileserver/measurement"
output=$(cd "$build" && wine dataexchange-upload.exe --device-type 0 --data-type 0 --location 1 \
    --user nick "Z:${smoke//\//\\}\\cal7" </dev/null 2>/dev/null) ||
    fail "shared folder: status $?"
check "shared folder" "$output" "^Destination: shared folder$" \
    "^Delivered as: [0-9_-]{19}_precalibration_cal7\.zip$"
delivered=$(sed -n 's/^Delivered as: \(.*\)\r$/\1/p' <<<"$output")
unzip -tqq "$smoke/share/processing/cvX/precalibration/$delivered" ||
    fail "shared folder: $delivered is not a sound archive"
# Written in text mode: on Windows its lines end in CR LF.
printf 'sn 0x0\r\ndevice cvX5\r\ntype precalibration\r\nemail \r\nuser nick\r\n' |
    cmp - "$smoke/share/processing/cvX/precalibration/$delivered.info" ||
    fail "shared folder: unexpected $delivered.info"
printf 'delivered %s and its .info\n' "\\\\fileserver\\measurement\\processing\\cvX\\precalibration\\$delivered"

step ""
echo "Windows full build and Wine smoke test: $((SECONDS - started)) s"
