#!/usr/bin/env bash
# Cross-builds the Windows (x86_64, MinGW-w64 with POSIX threads) dependencies of dataExchange from
# Debian's source packages — OpenSSL 3 (libraries only), qtbase 5.15 (Core and Network, OpenSSL
# linked), QuaZip 1.4, libcurl 7.88 (HTTP and HTTPS only, on the same OpenSSL) — adds Debian's
# MinGW zlib, the MinGW runtime DLLs and the licence texts, and
# leaves it all in one prefix outside the clone. Nothing is downloaded but Debian packages.
#
# Usage:   prefix=$(scripts/windows-deps.sh | tail -n1)
#   stdout carries one line only, the prefix path (so `tail -n1` and plain `$(...)` both work);
#   progress, one line per step with its duration, goes to stderr; each step's output goes to a log
#   file under <cache>/logs/. A failed step prints its name and the end of its log, exit status 1.
#
# Environment:
#   DATAEXCHANGE_WINDOWS_DEPS_CACHE   where prefixes and logs live (default ~/.cache/dataExchange)
#   DATAEXCHANGE_WINDOWS_DEPS_JOBS    parallel make jobs (default: nproc)
#   DATAEXCHANGE_WINDOWS_DEPS_KEEP=1  keep the temporary build folder of a failed run (until the
#                                     next run, which removes leftovers)
#
# Cache: the prefix is <cache>/windows-deps-<key>; <key> is the start of a SHA-256 over this script
# and the exact versions used (the four source packages, the MinGW compiler and runtime packages,
# Debian's MinGW zlib). Everything is built in a temporary folder beside it and renamed into place
# at the very end, after the stamp file .windows-deps-stamp is written, so a prefix without a
# matching stamp is never trusted. A later run with the same key reuses the prefix in seconds.
#
# Prefix layout: include/ lib/ (import libraries, lib/cmake/{Qt5*,QuaZip-Qt5-*,CURL}), mkspecs/,
# bin/ (Linux host tools qmake, moc, rcc, and every Windows DLL a program built against the prefix
# needs at run time), licenses/<component>/, toolchain-mingw-w64.cmake (a CMake toolchain for
# consumers: posix compilers, the prefix on CMAKE_FIND_ROOT_PATH and CMAKE_PREFIX_PATH).
#
# Consuming it from CMake, either
#   cmake -DCMAKE_TOOLCHAIN_FILE=<prefix>/toolchain-mingw-w64.cmake ...
# or a toolchain that includes cmake/mingw-w64.cmake and then runs
#   list(APPEND CMAKE_FIND_ROOT_PATH <prefix>), with -DCMAKE_PREFIX_PATH=<prefix> on the command line.
# find_package(Qt5 5.15 COMPONENTS Core Network) and find_package(QuaZip-Qt5) then work; QuaZip's
# config also finds zlib in /usr/x86_64-w64-mingw32 (package libz-mingw-w64-dev, installed here).
# At run time put <prefix>/bin on WINEPATH (or PATH on Windows), or copy its DLLs beside the program.
# A build from nothing takes 20-45 minutes on two cores, most of it qtbase.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
self="$root/scripts/windows-deps.sh"
cache=${DATAEXCHANGE_WINDOWS_DEPS_CACHE:-$HOME/.cache/dataExchange}
jobs=${DATAEXCHANGE_WINDOWS_DEPS_JOBS:-$(nproc)}
triplet=x86_64-w64-mingw32
# Source package names differ from the upstream names (there is no source package "quazip").
sources=(openssl qtbase-opensource-src libquazip1-qt5 curl)
# Binary packages whose files end up in the prefix (runtime DLLs, zlib); their versions join the key.
binaries=(gcc-mingw-w64-x86-64-posix-runtime mingw-w64-x86-64-dev libz-mingw-w64 libz-mingw-w64-dev)
# OpenSSL bakes these into libcrypto. Folders only administrators may write to, as in OpenSSL's own
# Windows builds: a user-writable one would let anyone plant an openssl.cnf that loads a DLL.
openssl_dir="C:/Program Files/Common Files/SSL"
openssl_libdir="C:/Program Files/OpenSSL/lib"

mkdir -p "$cache/logs"
run="$cache/logs/windows-deps-$(date +%Y%m%d-%H%M%S)-$$"
mkdir -p "$run"
tmp=""

info() { printf '%s\n' "$*" >&2; }

fail() {  # fail STEP LOG MESSAGE
    info "FAILED: $1 — $3"
    info "---- last lines of $2 ----"
    tail -n 30 "$2" >&2 || true
    exit 1
}

