#!/usr/bin/env bash
# What a full rebuild costs, binaries side by side: round after round, each binary rebuilds its own
# index of each tree (`brenloc reindex --clear-existing`, a process of its own, so that its peak RSS is its
# own), alternating; prints per tree the medians of wall time, CPU time (user + system: steadier than the
# wall time on a machine that others load) and peak RSS, the size of index.db, and each other binary's over
# the first's. Trees are the arguments that are directories.
#
#   bench/index_cost.sh [--rounds N] BASE_BINARY NEW_BINARY [MORE_BINARY...] TREE...
set -euo pipefail

rounds=3
if [[ "${1:-}" == --rounds ]]; then rounds=$2; shift 2; fi
(($# >= 3)) || { sed -n '2,7p' "$0"; exit 64; }
bins=()
while (($# > 0)) && [[ ! -d "$1" ]]; do bins+=("$1"); shift; done
((${#bins[@]} >= 2 && $# >= 1)) || { sed -n '2,8p' "$0"; exit 64; }
work=$(mktemp -d /tmp/index-cost.XXXXXX)
# A runtime directory of its own: no daemon of the user serves these commands.
export XDG_RUNTIME_DIR=$work/run
mkdir -m 700 "$work/run"
trap 'rm -rf "$work"' EXIT

median() { sort -n | awk '{v[NR]=$1} END {print (NR % 2) ? v[(NR+1)/2] : (v[NR/2] + v[NR/2+1]) / 2}'; }

for tree in "$@"; do
  name=$(basename "$tree")
  for i in "${!bins[@]}"; do
    # The first index, not timed: each round then rebuilds over an index, as a user's rebuild does.
    "${bins[$i]}" reindex -q --json --root "$tree" --data-dir "$work/$name-$i" --clear-existing >/dev/null
  done
  for ((r = 0; r < rounds; r++)); do
    for i in "${!bins[@]}"; do
      /usr/bin/time -f "%e %U %S %M" -o "$work/t" "${bins[$i]}" reindex -q --json --root "$tree" --data-dir "$work/$name-$i" \
        --clear-existing >/dev/null
      read -r secs user sys kb <"$work/t"
      echo "$secs" >>"$work/$name-$i.secs"
      echo "$user + $sys" | bc >>"$work/$name-$i.cpu"
      echo "$kb" >>"$work/$name-$i.kb"
    done
  done
  printf '%s (%d rounds)\n' "$tree" "$rounds"
  for i in "${!bins[@]}"; do
    s=$(median <"$work/$name-$i.secs")
    c=$(median <"$work/$name-$i.cpu")
    m=$(median <"$work/$name-$i.kb")
    b=$(stat -c %s "$work/$name-$i/index.db")
    printf '  %d %s\n    rebuild %7.1f s, CPU %7.1f s   peak RSS %6.1f MiB   index.db %7.1f MiB\n' "$i" "${bins[$i]}" "$s" "$c" \
      "$(echo "$m / 1024" | bc -l)" "$(echo "$b / 1048576" | bc -l)"
    if ((i == 0)); then
      base_s=$s base_c=$c base_m=$m base_b=$b
    else
      printf '    over 0: rebuild %.2f, CPU %.2f   peak RSS %.2f   index.db %.2f\n' "$(echo "$s / $base_s" | bc -l)" \
        "$(echo "$c / $base_c" | bc -l)" "$(echo "$m / $base_m" | bc -l)" "$(echo "$b / $base_b" | bc -l)"
    fi
  done
done
