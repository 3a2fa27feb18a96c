#!/usr/bin/env bash
# Parse-only and parse+extract throughput with each tree-sitter runtime (the C source vendored by
# the npm package, and Debian's libtree-sitter), built side by side in Release and run alternately
# on the same files, so that a noisy machine affects both alike.
#
#   bench/parse_runtimes.sh [--sample K] [--turns N] [DIR...]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BRENLOC_BENCH_BUILD:-$root/build/parse-runtimes}"
sample=4
turns=3
dirs=()
while (($#)); do
  case "$1" in
    --sample) sample="$2"; shift 2 ;;
    --turns) turns="$2"; shift 2 ;;
    *) dirs+=("$1"); shift ;;
  esac
done
((${#dirs[@]})) || dirs=(/usr/include /usr/lib/python3)

for rt in vendored system; do
  cmake -S "$root" -B "$build/$rt" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF \
    -DCMAKE_C_COMPILER="${CC:-clang-19}" -DCMAKE_CXX_COMPILER="${CXX:-clang++-19}" \
    -DBRENLOC_TREE_SITTER_RUNTIME="$rt" >/dev/null
  cmake --build "$build/$rt" --target parse_bench >/dev/null
done

out="$(mktemp)"
trap 'rm -f "$out"' EXIT
for ((turn = 1; turn <= turns; turn++)); do
  for rt in vendored system; do
    "$build/$rt/bench/parse_bench" --no-ctags --sample "$sample" "${dirs[@]}" |
      awk -v rt="$rt" 'NF == 13 && $1 ~ /^\// && $1 !~ /:$/ {print rt, $1, $4, $7}' >>"$out"
  done
done

# Best turn of each (runtime, tree); the ratios compare the runtimes on the same tree.
echo "every ${sample}th file, best of ${turns} alternating turns"
awk '
  { key = $1 " " $2; if (!(key in p) || $3 < p[key]) p[key] = $3; if (!(key in e) || $4 < e[key]) e[key] = $4; trees[$2] = 1 }
  END {
    printf "%-20s %12s %12s %12s %12s %10s %10s\n", "tree", "parse vend", "parse sys", "extr vend", "extr sys", "parse s/v", "extr s/v"
    for (t in trees) {
      v = "vendored " t; s = "system " t
      printf "%-20s %12.2f %12.2f %12.2f %12.2f %10.2f %10.2f\n", t, p[v], p[s], e[v], e[s], p[s] / p[v], e[s] / e[v]
    }
  }' "$out"
