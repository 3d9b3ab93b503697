#!/usr/bin/env bash
# How well the progress line's estimate of the time left holds on a real render.
#
#   bench/time_left.sh [SCENE [PASSES [QUAZEL_OPTIONS...]]]   default: scenes/first, 200 passes
#
# Renders the scene, then holds each progress line's `left` against the time the
# render really took from that pass on (the last line's elapsed less this one's),
# and prints the largest error once 10 %, 25 % and 50 % of the passes are done:
# as a share of the true time left while a tenth of the render is still to go
# (in its last seconds a share says little), and in seconds over all the passes.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
quazel="${QUAZEL:-$here/build/quazel}"
scene=${1:-$here/scenes/first}
passes=${2:-200}
shift $(($# < 2 ? $# : 2))
work=$(mktemp -d /tmp/time-left.XXXXXX)
trap 'rm -rf "$work"' EXIT
"$quazel" --samples "$passes" "$@" -o "$work" "$scene" >/dev/null 2>"$work/err.txt"
grep '^quazel-progress ' "$work/err.txt" | sed -E 's/.* pass=([0-9]+) passes=([0-9]+) elapsed=([0-9.]+) left=(-?[0-9.]+) .*/\1 \2 \3 \4/' |
  awk '{ pass[NR] = $1; total = $2; elapsed[NR] = $3; left[NR] = $4 }
    END {
      last = elapsed[NR]
      split("0.10 0.25 0.50", from, " ")
      for (f = 1; f <= 3; ++f) {
        worst = 0; seconds = 0
        for (i = 1; i < NR; ++i) {
          truth = last - elapsed[i]
          if (pass[i] < from[f] * total) continue
          e = left[i] - truth
          if (e < 0) e = -e
          if (e > seconds) seconds = e
          if (truth >= 0.1 * last && e / truth > worst) worst = e / truth
        }
        printf "from %3d%% of %d passes: largest error of the time left %5.1f%%, %.1f s (render %.1f s)\n",
          from[f] * 100, total, worst * 100, seconds, last
      }
    }'