# step NAME FUNCTION [ARGS...]: runs the function in a subshell with its output in NAME.log. The
# subshell is not part of an `if` or `||`, so `set -e` inside it stays in force.
step() {
    local name=$1 log="$run/$1.log" started=$SECONDS rc
    shift
    info "==> $name"
    set +e
    (set -e; "$@") >"$log" 2>&1 </dev/null
    rc=$?
    set -e
    ((rc == 0)) || fail "$name" "$log" "exit status $rc"
    info "    $name: $((SECONDS - started)) s"
}

as_root() { if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi; }

cleanup() {
    local rc=$?
    if [ -n "$tmp" ] && [ -d "$tmp" ]; then
        if ((rc != 0)) && [ "${DATAEXCHANGE_WINDOWS_DEPS_KEEP:-0}" = 1 ]; then
            info "Kept the build folder $tmp"
        else
            rm -rf "$tmp"
        fi
    fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# ---------------------------------------------------------------------------------------------
# Steps before the key is known.

install_packages() {
    "$root/scripts/deps.sh" g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix \
        libz-mingw-w64-dev dpkg-dev wine wine64 perl make python3 cmake
}

add_source_lists() {
    if grep -rqsE '^(Types:.*deb-src|deb-src[[:space:]])' /etc/apt/sources.list /etc/apt/sources.list.d/; then
        echo "deb-src entries present"
    else
        sed 's/^Types: deb$/Types: deb-src/' /etc/apt/sources.list.d/debian.sources \
            | as_root tee /etc/apt/sources.list.d/debian-src.sources
        as_root apt-get update
    fi
}

# Versions apt offers for a source package, newest first (Debian ordering, so no `sort -V`).
source_versions() {
    local sorted=() v i
    while read -r v; do
        i=${#sorted[@]}
        while ((i > 0)) && dpkg --compare-versions "$v" gt "${sorted[i - 1]}"; do
            sorted[i]=${sorted[i - 1]}
            i=$((i - 1))
        done
        sorted[i]=$v
    done < <(apt-cache showsrc --only-source "$1" 2>/dev/null | awk '/^Version:/ {print $2}' | sort -u)
    ((${#sorted[@]})) && printf '%s\n' "${sorted[@]}"
}

# The newest version listed is not always fetchable: a security update's .dsc once answered 404.
# The memo remembers which version a given version list resolved to, so that a cached run needs no
# network; it is keyed by the whole list, which changes whenever the archive does.
memo="$cache/windows-deps-sources.memo"

resolve_versions() {
    local pkg versions listed remembered updated=0
    for pkg in "${sources[@]}"; do
        versions=$(source_versions "$pkg" || true)
        if [ -z "$versions" ] && ((updated == 0)); then
            as_root apt-get update
            updated=1
            versions=$(source_versions "$pkg" || true)
        fi
        [ -n "$versions" ] || { echo "No source package '$pkg' in apt's lists"; exit 1; }
        listed=$(printf '%s' "$versions" | sha256sum | cut -c1-16)
        remembered=""
        [ ! -f "$memo" ] || remembered=$(awk -v p="$pkg" -v l="$listed" '$1 == p && $2 == l {v = $3} END {print v}' "$memo")
        if [ -n "$remembered" ] && grep -qxF "$remembered" <<<"$versions"; then
            versions=$(printf '%s\n' "$remembered"; grep -vxF "$remembered" <<<"$versions" || true)
        fi
        echo "$pkg $listed $(tr '\n' ' ' <<<"$versions")" | tee -a "$run/versions"
    done
    for pkg in "${binaries[@]}"; do
        dpkg-query -W -f='${Package}=${Version}\n' "$pkg" | tee -a "$run/binaries"
    done
}

# key VERSION_LINES: what the prefix name and stamp are made of.
key_of() {
    { sha256sum <"$self" | cut -d' ' -f1; printf '%s\n' "$1"; cat "$run/binaries"; } | sha256sum | cut -c1-16
}

prefix_ok() {  # prefix_ok DIR KEY
    [ -f "$1/.windows-deps-stamp" ] && grep -qxF "key=$2" "$1/.windows-deps-stamp"
}

# ---------------------------------------------------------------------------------------------
# Build steps; they run with the temporary folder $tmp and the final prefix $prefix set. They install
# with DESTDIR into $stage, which is $prefix below $tmp/root, so that the paths baked into Qt
# (qmake's prefix, .prl and .pri files) are the final ones.

fetch_sources() {
    mkdir -p "$tmp/src"
    cd "$tmp/src"
    local pkg listed v
    while read -r pkg listed versions; do
        for v in $versions; do
            echo "Trying $pkg=$v"
            if apt-get source --only-source --download-only "$pkg=$v"; then
                echo "$pkg $listed $v" >>"$run/fetched"
                continue 2
            fi
        done
        echo "No version of source package '$pkg' could be fetched (tried: $versions)"
        exit 1
    done <"$run/versions"
}

unpack_sources() {
    cd "$tmp/src"
    local pkg v
    while read -r pkg _ v; do
        dpkg-source -x --no-check "${pkg}_${v#*:}.dsc" "$tmp/src/$pkg"
    done <"$run/fetched"
}

# Qt's mkspec calls $${CROSS_COMPILE}g++ and OpenSSL its --cross-compile-prefix tools; the plain
# names may point to the win32-thread compilers through alternatives, so links to the -posix ones
# come first on PATH.
make_tool_links() {
    mkdir -p "$tmp/tools"
    local t
    for t in gcc g++ c++ cpp gcc-ar gcc-nm gcc-ranlib; do
        ln -sf "/usr/bin/$triplet-$t-posix" "$tmp/tools/$triplet-$t"
    done
}

build_openssl() {
    mkdir -p "$tmp/build/openssl"
    cd "$tmp/build/openssl"
    "$tmp/src/openssl/Configure" mingw64 --cross-compile-prefix="$triplet-" shared no-tests \
        --prefix="$prefix" --libdir=lib
    # LIBS= drops the static libraries (libcrypto would be compiled twice) and apps' helper
    # library; the DLLs and their import libraries are all Qt needs.
    local vars=(LIBS= INSTALL_LIBS= "OPENSSLDIR=$openssl_dir"
                "ENGINESDIR=$openssl_libdir/engines-3" "MODULESDIR=$openssl_libdir/ossl-modules")
    make -j"$jobs" build_libs "${vars[@]}"
    make install_dev "${vars[@]}" DESTDIR="$tmp/root"
}

configure_qtbase() {
    mkdir -p "$tmp/build/qtbase"
    cd "$tmp/build/qtbase"
    # The +dfsg tarball has no bundled SQLite, hence -no-sql-sqlite.
    "$tmp/src/qtbase-opensource-src/configure" -xplatform win32-g++ \
        -device-option CROSS_COMPILE="$triplet-" -prefix "$prefix" \
        -release -shared -opensource -confirm-license -no-pkg-config \
        -no-gui -no-widgets -no-opengl -no-dbus -no-sql-sqlite -no-icu \
        -system-zlib -nomake examples -nomake tests \
        -openssl-linked OPENSSL_INCDIR="$stage/include" OPENSSL_LIBDIR="$stage/lib" \
        OPENSSL_LIBS="-lssl -lcrypto"
}

# Only the modules needed: building src/ as a whole would add Xml, Sql, Concurrent, Test and tools.
build_qtbase() {
    mkdir -p "$tmp/build/qtbase/src"
    cd "$tmp/build/qtbase/src"
    ../bin/qmake -o Makefile "$tmp/src/qtbase-opensource-src/src/src.pro"
    make -j"$jobs" sub-network sub-rcc sub-winmain
}

# Qt5CoreConfigExtras.cmake expects qmake, moc and rcc in bin/, hence the tool installs.
install_qtbase() {
    cd "$tmp/build/qtbase"
    make install_mkspecs install_syncqt install_fixqt4headers \
        sub-qmake-qmake-aux-pro-install_subtargets INSTALL_ROOT="$tmp/root"
    make -C src sub-corelib-install_subtargets sub-network-install_subtargets \
        sub-moc-install_subtargets sub-rcc-install_subtargets sub-tracegen-install_subtargets \
        sub-winmain-install_subtargets INSTALL_ROOT="$tmp/root"
}

write_toolchain() {  # write_toolchain FILE FIND_ROOT_PATH_EXTRA
    cat >"$1" <<EOF
# CMake toolchain for building against this prefix: 64-bit Windows, Debian's MinGW-w64 with POSIX
# threads (the ones Qt and QuaZip here were built with). Written by dataExchange's windows-deps.sh.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER $triplet-gcc-posix)
set(CMAKE_CXX_COMPILER $triplet-g++-posix)
set(CMAKE_RC_COMPILER $triplet-windres)
set(CMAKE_FIND_ROOT_PATH /usr/$triplet $2)
list(APPEND CMAKE_PREFIX_PATH $2)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/wine)
EOF
}

build_quazip() {
    local src="$tmp/src/libquazip1-qt5"
    # Qt5's config turns the optional Test component into a requirement; Qt's testlib is not built.
    sed -i 's/OPTIONAL_COMPONENTS Network Test)/OPTIONAL_COMPONENTS Network)/' "$src/CMakeLists.txt"
    grep -q 'OPTIONAL_COMPONENTS Network)' "$src/CMakeLists.txt" \
        || { echo "QuaZip's find_package(Qt5 ...) line has changed"; exit 1; }
    write_toolchain "$tmp/build/toolchain.cmake" "$stage"
    # QUAZIP_FETCH_LIBS defaults to ON on Windows and would clone bzip2.
    cmake -S "$src" -B "$tmp/build/quazip" -DCMAKE_TOOLCHAIN_FILE="$tmp/build/toolchain.cmake" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" -DBUILD_SHARED_LIBS=ON \
        -DQUAZIP_QT_MAJOR_VERSION=5 -DQUAZIP_BZIP2=OFF -DQUAZIP_FETCH_LIBS=OFF \
        -DQUAZIP_ENABLE_TESTS=OFF
    cmake --build "$tmp/build/quazip" -j"$jobs"
    DESTDIR="$tmp/root" cmake --install "$tmp/build/quazip"
}

# libcurl for the streaming upload, which loads it at run time. HTTP and HTTPS alone: the library
# speaks nothing else, and every other protocol or optional dependency would be one more DLL to
# ship and keep patched. OpenSSL is Qt's; its configuration file is not read, as Qt does not.
build_curl() {
    # The toolchain file is the one build_quazip wrote.
    cmake -S "$tmp/src/curl" -B "$tmp/build/curl" -DCMAKE_TOOLCHAIN_FILE="$tmp/build/toolchain.cmake" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" -DBUILD_SHARED_LIBS=ON \
        -DHTTP_ONLY=ON -DBUILD_CURL_EXE=OFF -DBUILD_TESTING=OFF -DENABLE_MANUAL=OFF \
        -DPICKY_COMPILER=OFF -DCURL_USE_OPENSSL=ON -DCURL_DISABLE_OPENSSL_AUTO_LOAD_CONFIG=ON \
        -DCURL_USE_LIBSSH2=OFF -DCURL_USE_LIBPSL=OFF -DUSE_LIBIDN2=OFF -DCURL_ZLIB=OFF \
        -DCURL_DISABLE_LDAP=ON -DCURL_CA_BUNDLE=none -DCURL_CA_PATH=none
    cmake --build "$tmp/build/curl" -j"$jobs"
    DESTDIR="$tmp/root" cmake --install "$tmp/build/curl"
    # A shell script for Unix builds; nothing here runs it.
    rm -f "$stage/bin/curl-config"
}

gather_runtime() {
    local dll f
    for dll in libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll; do
        f=$("$triplet-g++-posix" -print-file-name="$dll")
        [ -f "$f" ] || { echo "$dll not found beside the compiler"; exit 1; }
        install -m 755 "$f" "$stage/bin/"
    done
    install -m 755 "/usr/$triplet/lib/zlib1.dll" "$stage/bin/"
    # Debian's libstdc++-6.dll is 24 MB with its symbols, 2 MB without.
    for f in "$stage"/bin/*.dll; do
        "$triplet-strip" --strip-unneeded "$f"
    done
    # Every DLL a DLL here imports must be here too, or be part of Windows (Wine's copy tells).
    local windows=/usr/lib/x86_64-linux-gnu/wine/x86_64-windows missing=0 name
    for f in "$stage"/bin/*.dll; do
        while read -r name; do
            [ -n "$(find "$stage/bin" "$windows" -maxdepth 1 -iname "$name" -print -quit 2>/dev/null)" ] \
                || { echo "$(basename "$f") imports $name, which is neither here nor in Windows"; missing=1; }
        done < <("$triplet-objdump" -p "$f" | awk '/DLL Name:/ {print $3}')
    done
    ((missing == 0))
    ls -l "$stage/bin"
}

gather_licences() {
    local l="$stage/licenses" s="$tmp/src"
    mkdir -p "$l"/{openssl,qtbase,quazip,curl,zlib,gcc-runtime,winpthreads}
    cp "$s/openssl/LICENSE.txt" "$l/openssl/"
    cp "$s"/qtbase-opensource-src/LICENSE.{LGPL3,LGPLv3,GPL2,GPL3,GPL3-EXCEPT} "$l/qtbase/"
    cp "$s/libquazip1-qt5/COPYING" "$l/quazip/"
    cp "$s/curl/COPYING" "$l/curl/"
    # Debian's copyright files name the parts bundled inside (e.g. PCRE2 and double-conversion in
    # Qt5Core) and their licences.
    cp "$s/openssl/debian/copyright" "$l/openssl/debian-copyright"
    cp "$s/qtbase-opensource-src/debian/copyright" "$l/qtbase/debian-copyright"
    cp "$s/libquazip1-qt5/debian/copyright" "$l/quazip/debian-copyright"
    cp "$s/curl/debian/copyright" "$l/curl/debian-copyright"
    # The binary packages' own copyright files: zlib's licence, the GCC runtime library exception
    # (libstdc++, libgcc_s), winpthreads' licence.
    local component dll f pkg
    for component in zlib:zlib1.dll gcc-runtime:libstdc++-6.dll winpthreads:libwinpthread-1.dll; do
        dll=${component#*:}
        case $dll in
            zlib1.dll | libwinpthread-1.dll) f=/usr/$triplet/lib/$dll ;;
            *) f=$("$triplet-g++-posix" -print-file-name="$dll") ;;
        esac
        pkg=$(dpkg -S "$(readlink -f "$f")" | head -n1 | cut -d: -f1)
        cp "/usr/share/doc/$pkg/copyright" "$l/${component%%:*}/copyright"
    done
    find "$l" -type f | sort
}

finish_prefix() {
    # Text files (.prl, .pri, .pc, CMake files) may name the staging folder; make them name the
    # final one. Binaries carry only $prefix, which configure and make were given.
    { grep -rlIF "$tmp/root" "$stage" || true; } | while read -r f; do
        STAGE_ROOT="$tmp/root" perl -pi -e 's/\Q$ENV{STAGE_ROOT}\E//g' "$f"
        echo "rewrote $f"
    done
    if grep -rlF "$tmp/root" "$stage"; then
        echo "Files above still name the staging folder"
        exit 1
    fi
    # shellcheck disable=SC2016 # CMake expands it, so the file follows the prefix when moved
    write_toolchain "$stage/toolchain-mingw-w64.cmake" '${CMAKE_CURRENT_LIST_DIR}'
    {
        echo "key=$key"
        echo "script=$(sha256sum <"$self" | cut -d' ' -f1)"
        awk '{print "source " $1 "=" $3}' "$run/fetched"
        sed 's/^/binary /' "$run/binaries"
        echo "built=$(date -u +%Y-%m-%dT%H:%M:%SZ)"
    } >"$stage/.windows-deps-stamp"
    cat "$stage/.windows-deps-stamp"
}

# ---------------------------------------------------------------------------------------------

total=$SECONDS
# One run at a time per cache: two would build the same key into the same place.
exec 9>"$cache/.windows-deps.lock"
if ! flock -n 9; then
    info "Waiting for another windows-deps.sh run to finish..."
    flock 9
fi
# Folders of runs that were killed; under the lock none of them is in use.
rm -rf "$cache"/.windows-deps-build.*
# Keep the logs of the last ten runs.
find "$cache/logs" -mindepth 1 -maxdepth 1 -name 'windows-deps-*' -type d | sort | head -n -10 \
    | xargs -r rm -rf

step packages install_packages
step apt-sources add_source_lists
step resolve resolve_versions

key=$(key_of "$(awk '{print $1 "=" $3}' "$run/versions")")
prefix="$cache/windows-deps-$key"
if ! prefix_ok "$prefix" "$key"; then
    tmp=$(mktemp -d "$cache/.windows-deps-build.XXXXXX")
    step fetch fetch_sources
    # Record which version each list resolved to; a fallback changes the key.
    while read -r pkg listed v; do
        grep -qxF "$pkg $listed $v" "$memo" 2>/dev/null || echo "$pkg $listed $v" >>"$memo"
    done <"$run/fetched"
    key=$(key_of "$(awk '{print $1 "=" $3}' "$run/fetched")")
    prefix="$cache/windows-deps-$key"
fi
if prefix_ok "$prefix" "$key"; then
    info "Reusing $prefix"
else
    [ -n "$tmp" ] || tmp=$(mktemp -d "$cache/.windows-deps-build.XXXXXX")
    stage="$tmp/root$prefix"
    mkdir -p "$stage"
    export PATH="$tmp/tools:$PATH"
    step unpack unpack_sources
    make_tool_links
    step openssl build_openssl
    step qtbase-configure configure_qtbase
    step qtbase-build build_qtbase
    step qtbase-install install_qtbase
    step quazip build_quazip
    step curl build_curl
    step runtime gather_runtime
    step licenses gather_licences
    step finish finish_prefix
    # A leftover without a valid stamp (an older layout) is replaced, never trusted.
    rm -rf "$prefix"
    mv "$stage" "$prefix"
fi
info "windows-deps: $((SECONDS - total)) s, logs in $run"
printf '%s\n' "$prefix"
