#!/usr/bin/env bash
# The Python package under pytest, against the freshly built library.
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

# The first interpreter that has every package the tests use (Debian's
# python3-* packages install them for /usr/bin/python3; tools/install_deps.sh
# lists them).
modules="can, pytest, numpy, pandas, matplotlib, dask.dataframe, distributed"
python=
for candidate in python3 /usr/bin/python3; do
    if command -v "$candidate" >/dev/null &&
        "$candidate" -c "import $modules" >/dev/null 2>&1; then
        python=$candidate
        break
    fi
done
if [ -z "$python" ]; then
    echo "no python3 with $modules (run tools/install_deps.sh)"
    exit 77
fi

export TARN_LIBRARY=$lib
export PYTHONDONTWRITEBYTECODE=1
cd "$src/python" && exec "$python" -m pytest -q -p no:cacheprovider tests
