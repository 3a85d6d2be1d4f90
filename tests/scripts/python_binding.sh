#!/usr/bin/env bash
# The ctypes binding under pytest, against the freshly built library.
# Args: $1 libtarn.so, $2 source dir, $3 build dir.
set -uo pipefail

lib=$1
src=$2
build=$3

# An instrumented library cannot be loaded into an uninstrumented python.
if grep -Eq '^TARN_SANITIZE:STRING=.+' "$build/CMakeCache.txt" 2>/dev/null; then
    echo "sanitizer build: the binding is not tested here"
    exit 77
fi

# The first interpreter that has both python-can and pytest (the Debian
# packages python3-can and python3-pytest install them for /usr/bin/python3).
python=
for candidate in python3 /usr/bin/python3; do
    if command -v "$candidate" >/dev/null &&
        "$candidate" -c 'import can, pytest' >/dev/null 2>&1; then
        python=$candidate
        break
    fi
done
if [ -z "$python" ]; then
    echo "python3 with python-can and pytest not found (apt-get install python3-can python3-pytest)"
    exit 77
fi

export TARN_LIBRARY=$lib
export TARN_CLI=$build/tools/tarn
export PYTHONDONTWRITEBYTECODE=1
cd "$src/python" && exec "$python" -m pytest -q -p no:cacheprovider tests
