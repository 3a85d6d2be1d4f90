#!/usr/bin/env bash
# Installs the Debian 12 packages needed to build and test libtarn; does
# nothing when they are all present already.
set -euo pipefail

packages=(cmake g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev
          pkg-config python3 python3-can python3-pytest python3-numpy python3-pandas
          python3-matplotlib python3-dask python3-distributed python3-pip binutils)

missing=()
for pkg in "${packages[@]}"; do
    if ! dpkg -s "$pkg" >/dev/null 2>&1; then
        missing+=("$pkg")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    echo "install_deps: all packages present"
    exit 0
fi

sudo=()
if [ "$(id -u)" -ne 0 ]; then
    sudo=(sudo)
fi

echo "install_deps: installing ${missing[*]}"
"${sudo[@]}" apt-get update
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y "${missing[@]}"
