#!/usr/bin/env bash
# Installs what is missing, builds, and renders a scene directory (the bundled
# example when none is given) into build/renders/. Options such as --preview
# pass on to the quazel command.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release ${QZ_CMAKE_ARGS:-} >/dev/null
cmake --build build --target quazel_app
args=()
for arg in "$@"; do
  # The render runs in build/renders, so a scene path becomes absolute first.
  if [[ "$arg" != -* && -d "$arg" ]]; then arg="$(cd "$arg" && pwd)"; fi
  args+=("$arg")
done
mkdir -p build/renders
cd build/renders
exec "$root/build/quazel" "${args[@]}"
