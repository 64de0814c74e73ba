#!/usr/bin/env bash
# Installs what building and testing need on a fresh Debian 12 machine, only when missing.
set -euo pipefail
packages=(cmake g++ make pkg-config git python3 libgtest-dev qtbase5-dev libquazip1-qt5-dev
          zlib1g-dev libbz2-dev openssl zip unzip curl binutils util-linux dpkg-dev file tinyproxy
          apache2 libapache2-mod-php mono-devel nunit-console libnunit-cil-dev libcurl4-openssl-dev
          libssl-dev python3-venv python3-setuptools python3-wheel python3-pip "$@")
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
    echo "Installing: ${missing[*]}"
    sudo_cmd=()
    [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
    "${sudo_cmd[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null
fi
