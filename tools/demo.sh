#!/usr/bin/env bash
# Builds everything (Release), runs the example program and decodes the demo
# log with the command-line tool.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

bash tools/install_deps.sh

echo "== configure build/ (Release)"
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
echo "== build"
cmake --build build -j2
echo "== run build/examples/tarn_example"
./build/examples/tarn_example
echo "== build/tools/tarn decode examples/demo.dbc examples/demo.log"
./build/tools/tarn decode examples/demo.dbc examples/demo.log
