#!/usr/bin/env bash
# Makes dataExchange-<version>-win64.zip (cpack -G ZIP in the Windows build folder of
# build-windows.sh; what goes in is decided by the install rules alone) and tests it far from the
# build: unpacked into a fresh folder under /tmp and run in a fresh Wine prefix without WINEPATH,
# so every DLL must come from the zip's bin/ or from Windows itself. The tool runs from there, and
# a C host is compiled against the zip's include/ and lib/dataExchange.lib only and run beside it.
# Usage: scripts/package-windows.sh [BUILD]  (default: $DATAEXCHANGE_WINDOWS_FULL_BUILD or
# build-windows-full). Each step prints its duration.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-${DATAEXCHANGE_WINDOWS_FULL_BUILD:-$root/build-windows-full}}

# shellcheck source=scripts/steps.sh
source "$root/scripts/steps.sh"

step "zip"
[ -f "$build/CPackConfig.cmake" ] || fail "no Windows build in '$build' (run build-windows.sh)"
rm -f "$build"/dataExchange-*-win64.zip
log=$( (cd "$build" && cpack -G ZIP) 2>&1) || fail "cpack: $log"
zips=("$build"/dataExchange-*-win64.zip)
zip=${zips[0]}
[ -f "$zip" ] || fail "cpack made no dataExchange-*-win64.zip:
$log"
unzip -l "$zip" | sed 's/^/  /'
echo "$(basename "$zip"): $(stat -c %s "$zip") bytes, $(unzip -Z1 "$zip" | grep -vc '/$') files"

step "unpack into a fresh folder"
work=$(mktemp -d /tmp/dataExchange-win64.XXXXXX)
export WINEPREFIX="$work/wineprefix" WINEDEBUG=-all,err+module WINEDLLOVERRIDES="mscoree,mshtml="
# Nothing from the build folder or the dependency prefix: no WINEPATH.
unset WINEPATH
cleanup() {
    [ ! -d "$WINEPREFIX" ] || wineserver -k || true
    rm -rf "$work"
}
trap cleanup EXIT
unzip -q "$zip" -d "$work"
package="$work/$(basename "$zip" .zip)"
for file in bin/dataExchange.dll bin/libcurl.dll bin/dataexchange-upload.exe bin/DataExchange.Net.dll \
    bin/DataExchange.Net.xml include/dataExchange.h include/dataExchangeExt.h lib/dataExchange.lib \
    lib/libdataExchange.dll.a lib/dataExchange.def docs/api.md licenses/qtbase licenses/openssl \
    licenses/quazip licenses/curl licenses/zlib licenses/gcc-runtime licenses/winpthreads; do
    [ -e "$package/$file" ] || fail "the zip holds no $file"
done
echo "unpacked into $package"

step "imports of bin/"
# Every DLL that a program or DLL in bin/ imports is in bin/ or is one of Windows' own, and every
# DLL in bin/ is imported, but libcurl, which the streaming upload loads when it is switched on.
# Checked here, not only under Wine: Debian's Wine has a zlib1.dll of its own, Windows has not.
windows_dlls=" advapi32 bcrypt crypt32 dnsapi iphlpapi kernel32 mpr msvcrt netapi32 ole32 shell32 "
windows_dlls+="user32 userenv version winmm ws2_32 "
# closed FOLDER NAME...: what the named files of FOLDER import is in FOLDER or one of Windows' own.
closed() {
    local folder=$1 shipped
    shift
    shipped=$(printf '%s\n' "$@" | tr '[:upper:]' '[:lower:]')
    imported=$(for name in "$@"; do
        x86_64-w64-mingw32-objdump -p "$folder/$name" | sed -n 's/^\s*DLL Name: //p'
    done | tr '[:upper:]' '[:lower:]' | sort -u)
    from_windows=""
    for dll in $imported; do
        grep -qxF "$dll" <<<"$shipped" && continue
        [[ $windows_dlls == *" ${dll%.dll} "* ]] ||
            fail "$dll is imported, but neither in $folder nor one of Windows' own DLLs"
        from_windows+=" $dll"
    done
}
# The .NET binding is a managed assembly: no native file imports it, and it loads dataExchange.dll
# by P/Invoke only.
file -b "$package/bin/DataExchange.Net.dll" | grep -q 'Mono/.Net assembly' ||
    fail "bin/DataExchange.Net.dll is no .NET assembly"
native=$(cd "$package/bin" && printf '%s\n' *.dll *.exe | grep -vxF DataExchange.Net.dll)
# shellcheck disable=SC2086 # one name a word
closed "$package/bin" $native
while IFS= read -r dll; do
    grep -qxF "$dll" <<<"$imported" || fail "bin/$dll is imported by nothing in bin/"
done < <(grep '\.dll$' <<<"$native" | tr '[:upper:]' '[:lower:]' | grep -vxF libcurl.dll)
echo "every DLL in bin/ is imported; from Windows:$from_windows"

