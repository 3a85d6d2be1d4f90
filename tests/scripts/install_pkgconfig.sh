#!/usr/bin/env bash
# Installs the build into a scratch prefix and links a C program against it,
# through pkg-config and through CMake's find_package; the installed tool
# starts from the prefix. Args: $1 libtarn.so, $2 source dir, $3 build dir.
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
test -f "$prefix/include/tarn.h" && test -f "$prefix/include/tarn/db.h"
[ ! -x "$prefix/bin/tarn" ] || env -u LD_LIBRARY_PATH "$prefix/bin/tarn" --version

mkdir "$work/cm"
printf '#include <tarn.h>\nint main(void) { return TARN_GetFrameType() == 0 ? 0 : 1; }\n' \
    >"$work/cm/consumer.c"
printf 'cmake_minimum_required(VERSION 3.16)\nproject(consumer LANGUAGES C)\n%s\n%s\n%s\n' \
    'find_package(tarn REQUIRED)' 'add_executable(consumer consumer.c)' \
    'target_link_libraries(consumer PRIVATE tarn::tarn)' >"$work/cm/CMakeLists.txt"

read -r -a flags <<<"$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs tarn)"
cc -std=c11 -Wall -Wextra -Werror "$work/cm/consumer.c" -o "$work/consumer" "${flags[@]}"
LD_LIBRARY_PATH=$libdir "$work/consumer"

cmake -S "$work/cm" -B "$work/cm/build" -DCMAKE_PREFIX_PATH="$prefix" >"$work/cm.log"
cmake --build "$work/cm/build" >>"$work/cm.log"
LD_LIBRARY_PATH=$libdir "$work/cm/build/consumer"
echo "install and both consumers OK"
