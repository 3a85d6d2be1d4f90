#!/usr/bin/env bash
# Installs the build into a scratch prefix and links two consumers against it:
# a C program through pkg-config and a CMake project through find_package;
# the installed tool runs from the prefix.
# Args: $1 libtarn.so, $2 source dir, $3 build dir.
set -euo pipefail
build=$3

# Sanitized libraries need their runtime in every consumer: not a packaging test.
if grep -Eq '^TARN_SANITIZE:[A-Z]*=.+' "$build/CMakeCache.txt"; then
    echo "sanitizer build: skipped"
    exit 77
fi
for tool in pkg-config cc cmake; do
    command -v "$tool" >/dev/null || { echo "$tool not found: skipped"; exit 77; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log"
pcdir=$(dirname "$(find "$prefix" -name tarn.pc | head -n1)")
libdir=$(dirname "$(find "$prefix" -name 'libtarn.so' | head -n1)")
test -f "$prefix/include/tarn.h"
test -f "$prefix/include/tarn/db.h"
# The installed tool starts from its prefix with no library path set.
if [ -x "$prefix/bin/tarn" ]; then
    env -u LD_LIBRARY_PATH "$prefix/bin/tarn" --version
fi

mkdir "$work/cm"
cat >"$work/cm/consumer.c" <<'C'
#include <stdio.h>
#include <tarn.h>
int main(void) {
    unsigned type = TARN_GetFrameType();
    printf("frame type %u\n", type);
    return type == 0 ? 0 : 1;
}
C
cat >"$work/cm/CMakeLists.txt" <<'CM'
cmake_minimum_required(VERSION 3.16)
project(tarn_consumer LANGUAGES C)
find_package(tarn REQUIRED)
add_executable(consumer consumer.c)
target_link_libraries(consumer PRIVATE tarn::tarn)
CM

read -r -a flags <<<"$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs tarn)"
cc -std=c11 -Wall -Wextra -Werror "$work/cm/consumer.c" -o "$work/consumer" "${flags[@]}"
LD_LIBRARY_PATH=$libdir "$work/consumer"

cmake -S "$work/cm" -B "$work/cm/build" -DCMAKE_PREFIX_PATH="$prefix" >"$work/cm.log"
cmake --build "$work/cm/build" >>"$work/cm.log"
LD_LIBRARY_PATH=$libdir "$work/cm/build/consumer"
echo "install and both consumers OK"
