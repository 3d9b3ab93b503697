#!/usr/bin/env bash
# What saving a checkpoint every few seconds costs a render, on the example scenes.
#
#   bench/checkpoint_cost.sh [SECONDS_PER_RUN [PAIRS [SCENE...]]]
#
# Each scene renders for SECONDS_PER_RUN (45 by default, through --time-limit) with
# no checkpoint and with --checkpoint 10, in turn, PAIRS times (2 by default), the
# order swapped each pair so that a drifting machine favours neither. A run's speed
# is the seconds of its passes over their count, read from its last progress line;
# the cost is the ratio of the two runs of a pair, less one. The
# machine is shared and noisy: read the spread of the pairs, not one figure.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
quazel="${QUAZEL:-$here/build/quazel}"
seconds=${1:-45}
pairs=${2:-2}
shift $(($# < 2 ? $# : 2))
scenes=("$@")
[ ${#scenes[@]} -gt 0 ] || scenes=(first cornell-box bunny spot hair materials gltf/still-life.gltf)
work=$(mktemp -d /tmp/checkpoint-cost.XXXXXX)
trap 'rm -rf "$work"' EXIT

# Seconds per pass of one run: the last progress line's elapsed time over its passes.
seconds_per_pass() {
  local scene=$1 out="$work/run"
  shift
  rm -rf "$out"
  mkdir -p "$out"
  "$quazel" --samples 65535 --time-limit "$seconds" "$@" -o "$out" "$here/scenes/$scene" >"$out/report.txt" 2>"$out/err.txt" ||
    { echo "checkpoint_cost: $scene failed: $(tail -n 2 "$out/err.txt")" >&2; return 1; }
  grep '^quazel-progress ' "$out/err.txt" | tail -n 1 |
    sed -E 's/.* pass=([0-9]+) .* elapsed=([0-9.]+) .*/\2 \1/' | awk '{ printf "%.6f %d\n", $1 / $2, $2 }'
}

printf '%-22s %4s %12s %12s %8s %8s\n' scene pair "s/pass off" "s/pass on" passes cost
for scene in "${scenes[@]}"; do
  for pair in $(seq "$pairs"); do
    if [ $((pair % 2)) -eq 1 ]; then
      read -r off passes < <(seconds_per_pass "$scene")
      read -r on _ < <(seconds_per_pass "$scene" --checkpoint 10)
    else
      read -r on _ < <(seconds_per_pass "$scene" --checkpoint 10)
      read -r off passes < <(seconds_per_pass "$scene")
    fi
    awk -v s="$scene" -v p="$pair" -v a="$off" -v b="$on" -v n="$passes" \
      'BEGIN { printf "%-22s %4d %12.4f %12.4f %8d %+7.2f%%\n", s, p, a, b, n, (b / a - 1) * 100 }'
  done
done