step "Python wheel and NuGet package"
# Each carries every DLL of bin/ but the .NET assembly, in the folder its loader searches, where
# what they import is found. pip installs the wheel for Windows into a folder; Mono's NuGet
# installs the package from nuget/ as from a local feed, and a .NET Framework project that xbuild
# builds against it gets every DLL of bin/ beside its program.
"$root/scripts/deps.sh" nuget
version=$(sed -n 's/^project(dataExchange VERSION \([0-9.]*\) .*/\1/p' "$root/CMakeLists.txt")
python3 -m pip install --quiet --root-user-action=ignore --no-index --no-deps --only-binary=:all: \
    --platform win_amd64 --target "$work/wheel" \
    "$package/python/dataexchange-$version-py3-none-win_amd64.whl"
HOME=$work nuget install DataExchange.Net -Source "$package/nuget" -OutputDirectory "$work" \
    -NoCache -NonInteractive >/dev/null
nuget="$work/DataExchange.Net.$version"
dlls=$(grep '\.dll$' <<<"$native")
for folder in "$work/wheel/dataexchange" "$nuget/runtimes/win-x64/native"; do
    [ "$(cd "$folder" && ls -- *.dll)" = "$dlls" ] || fail "$folder does not hold the DLLs of bin/"
    # shellcheck disable=SC2086
    closed "$folder" $dlls
done
check "the .nuspec" "$(unzip -p "$package/nuget/DataExchange.Net.$version.nupkg" '*.nuspec')" \
    "<id>DataExchange\.Net</id>" "<version>$version</version>" "<authors>[^<]+</authors>" \
    '<license type="file">LICENSE\.txt</license>' "<description>[^<]+" \
    '<repository type="git".* commit="[0-9a-f]{40}"'
mkdir "$work/app"
echo 'class App { static void Main() { System.Console.WriteLine(DataExchange.Library.Sha1); } }' \
    >"$work/app/App.cs"
cat >"$work/app/app.csproj" <<EOF
<Project DefaultTargets="Build" xmlns="http://schemas.microsoft.com/developer/msbuild/2003">
  <PropertyGroup><OutputType>Exe</OutputType><TargetFrameworkVersion>v4.5</TargetFrameworkVersion>
    <OutputPath>out</OutputPath></PropertyGroup>
  <ItemGroup><Compile Include="App.cs"/><Reference Include="DataExchange.Net">
    <HintPath>$nuget/lib/net45/DataExchange.Net.dll</HintPath></Reference></ItemGroup>
  <Import Project="\$(MSBuildToolsPath)/Microsoft.CSharp.targets"/>
  <Import Project="$nuget/build/net45/DataExchange.Net.targets"/>
</Project>
EOF
xbuild /nologo /verbosity:quiet "$work/app/app.csproj" >"$work/app/build.log" ||
    fail "xbuild: $(cat "$work/app/build.log")"
[ "$(cd "$work/app/out" && ls -- *.dll)" = "$(cd "$package/bin" && ls -- *.dll)" ] ||
    fail "the .NET Framework program's folder does not hold the DLLs of bin/"
(cd "$package" && stat -c '%n: %s bytes' python/*.whl nuget/*.nupkg)

step "C host compiled against the zip"
# The MSVC-style import library, as a Windows customer's host links it.
x86_64-w64-mingw32-gcc-posix -std=c99 -Wall -Wextra -pedantic-errors -Werror \
    -I"$package/include" "$root/tools/exampleHost.c" "$package/lib/dataExchange.lib" \
    -o "$package/bin/exampleHost.exe"

step "fresh Wine prefix"
mkdir -p "$WINEPREFIX"
wineserver -p
wine wineboot -i </dev/null >/dev/null 2>&1

# run NAME PROGRAM ARGS...: runs PROGRAM of the unpacked bin/ from the unpacked folder; fails on
# a non-zero status, on a DLL Wine did not find, or on a DLL loaded from outside the unpacked bin/
# and Windows' own folder. Sets output.
bin_windows="Z:${package//\//\\}\\bin\\"
run() {
    local name=$1 program=$2 status=0 loaded
    shift 2
    output=$(cd "$work" && WINEDEBUG=-all,err+module,+loaddll \
        wine "$package/bin/$program" "$@" </dev/null 2>"$work/loader.log") || status=$?
    ! grep -i 'not found' "$work/loader.log" || fail "$name: a DLL was not found"
    ((status == 0)) || fail "$name: status $status:
${output//$'\r'/}
$(cat "$work/loader.log")"
    # +loaddll: 'Loaded L"Z:\\tmp\\...\\bin\\Qt5Core.dll" at ...: native'; the path is escaped.
    loaded=$(sed -n 's/.*:loaddll:.* Loaded L"\(.*\)" at .*/\1/p' "$work/loader.log" |
        sed 's/\\\\/\\/g' | sort -u)
    [ -n "$loaded" ] || fail "$name: no +loaddll lines"
    while IFS= read -r dll; do
        case "${dll,,}" in
        "${bin_windows,,}"* | "c:\\windows\\system32\\"*) ;;
        *) fail "$name: $dll loaded from outside the package and Windows" ;;
        esac
    done <<<"$loaded"
    echo "$name: $(grep -c "^${bin_windows//\\/\\\\}" <<<"$loaded") DLLs and programs from the" \
        "package's bin/, $(grep -ci '^c:.windows.' <<<"$loaded") from Windows"
}
options=("^ *Data type " "^ *Device type " "^ *Email address " "^ *Location " "^ *Report "
    "^ *Serial number " "^ *User ")

