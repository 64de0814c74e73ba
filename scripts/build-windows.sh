#!/usr/bin/env bash
# Builds the whole library for 64-bit Windows (MinGW-w64 against the prefix of windows-deps.sh:
# dataExchange.dll, its import libraries and .def, exampleHost.exe, dataexchange-upload.exe) and
# smoke-tests it under Wine, in a fresh Wine prefix inside the build folder: the exports, both
# programs, one upload of a small folder to the local processing site and one delivery to the
# shared folder. Then package-windows.sh makes dataExchange-<version>-win64.zip and tests it
# unpacked under /tmp, in a Wine prefix of its own.
# DATAEXCHANGE_WINDOWS_FULL_BUILD chooses the build folder. Each step prints its duration.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${DATAEXCHANGE_WINDOWS_FULL_BUILD:-$root/build-windows-full}
started=$SECONDS

# shellcheck source=scripts/steps.sh
source "$root/scripts/steps.sh"

step "packages"
"$root/scripts/deps.sh" g++-mingw-w64-x86-64-posix wine wine64 llvm-14

step "Windows dependencies"
prefix=$("$root/scripts/windows-deps.sh" | tail -n1)
[ -f "$prefix/toolchain-mingw-w64.cmake" ] || fail "no toolchain file in '$prefix'"
echo "prefix: $prefix"

step "configure"
# The system's Python, whose setuptools, wheel and pip (Debian's) build the wheel for the zip.
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$prefix/toolchain-mingw-w64.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=ON \
    -DPython3_EXECUTABLE="$(command -v /usr/bin/python3 || command -v python3)" >/dev/null

step "build"
cmake --build "$build" -j"$(nproc)"
for file in dataExchange.dll libdataExchange.dll.a dataExchange.def dataExchange.lib \
    exampleHost.exe dataexchange-upload.exe uploadHost.exe; do
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
check upload "$output" "^Progress: packing 0/200042$" "^Progress: upload [0-9]+/[0-9]+$" \
    "^Progress: job request 1/1$" "^Delivered as: precalibration_cal7\.zip$" "^Destination: server$"
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

step "C-ABI tests under Wine"
(cd "$build" && ctest --output-on-failure --timeout 300)

