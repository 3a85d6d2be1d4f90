#!/usr/bin/env bash
# The Python package under pytest, against the freshly built library and tool.
# Args: $1 libtarn.so, $2 source dir, $3 build dir.
set -uo pipefail

# An instrumented library cannot be loaded into an uninstrumented python.
if grep -Eq '^TARN_SANITIZE:STRING=.+' "$3/CMakeCache.txt" 2>/dev/null; then
    echo "sanitizer build: the binding is not tested here"
    exit 77
fi
# Debian's python3-* packages install these for /usr/bin/python3 (tools/install_deps.sh).
modules="can, pytest, numpy, pandas, matplotlib, dask.dataframe, distributed"
for python in python3 /usr/bin/python3 ""; do
    [ -n "$python" ] && "$python" -c "import $modules" >/dev/null 2>&1 && break
done
if [ -z "$python" ]; then
    echo "no python3 with $modules (run tools/install_deps.sh)"
    exit 77
fi

export TARN_LIBRARY=$1 TARN_CLI=$3/tools/tarn PYTHONDONTWRITEBYTECODE=1
cd "$2/python" && exec "$python" -m pytest -q -p no:cacheprovider tests
