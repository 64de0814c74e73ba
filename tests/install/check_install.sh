#!/bin/sh
# The installed tree and the Debian package as their users meet them.
#   check_install.sh consumer BUILD CONSUMER_DIR HOST_SOURCE CMAKE CC PKG_CONFIG
#     installs BUILD into a temporary prefix and builds HOST_SOURCE against it through the CMake
#     package and through pkg-config; runs both hosts and the installed tool.
#   check_install.sh deb BUILD CPACK
#     builds the Debian package and checks its dependencies and its library.
set -eux
work=$(mktemp -d /tmp/dxInstall.XXXXXX)
trap 'rm -rf "$work"' EXIT
if [ "$1" = consumer ]; then
    cmake=$5 cc=$6 prefix=$work/prefix
    "$cmake" --install "$2" --prefix "$prefix"
    "$prefix/bin/dataexchange-upload" --version # finds the library of its own prefix
    "$cmake" -S "$3" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
        -DHOST_SOURCE="$4" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
    "$cmake" --build "$work/build"
    out=$("$work/build/consumer") # exits non-zero unless it saw the seven options
    case $out in "dataExchange v2.0.0 "*) ;; *) exit 1 ;; esac
    flags=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" "$7" --cflags --libs dataExchange)
    case $flags in *-lQt* | *-lquazip* | */qt5*) exit 1 ;; esac # run-time needs only
    # shellcheck disable=SC2086
    "$cc" -std=c99 -Wall -Wextra -Werror -pedantic-errors "$4" -o "$work/host" $flags
    out=$(LD_LIBRARY_PATH="$prefix/lib" "$work/host")
    case $out in "dataExchange v2.0.0 "*) ;; *) exit 1 ;; esac
else
    "$3" -G DEB -B "$work" --config "$2/CPackConfig.cmake"
    deb=$(ls "$work"/*.deb)
    depends=$(dpkg-deb -f "$deb" Depends)
    for needed in libqt5core5a libqt5network5 libquazip1-qt5; do
        case $depends in *"$needed"*) ;; *) exit 1 ;; esac
    done
    dpkg-deb -c "$deb" | grep -q ' ./usr/lib/libdataExchange.so.2 -> '
fi
