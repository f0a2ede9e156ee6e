#!/usr/bin/env bash
# Installs the Debian 12 packages Dravelin builds and tests with. Does nothing when they are all
# present; otherwise runs apt-get (as root, or through sudo).
set -euo pipefail

packages=(build-essential cmake ninja-build pkg-config libgtest-dev libgmock-dev
          libbenchmark-dev libcli11-dev nlohmann-json3-dev
          libtinyxml2-dev)
if [[ "${DV_WITH_CROSS:-0}" == 1 ]]; then
    packages+=(mingw-w64)
fi
if [[ "${DV_WITH_LINT:-0}" == 1 ]]; then
    packages+=(clang-format clang-tidy)
fi

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

sudo=()
if [[ $(id -u) -ne 0 ]]; then
    sudo=(sudo)
fi
echo "Installing: ${missing[*]}"
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
