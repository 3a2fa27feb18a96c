#!/usr/bin/env bash
# What a full rebuild costs, two binaries side by side: round after round, each binary rebuilds its own
# index of each tree (`brenloc reindex --clear-existing`, a process of its own, so that its peak RSS is its
# own), alternating; prints per tree the medians of wall time, CPU time (user + system: steadier than the
# wall time on a machine that others load) and peak RSS, the size of index.db, and the second binary's over
# the first's.
#
#   bench/index_cost.sh [--rounds N] BASE_BINARY NEW_BINARY TREE...
set -euo pipefail

rounds=3
if [[ "${1:-}" == --rounds ]]; then rounds=$2; shift 2; fi
(($# >= 3)) || { sed -n '2,7p' "$0"; exit 64; }
base=$1 new=$2
shift 2
work=$(mktemp -d /tmp/index-cost.XXXXXX)
# A runtime directory of its own: no daemon of the user serves these commands.
export XDG_RUNTIME_DIR=$work/run
mkdir -m 700 "$work/run"
trap 'rm -rf "$work"' EXIT

median() { sort -n | awk '{v[NR]=$1} END {print (NR % 2) ? v[(NR+1)/2] : (v[NR/2] + v[NR/2+1]) / 2}'; }

for tree in "$@"; do
  name=$(basename "$tree")
  for which in base new; do
    bin=${!which}
    # The first index, not timed: each round then rebuilds over an index, as a user's rebuild does.
    "$bin" reindex -q --json --root "$tree" --data-dir "$work/$name-$which" --clear-existing >/dev/null
  done
  for ((r = 0; r < rounds; r++)); do
    for which in base new; do
      bin=${!which}
      /usr/bin/time -f "%e %U %S %M" -o "$work/t" "$bin" reindex -q --json --root "$tree" --data-dir "$work/$name-$which" \
        --clear-existing >/dev/null
      read -r secs user sys kb <"$work/t"
      echo "$secs" >>"$work/$name-$which.secs"
      echo "$user + $sys" | bc >>"$work/$name-$which.cpu"
      echo "$kb" >>"$work/$name-$which.kb"
    done
  done
  printf '%s (%d rounds)\n' "$tree" "$rounds"
  for which in base new; do
    s=$(median <"$work/$name-$which.secs")
    c=$(median <"$work/$name-$which.cpu")
    m=$(median <"$work/$name-$which.kb")
    b=$(stat -c %s "$work/$name-$which/index.db")
    printf '  %-4s rebuild %7.1f s, CPU %7.1f s   peak RSS %6.1f MiB   index.db %7.1f MiB\n' "$which" "$s" "$c" \
      "$(echo "$m / 1024" | bc -l)" "$(echo "$b / 1048576" | bc -l)"
    eval "${which}_s=$s ${which}_c=$c ${which}_m=$m ${which}_b=$b"
  done
  printf '  new/base: rebuild %.2f, CPU %.2f   peak RSS %.2f   index.db %.2f\n' "$(echo "$new_s / $base_s" | bc -l)" \
    "$(echo "$new_c / $base_c" | bc -l)" "$(echo "$new_m / $base_m" | bc -l)" "$(echo "$new_b / $base_b" | bc -l)"
done
