#!/bin/sh
# The installed tree and the Debian package as their users meet them.
#   check_install.sh consumer BUILD CONSUMER_DIR HOST_SOURCE CMAKE CC PKG_CONFIG
#   check_install.sh deb BUILD CPACK
set -eux
work=$(mktemp -d /tmp/dxInstall.XXXXXX)
trap 'rm -rf "$work"' EXIT
# Runs a program that must succeed and print the library's version first.
version() { out=$("$@") && case $out in "dataExchange v2.0.0 "*) ;; *) exit 1 ;; esac; }
if [ "$1" = consumer ]; then
    cmake=$5 cc=$6 prefix=$work/prefix
    "$cmake" --install "$2" --prefix "$prefix"
    version "$prefix/bin/dataexchange-upload" --version # finds the library of its own prefix
    "$cmake" -S "$3" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
        -DHOST_SOURCE="$4" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
    "$cmake" --build "$work/build"
    version "$work/build/consumer" # fails unless it saw the seven options
    flags=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" "$7" --cflags --libs dataExchange)
    case $flags in *-lQt* | *-lquazip* | */qt5*) exit 1 ;; esac # run-time needs only
    # shellcheck disable=SC2086
    "$cc" -std=c99 -Wall -Wextra -Werror -pedantic-errors "$4" -o "$work/host" $flags
    version env LD_LIBRARY_PATH="$prefix/lib" "$work/host"
else
    "$3" -G DEB -B "$work" --config "$2/CPackConfig.cmake"
    deb=$(ls "$work"/*.deb)
    depends=$(dpkg-deb -f "$deb" Depends)
    for needed in libqt5core5a libqt5network5 libquazip1-qt5; do
        case $depends in *"$needed"*) ;; *) exit 1 ;; esac
    done
    dpkg-deb -c "$deb" | grep -q ' ./usr/lib/libdataExchange.so.2 -> '
    dpkg-deb -f "$deb" Recommends | grep -q libcurl4
fi
