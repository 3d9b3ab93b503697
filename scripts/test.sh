#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release ${QZ_CMAKE_ARGS:-} >/dev/null
cmake --build build
cd build && ctest --output-on-failure -j 2
