#!/usr/bin/env bash
# Renders a scene on a Slurm cluster as N tiles and merges them into one frame.
#
#   scripts/farm/submit.sh [--tiles LIST] SCENE_DIR OUT_DIR N [QUAZEL_OPTIONS...]
#
# Submits a job array of the N tiles (OUT_DIR/tile-I) and a merge job that waits
# for all of them to succeed (OUT_DIR/frame); job logs go to OUT_DIR/logs. With
# --tiles LIST (in sbatch's array syntax, such as 3 or 2,5-6) only those tiles are
# submitted again, with a new merge. QUAZEL_OPTIONS pass on to every tile, such
# as --samples 256. The quazel binary is $QUAZEL, by default build/quazel of this
# checkout; it and the folders must be on storage that every node sees. sbatch's
# own SBATCH_* variables (SBATCH_PARTITION, SBATCH_TIMELIMIT, ...) apply to both jobs.
# Prints the two job ids: the array's, then the merge's.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
tiles=""
if [ "${1:-}" = "--tiles" ]; then
  tiles=$2
  shift 2
fi
if [ $# -lt 3 ]; then
  sed -n '2,/^set/p' "$0" | sed '$d; s/^# \{0,1\}//' >&2
  exit 2
fi
scene="$(cd "$1" && pwd)" out=$2 count=$3
shift 3
quazel="$(realpath "${QUAZEL:-$here/../../build/quazel}")"
[ -x "$quazel" ] || { echo "submit: no quazel binary at $quazel" >&2; exit 2; }
mkdir -p "$out/logs"
out="$(cd "$out" && pwd)"
array=$(sbatch --parsable --array="${tiles:-1-$count}" --output="$out/logs/tile-%a.out" \
  "$here/render-tile.sbatch" "$quazel" "$scene" "$out" "$count" "$@")
array=${array%%;*}
merge=$(sbatch --parsable --dependency="afterok:$array" --output="$out/logs/merge-%j.out" \
  "$here/merge.sbatch" "$quazel" "$out" "$count")
echo "${array} ${merge%%;*}"