step "run from the unpacked zip"
run "dataexchange-upload.exe --version" dataexchange-upload.exe --version
echo "${output//$'\r'/}"
check "--version" "$output" "v2\.[0-9]+\.[0-9]+ .*Windows" "^revision [0-9a-f]{40}$"
run "dataexchange-upload.exe --list-options" dataexchange-upload.exe --list-options
check "--list-options" "$output" "${options[@]}"
run exampleHost.exe exampleHost.exe
echo "${output//$'\r'/}"
check exampleHost.exe "$output" "^dataExchange v2\.[0-9]+\.[0-9]+ .*Windows" "${options[@]}"

step "a host elsewhere loads the DLL by its path"
# As Python's ctypes and .NET do: the program is not in bin/, and neither bin/ nor anything else
# is on the search path; dataExchange.dll must find libcurl beside itself.
cat >"$work/elsewhere.c" <<'EOF'
#include <stdio.h>
#include <windows.h>
typedef void* (*Init)(void*, size_t, char*);
typedef int (*Set)(void*, unsigned);
int main(int argc, char** argv) { /* elsewhere.exe DLL: prints the streaming switch's result */
    HMODULE dll = argc == 2 ? LoadLibraryExA(argv[1], NULL, LOAD_WITH_ALTERED_SEARCH_PATH) : NULL;
    Init init = dll ? (Init)(void (*)(void))GetProcAddress(dll, "dataExchangeInit") : NULL;
    Set set = dll ? (Set)(void (*)(void))GetProcAddress(dll, "dataExchangeSetStreamingUpload") : NULL;
    void* handle = init && set ? init(NULL, 0, NULL) : NULL;
    printf("streaming=%d\n", handle ? set(handle, 1) : -1);
    return 0;
}
EOF
mkdir -p "$work/elsewhere"
x86_64-w64-mingw32-gcc-posix -Wall -Wextra -Werror "$work/elsewhere.c" -o "$work/elsewhere/elsewhere.exe"
output=$(cd "$work/elsewhere" && wine elsewhere.exe "${bin_windows}dataExchange.dll" </dev/null 2>/dev/null) ||
    fail "elsewhere.exe: status $?"
echo "elsewhere.exe: ${output//$'\r'/}"
check "the streaming upload, switched on from elsewhere" "$output" "^streaming=0$"

step "MSVC-built host"
# Built as an MSVC customer builds a host: compiled for the MSVC target and linked by lld-link
# against lib/dataExchange.lib, kernel32 and the system's msvcrt.dll (MinGW's import libraries;
# no start-up code, and -fno-builtin: the compiler may call nothing that is not declared). It calls every export, checks each answer and
# delivers a folder of its own, cal7, to the shared folder: \\fileserver\measurement through
# Wine's UNC mapping.
"$root/scripts/deps.sh" clang-14 lld
clang-14 --target=x86_64-pc-windows-msvc -std=c11 -O2 -fno-builtin -Wall -Wextra -Werror \
    -nostdinc -isystem "$(clang-14 -print-resource-dir)/include" -I"$package/include" \
    -c "$root/tests/api/msvcHost.c" -o "$work/msvcHost.obj"
lld-link /nologo /subsystem:console /entry:mainCRTStartup /nodefaultlib "$work/msvcHost.obj" \
    "$package/lib/dataExchange.lib" "$(x86_64-w64-mingw32-gcc-posix -print-file-name=libkernel32.a)" \
    "$(x86_64-w64-mingw32-gcc-posix -print-file-name=libmsvcrt.a)" \
    /out:"$package/bin/msvcHost.exe"
share="$work/share/processing/cvX/precalibration"
mkdir -p "$share" "$WINEPREFIX/dosdevices/unc/fileserver"
ln -sfn "$work/share" "$WINEPREFIX/dosdevices/unc/fileserver/measurement"
run msvcHost.exe msvcHost.exe
echo "${output//$'\r'/}"
delivered=$(sed -n 's/^delivered=\(.*\)\r$/\1/p' <<<"$output")
[ -f "$share/$delivered" ] || fail "msvcHost.exe: no '$delivered' in the shared folder"
unzip -tqq "$share/$delivered" || fail "msvcHost.exe: $delivered is not a sound archive"
[ "$(unzip -Z1 "$share/$delivered" | sort | tr '\n' ' ')" = "a.csv b.csv " ] ||
    fail "msvcHost.exe: $delivered holds $(unzip -Z1 "$share/$delivered")"
printf 'sn 0x123456789abcdef\r\ndevice cvX5\r\ntype precalibration\r\nemail nick@example.com\r\nuser nick\r\n' |
    cmp - "$share/$delivered.info" || fail "msvcHost.exe: unexpected $delivered.info"
echo "delivered $delivered with its .info"

step ""