step "uploads through the C ABI (uploadHost.exe)"
# The test suite's upload host, in a folder of its own with the DLL, run as on Linux: it prints
# result=, name=, location= and errors=. Sites over HTTP and HTTPS; the test CA is trusted the
# way a Windows administrator would, in the machine's ROOT store.
abi="$smoke/abi"
mkdir -p "$abi/app" "$abi/other/bin" "$abi/data/cal7" "$abi/certs"
cp "$build/uploadHost.exe" "$build/dataExchange.dll" "$abi/app/"
cp "$build/uploadHost.exe" "$build/dataExchange.dll" "$abi/other/bin/"
printf '1;2\n' >"$abi/data/cal7/a.csv"
printf '3;4\n' >"$abi/data/cal7/b.csv"
"$root/tests/support/make-test-ca.sh" "$abi/certs"
openssl x509 -in "$abi/certs/ca.pem" -outform der -out "$abi/certs/ca.der"
cat >"$abi/trust.c" <<'EOF'
#include <windows.h>
#include <wincrypt.h>
#include <stdio.h>
int main(int argc, char** argv) { /* trust.exe CERT.der: adds it to the ROOT store */
    static BYTE der[65536];
    FILE* file = argc == 2 ? fopen(argv[1], "rb") : NULL;
    const DWORD size = file ? (DWORD)fread(der, 1, sizeof der, file) : 0;
    return !(size && CertAddEncodedCertificateToSystemStoreA("ROOT", der, size));
}
EOF
x86_64-w64-mingw32-gcc-posix -Wall -Wextra -Werror "$abi/trust.c" -lcrypt32 -o "$abi/trust.exe"
wine "$abi/trust.exe" "Z:${abi//\//\\}\\certs\\ca.der" </dev/null || fail "the test CA was not trusted"
start_site() {  # start_site NAME [SWITCH...]: a processing site in $abi/NAME; its port in NAME.port
    local name=$1
    shift
    mkdir -p "$abi/$name"
    python3 "$root/tools/processing-site/processing_site.py" --root "$abi/$name" --quiet "$@" \
        </dev/null >"$abi/$name.port" &
    site_pids+=($!)
    for _ in $(seq 100); do [ -s "$abi/$name.port" ] && break; sleep 0.1; done
    [ -s "$abi/$name.port" ] || fail "the site $name did not start"
}
site_pids=()
trap 'kill "${site_pids[@]}" 2>/dev/null || true; cleanup' EXIT
start_site http
start_site https --cert "$abi/certs/server.pem" --key "$abi/certs/server.key"
config() {  # config FOLDER PROTOCOL SITE: a config.xml for that site in FOLDER
    printf '<Configuration><Server><Name>127.0.0.1:%s</Name><Protocol>%s</Protocol><Port>9</Port><Timeout>30</Timeout></Server></Configuration>\n' \
        "$(head -n1 "$abi/$3.port")" "$2" >"$1/config.xml"
}
# host FOLDER SOURCE OPTION...: runs the host of FOLDER on data/SOURCE; its output in $output,
# the library's debug lines (what a debugger is shown) in $debug. No temporary folder may outlive it.
host() {
    local folder=$1 source=$2 log="$abi/debug.log"
    shift 2
    output=$(cd "$abi/$folder" && WINEDEBUG=-all,err+module,+debugstr \
        timeout 300 wine uploadHost.exe "Z:${abi//\//\\}\\data\\$source" dev=0 dt=0 "$@" \
        </dev/null 2>"$log") || fail "uploadHost.exe on $source: status $?"
    output=${output//$'\r'/}
    debug=$(sed -n 's/^.*:debugstr:OutputDebugStringA "\(.*\)\\n"$/\1/p' "$log")
    # Wine takes TMP from the prefix's registry: C:\users\<user>\Temp.
    leftovers=$(find "$WINEPREFIX"/drive_c/users/*/Temp -maxdepth 1 -name 'tmp*.tmp')
    [ -z "$leftovers" ] || fail "temporary folders outlived the host: $leftovers"
}
config "$abi/app" http http
host app cal7 loc=2 sn=7
check "folder over HTTP" "$output" "^result=0$" "^name=precalibration_cal7\.zip$" "^location=2$"
unzip -tqq "$abi/http/storage/precalibration_cal7.zip" || fail "folder over HTTP: a broken archive"
check "debug lines" "$debug" "^Adding file a\.csv$" "^Found config file Z:.*app.config\.xml$"
host app cal7/a.csv loc=2
check "file over HTTP" "$output" "^result=0$" "^name=precalibration_a\.csv$"
cmp "$abi/data/cal7/a.csv" "$abi/http/storage/precalibration_a.csv" || fail "file over HTTP differs"
config "$abi/app" https https
host app cal7 loc=2
check "folder over HTTPS" "$output" "^result=0$" "^name=precalibration_cal7\.zip$"
host app cal7/b.csv loc=2
check "file over HTTPS" "$output" "^result=0$" "^name=precalibration_b\.csv$"
cmp "$abi/data/cal7/b.csv" "$abi/https/storage/precalibration_b.csv" || fail "file over HTTPS differs"
# Packing on two threads: the one-thread archive of the same folder, byte for byte.
host app cal7 loc=2 threads=2
check "folder on two threads" "$output" "^result=0$"
cmp "$abi/https/storage/precalibration_cal7.zip" "$abi/https/storage/precalibration_cal7-1.zip" ||
    fail "folder on two threads: not the archive one thread packs"
# The streaming upload (libcurl, loaded from beside the DLL) over HTTPS, trusting the same ROOT
# store, then over HTTP; the same archive as Qt sent.
host app cal7 loc=2 stream=1
check "folder over HTTPS, streamed" "$output" "^result=0$" "^name=precalibration_cal7\.zip$"
check "folder over HTTPS, streamed" "$debug" "^Streaming the upload through libcurl$"
cmp "$abi/https/storage/precalibration_cal7.zip" "$abi/https/storage/precalibration_cal7-2.zip" ||
    fail "folder over HTTPS, streamed: not the archive Qt sent"
config "$abi/app" http http
host app cal7/a.csv loc=2 stream=1
check "file over HTTP, streamed" "$output" "^result=0$" "^name=precalibration_a\.csv$"
cmp "$abi/data/cal7/a.csv" "$abi/http/storage/precalibration_a-1.csv" ||
    fail "file over HTTP, streamed: not the file"
# other\bin has no config.xml: the library looks in ..\data, that is other\data.
mkdir -p "$abi/other/data"
config "$abi/other/data" http http
host other/bin cal7 loc=2
check "config.xml in ..\\data" "$output" "^result=0$" "^location=2$"
check "config.xml in ..\\data" "$debug" "^Found config file Z:.*/other/data/config\.xml$"
echo "HTTP and HTTPS, folder and file, streamed too, config.xml beside the .exe and in ..\\data: delivered"
# A host that loads the DLL itself: after an upload, FreeLibrary removes the package's temporary
# folder while the host still runs.
cat >"$abi/unload.c" <<'EOF'
#include <windows.h>
#include <stdio.h>
typedef void* (*Init)(void*, size_t, char*);
typedef int (*SetInt)(void*, const char*, int);
typedef int (*Upload)(void*, const char*, size_t, char*, unsigned*);
typedef int (*Close)(void**);
typedef int (*SetSwitch)(void*, unsigned);
/* Through void (*)(void), the generic function pointer type, as GCC wants it. */
#define EXPORT(type, name) ((type)(void (*)(void))GetProcAddress(dll, name))
static int temporaryFolders(void) { /* tmp*.tmp in %TEMP% */
    char pattern[MAX_PATH];
    WIN32_FIND_DATAA found;
    int count = 0;
    lstrcpyA(pattern + GetTempPathA(MAX_PATH - 12, pattern), "tmp*.tmp");
    HANDLE search = FindFirstFileA(pattern, &found);
    while (search != INVALID_HANDLE_VALUE && ++count && FindNextFileA(search, &found)) {
    }
    if (search != INVALID_HANDLE_VALUE)
        FindClose(search);
    return count;
}
int main(int argc, char** argv) { /* unload.exe FOLDER [unicode] */
    HMODULE dll = LoadLibraryA("dataExchange.dll");
    void* handle = dll ? EXPORT(Init, "dataExchangeInit")(NULL, 0, NULL) : NULL;
    char name[260];
    unsigned used = 0;
    if (handle == NULL || argc < 2)
        return 2;
    if (argc == 3)
        EXPORT(SetSwitch, "dataExchangeSetUnicodePaths")(handle, 1);
    EXPORT(SetInt, "dataExchangeSetInt32Option")(handle, "Device type", 0);
    EXPORT(SetInt, "dataExchangeSetInt32Option")(handle, "Data type", 0);
    printf("result=%d\n",
           EXPORT(Upload, "dataExchangeUploadData")(handle, argv[1], sizeof name, name, &used));
    EXPORT(Close, "dataExchangeClose")(&handle);
    printf("loaded=%d\n", temporaryFolders());
    printf("freed=%d", FreeLibrary(dll));
    printf(" unloaded=%d\n", temporaryFolders());
    return 0;
}
EOF
x86_64-w64-mingw32-gcc-posix -Wall -Wextra -Werror "$abi/unload.c" -o "$abi/app/unload.exe"
output=$(cd "$abi/app" && wine unload.exe "Z:${abi//\//\\}\\data\\cal7" </dev/null 2>/dev/null) ||
    fail "unload.exe: status $?"
check "FreeLibrary" "$output" "^result=0$" "^loaded=1$" "^freed=1 unloaded=0$"
echo "the package's temporary folder: there after dataExchangeClose, gone after FreeLibrary"

step "Unicode paths (uploadHost.exe, a user 'Jörg')"
# Windows puts a user's temporary folder under the profile: for Jörg, José or Zoë its name is not
# ASCII. Names inside code page 1252 (Ø, ä, Ü) and outside it (ł, ó with ź, 日本). With the
# Unicode paths on, the host passes the path in UTF-8 (uploadHost.exe reads it from the UTF-16
# command line) and every step works on the real name.
temp_root=$(cd "$WINEPREFIX"/drive_c/users/*/Temp && pwd)
user_temp="$temp_root/Jörg"
mkdir -p "$user_temp"
set_temp() { # set_temp WINDOWS-PATH [TYPE]: TEMP and TMP of the prefix's user
    for variable in TEMP TMP; do
        wine reg add 'HKCU\Environment' /v "$variable" /t "${2:-REG_SZ}" /d "$1" /f </dev/null \
            >/dev/null 2>&1 || fail "$variable not set"
    done
}
set_temp "C:\\users\\$(basename "$(dirname "$temp_root")")\\Temp\\Jörg"
unicode=Kalibrierung_Ø5_łódź
mkdir -p "$abi/data/$unicode" "$abi/data/Kalibrierung_Ø5"
printf 'ä;Ü\n' >"$abi/data/$unicode/Messung_ä.csv"
head -c 70000 /dev/urandom >"$abi/data/$unicode/Übersicht_日本.bin"
printf '5;6\n' >"$abi/data/Kalibrierung_Ø5/c.csv"
printf '9;10\n' >"$abi/data/łódź_日本.csv"
config "$abi/app" http http
share_folder="$smoke/share/processing/cvX/precalibration"
# host_unicode ...: host, then nothing may be left in the user's temporary folder either.
host_unicode() {
    host "$@"
    leftovers=$(find "$user_temp" -mindepth 1)
    [ -z "$leftovers" ] || fail "left in $user_temp: $leftovers"
}
host_unicode app "$unicode" loc=1 unicode=1 user=nick
check "folder to the share" "$output" "^result=0$" "^location=1$" \
    "^name=[0-9_-]{19}_precalibration_${unicode}\.zip$"
delivered=$(sed -n 's/^name=//p' <<<"$output")
python3 - "$share_folder/$delivered" "$abi/data/$unicode" <<'EOF' ||
import os, sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as archive:
    assert archive.testzip() is None, "a corrupt entry"
    assert sorted(archive.namelist()) == sorted(os.listdir(sys.argv[2])), archive.namelist()
    for entry in archive.infolist():
        assert entry.flag_bits & 0x800, f"{entry.filename} not flagged as UTF-8"
        with open(os.path.join(sys.argv[2], entry.filename), "rb") as original:
            assert archive.read(entry) == original.read(), entry.filename
EOF
    fail "folder to the share: $delivered is not the folder"
printf 'sn 0x0\r\ndevice cvX5\r\ntype precalibration\r\nemail \r\nuser nick\r\n' |
    cmp - "$share_folder/$delivered.info" || fail "folder to the share: unexpected .info"
host_unicode app łódź_日本.csv loc=2 unicode=1
check "file to the site" "$output" "^result=0$" "^name=precalibration_łódź_日本\.csv$"
cmp "$abi/data/łódź_日本.csv" "$abi/http/storage/precalibration_łódź_日本.csv" ||
    fail "file to the site: not stored under its name, or not the same bytes"
host_unicode app "$unicode" dt=1 loc=3 unicode=1 # no share for cmm data: the site takes it
check "Location 3" "$output" "^result=0$" "^location=2$" "^name=cmm_${unicode}\.zip$"
output=$(cd "$abi/app" && wine unload.exe "Z:${abi//\//\\}\\data\\cal7" unicode </dev/null \
    2>/dev/null) || fail "unload.exe, Unicode paths: status $?"
check "FreeLibrary, Unicode paths" "$output" "^result=0$" "^loaded=1$" "^freed=1 unloaded=0$"
# Past MAX_PATH (260 characters) only the wide functions with the \\?\ form reach a file.
long_folder=$(printf 'Ebene_łódź_%040d/' 1 2 3 4 5)Messung_日本
mkdir -p "$abi/data/$long_folder"
printf '1;2\n' >"$abi/data/$long_folder/a.csv"
host_unicode app "$long_folder" loc=2 unicode=1
check "past MAX_PATH" "$output" "^result=0$" "^name=precalibration_Messung_日本\.zip$"
echo "$unicode to the share, łódź_日本.csv to the site, Location 3, a path past MAX_PATH;" \
    "temporary folders gone"
# The same with the Unicode paths off, as the library always took paths: the host's narrow argv
# in code page 1252, with best fit for what it lacks ("łódź" arrives as "l", 0xF3, "dz"), read
# as UTF-8 after the existence check. Verified delivery names the cause and the switch.
stored_before=$(ls "$abi/http/storage" | wc -l)
host app "$unicode" loc=1
# (In code page 1252 bytes, which a UTF-8 pattern cannot span.)
check "off: outside 1252" "$output" "^result=10$" "^errors=File or folder Z:.*Kalibrierung_" \
    "dz does not exist$"
host app Kalibrierung_Ø5 loc=2
check "off: inside 1252" "$output" "^result=40$" "^errors=Unknown error handling data$"
host app cal7 loc=2
check "off: user Jörg" "$output" "^result=40$" "^errors=Unknown error handling data$"
remedy=": turn on Unicode paths \(dataExchangeSetUnicodePaths\) to use its real name$"
host app Kalibrierung_Ø5 loc=2 verified=1
check "off, verified: inside 1252" "$output" "^result=40$" \
    "^errors=File or folder 'Z:.*Kalibrierung_\\\\xD85' is not valid UTF-8 at byte offset [0-9]+$remedy"
host app cal7 loc=2 verified=1
check "off, verified: user Jörg" "$output" "^result=40$" \
    "^errors=Temporary folder 'C:.*J\\\\xF6rg.tmp[^']*' is not valid UTF-8 at byte offset [0-9]+$remedy"
[ "$(ls "$abi/http/storage" | wc -l)" -eq "$stored_before" ] ||
    fail "Unicode paths off: something was delivered: $(ls "$abi/http/storage")"
echo "Unicode paths off: results 10 and 40 as before; verified delivery names the switch"
# The prefix's own temporary folder again for the steps that follow.
set_temp '%USERPROFILE%\Temp' REG_EXPAND_SZ

step "retries and the spool (uploadHost.exe)"
# A site that is away: every attempt refused, the item kept in a spool folder of the host's; the
# site back: the spool sent, under the item's lock, and empty afterwards.
spool_folder="Z:${abi//\//\\}\\spool"
printf '<Configuration><Server><Name>127.0.0.1:1</Name><Protocol>http</Protocol><Port>9</Port><Timeout>30</Timeout></Server></Configuration>\n' \
    >"$abi/app/config.xml"
host app cal7 loc=2 retries=1:0 "spool=$spool_folder"
check "kept" "$output" "^result=40$" "^Attempt 2 of 2: Connection to 127.0.0.1:1 refused$" \
    "^The packed item is kept in the spool as 'Z:.*spool.[0-9]{8}-[0-9]{9}-[0-9a-f]{8}'$"
config "$abi/app" http http
host app - spooled=send "spool=$spool_folder"
check "sent" "$output" "^result=0$" "^delivered=1$" "^remaining=0$"
[ -z "$(ls -A "$abi/spool")" ] || fail "the spool is not empty: $(ls -A "$abi/spool")"
echo "kept after two refused attempts, delivered from the spool, the spool empty"

step "dataexchange-upload.exe: exit statuses"
status=0
output=$(cd "$build" && wine dataexchange-upload.exe --serial 12ab x </dev/null 2>&1) || status=$?
check "usage error" "$output" "^dataexchange-upload: --serial: '12ab' is not a number"
((status == 2)) || fail "usage error: status $status, not 2"
status=0
output=$(cd "$build" && wine dataexchange-upload.exe --device-type 0 --data-type 0 \
    "Z:${abi//\//\\}\\data\\missing" </dev/null 2>&1) || status=$?
check "missing folder" "$output" "File or folder Z:.*missing does not exist"
((status == 4)) || fail "missing folder: status $status, not 4"
# The tool reads its arguments from the UTF-16 command line and turns the library's Unicode
# paths on: a name outside code page 1252 is delivered, into the share of the UNC step, and
# standard output, a pipe here, names it in UTF-8. --ansi-paths passes the path in code page 1252
# as a narrow main() gets it, "Ø" as byte 0xD8, "ó" as 0xF3, "ł" and "ź" by best fit as "l" and
# "z": a folder that does not exist, named in the message in those bytes.
unicode=Kalibrierung_Ø5_łódź
mkdir -p "$abi/data/$unicode"
printf '7;8\n' >"$abi/data/$unicode/d.csv"
# With --verbose the library's lines reach the tool through its log callback, in UTF-8, and the
# debugger gets none of them (+debugstr writes what it would get to the same standard error).
status=0
output=$(cd "$build" && WINEDEBUG=-all,err+module,+debugstr wine dataexchange-upload.exe --verbose \
    --device-type 0 --data-type 0 --location 1 "Z:${abi//\//\\}\\data\\$unicode" \
    </dev/null 2>"$abi/cli-stderr.log") || status=$?
((status == 0)) || fail "$unicode: status $status, not 0: $output $(cat "$abi/cli-stderr.log")"
check "$unicode" "$output" "^Delivered as: [0-9_-]{19}_precalibration_${unicode}\.zip$"
check "$unicode, --verbose" "$(cat "$abi/cli-stderr.log")" "^Adding file d\.csv$" \
    "^Trying to move .*${unicode}\.zip to "
! grep -q 'OutputDebugStringA' "$abi/cli-stderr.log" ||
    fail "$unicode, --verbose: lines reached the debugger: $(grep OutputDebugStringA "$abi/cli-stderr.log")"
delivered=$(sed -n 's/^Delivered as: \(.*\)\r$/\1/p' <<<"$output")
unzip -tqq "$smoke/share/processing/cvX/precalibration/$delivered" ||
    fail "$unicode: no sound archive $delivered in the share"
status=0
output=$(cd "$build" && wine dataexchange-upload.exe --ansi-paths --device-type 0 --data-type 0 \
    --location 1 "Z:${abi//\//\\}\\data\\$unicode" </dev/null 2>&1) || status=$?
LC_ALL=C grep -q $'Kalibrierung_\xd85_l\xf3dz does not exist' <<<"$output" ||
    fail "--ansi-paths: no 'does not exist' for the code page 1252 name in: $output"
((status == 4)) || fail "--ansi-paths: status $status, not 4"
echo "exit statuses 0, 2 and 4 as on Linux; $unicode delivered, its lines through the log callback;"
echo "with --ansi-paths not found"

step "win64 zip"
# Its own fresh Wine prefix and no WINEPATH: this one's services are no longer needed.
wineserver -k || true
"$root/scripts/package-windows.sh" "$build" | sed 's/^/  /'

step ""
echo "Windows full build and Wine smoke test: $((SECONDS - started)) s"
