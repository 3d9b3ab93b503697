#!/usr/bin/env bash
# Imports and renders every glTF 2.0, OBJ and PLY file of Debian's
# assimp-testmodels at a small size and one pass, and counts what assimp read,
# what was imported, rendered, black, and what crashed (a signal, a sanitizer
# report or a time-out). Run by hand: QUAZEL=build-asan/quazel checks under the
# sanitizers. Files the format's own tests hold to be broken count as not read.
set -uo pipefail
cd "$(dirname "$0")/.."
quazel=$(realpath "${QUAZEL:-build/quazel}")
models=${MODELS:-/usr/share/assimp/models}
[ -d "$models" ] || { echo "install assimp-testmodels first (apt-get install assimp-testmodels)"; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
total=0 read=0 imported=0 rendered=0 black=0 crashed=0
while IFS= read -r file; do
  total=$((total + 1))
  rm -rf "$work/scene" "$work/out"
  timeout 300 "$quazel" import "$file" -o "$work/scene" >"$work/import.log" 2>&1
  status=$?
  verdict=""
  if [ $status -gt 2 ] || grep -q 'Sanitizer' "$work/import.log"; then
    crashed=$((crashed + 1)); verdict="CRASHED on import (status $status)"
  elif grep -q 'error :( import - cannot read' "$work/import.log"; then
    verdict="not read: $(grep -o 'cannot read.*' "$work/import.log" | head -c 160)"
  elif [ $status -ne 0 ]; then
    read=$((read + 1)); verdict="read, not imported: $(grep 'error :(' "$work/import.log" | head -c 160)"
  else
    read=$((read + 1)); imported=$((imported + 1))
    timeout 600 "$quazel" "$work/scene" --resolution 48 36 --samples 1 -o "$work/out" >"$work/render.log" 2>&1
    status=$?
    if [ $status -ne 0 ] || grep -q 'Sanitizer' "$work/render.log"; then
      crashed=$((crashed + 1)); verdict="CRASHED on render (status $status)"
    else
      rendered=$((rendered + 1))
      if grep -E '^avgerage +0\.000 +0\.000 +0\.000 ' "$work/render.log" >/dev/null; then
        black=$((black + 1)); verdict="rendered BLACK"
      else
        verdict="rendered: $(grep -m1 '^avgerage' "$work/render.log" | tr -s ' ' | cut -d' ' -f2-4)"
      fi
    fi
    warnings=$(grep -c 'warning :(' "$work/import.log")
    [ "$warnings" -gt 0 ] && verdict="$verdict; $warnings warning(s)"
  fi
  echo "${file#$models/}: $verdict"
done < <(find "$models/glTF2" -iname '*.gltf' -o -iname '*.glb' | sort; find "$models/OBJ" -iname '*.obj' | sort;
         find "$models/PLY" -iname '*.ply' | sort)
echo "files $total, read by assimp $read, imported $imported, rendered $rendered, black $black, crashed $crashed"
[ $crashed -eq 0 ]
