#!/usr/bin/env bash
# Crash campaign: kills `brenloc reindex --clear-existing` with SIGKILL at a random moment of a full
# rebuild, many times, and checks after each kill that the live index survived whole:
#   - PRAGMA integrity_check is "ok";
#   - the index is wholly the one before the rebuild or wholly the one a complete rebuild gives
#     (row counts and a checksum over every row), and each file's range of symbol rows holds exactly
#     its rows;
#   - the search tables agree with the symbols (each name once, case folded; the trigram index whole and
#     finding every name);
#   - a query works after the restart;
#   - the next rebuild succeeds, leaves no staging file and every index in place.
# Usage: crash_campaign.sh BRENLOC_BINARY [TRIALS] [SOURCE_TREE] [process|daemon]
# The source tree is copied first (default /usr/include); each trial adds a file with a new symbol so
# that the index before and after a rebuild differ. In daemon mode the rebuilds run in the user's daemon
# (a private one, in a runtime directory of the campaign's own), and the daemon is what gets killed; the
# checks then go through a new daemon that the next command starts.
set -euo pipefail

bin=${1:?usage: crash_campaign.sh BRENLOC_BINARY [TRIALS] [SOURCE_TREE] [process|daemon]}
trials=${2:-100}
source_tree=${3:-/usr/include}
mode=${4:-process}
work=$(mktemp -d /tmp/brenloc-crash-XXXXXX)
repo=$work/repo
data=$work/data
cp -r "$source_tree" "$repo"

via=()
if [[ $mode == daemon ]]; then
  # The daemon's workers catch up with the tree when they start; they do not watch it here (the trial
  # files would start passes of their own), and a rebuild is asked for only once the catching up is over.
  export XDG_RUNTIME_DIR=$work/runtime BRENLOC_DAEMON_IDLE_TIMEOUT=600 BRENLOC_NO_WATCH=1
  mkdir -m 700 "$XDG_RUNTIME_DIR"
  via=(--daemon)
  trap '"$bin" daemon --stop >/dev/null 2>&1; rm -rf "$work"' EXIT
else
  export XDG_RUNTIME_DIR=$work/no-runtime  # no daemon: every command runs its own worker
  trap 'rm -rf "$work"' EXIT
fi
# Waits until the repository's worker runs no pass (in daemon mode, starting the daemon when none runs).
settled() {
  [[ $mode == daemon ]] || return 0
  for _ in $(seq 600); do
    "$bin" status --daemon --repo "$repo" --data-dir "$data" 2>/dev/null | grep -q '"indexing": false' && return 0
    sleep 0.1
  done
  echo "the worker did not settle" >&2
  return 1
}
# The process to kill: the command itself, or the daemon it talks to.
victim() { if [[ $mode == daemon ]]; then head -1 "$XDG_RUNTIME_DIR/brenloc/daemon.lock"; else echo "$1"; fi; }

fingerprint() {  # counts and a checksum over every row of the live index
  sqlite3 "$data/index.db" "
    SELECT 'files', count(*) FROM files;
    SELECT 'symbols', count(*) FROM symbols;
    SELECT f.path, f.content_hash, f.size FROM files f ORDER BY f.path;
    SELECT f.path, s.name, s.kind, s.line, s.col, s.end_line, s.end_col, s.scope
      FROM symbols s JOIN files f ON f.id = s.file_id ORDER BY f.path, s.line, s.col, s.name, s.kind;" |
    md5sum | cut -c1-16
}
counts() { sqlite3 "$data/index.db" "SELECT (SELECT count(*) FROM files) || '/' || (SELECT count(*) FROM symbols)"; }
# Files whose recorded range of symbol rows is not exactly their rows, and symbol rows outside every range.
bad_ranges() {
  sqlite3 "$data/index.db" "
    SELECT (SELECT count(*) FROM files f WHERE f.symbol_count != (SELECT count(*) FROM symbols s
              WHERE s.id >= f.first_symbol AND s.id < f.first_symbol + f.symbol_count AND s.file_id = f.id))
        || ' ' || ((SELECT count(*) FROM symbols) - (SELECT coalesce(sum(symbol_count), 0) FROM files))"
}
# "0 0 ok 0" when the search tables agree with the symbols: names (with their numbers of rows) missing and
# stray, the trigram index's own check, names of three characters or more that the trigram index does not
# find by their first three.
search_tables() {
  sqlite3 -cmd ".timeout 5000" "$data/index.db" "
    SELECT (SELECT count(*) FROM (SELECT name, count(*) FROM symbols GROUP BY name
                                  EXCEPT SELECT name COLLATE BINARY, rows FROM names)) || ' ' ||
           (SELECT count(*) FROM (SELECT name COLLATE BINARY, rows FROM names
                                  EXCEPT SELECT name, count(*) FROM symbols GROUP BY name));
    INSERT INTO name_grams(name_grams) VALUES('integrity-check');
    SELECT 'ok';
    SELECT count(*) FROM names n WHERE length(n.name) >= 3 AND NOT EXISTS (SELECT 1 FROM name_grams
      WHERE name_grams MATCH '\"' || replace(lower(substr(n.name, 1, 3)), '\"', '\"\"') || '\"' AND rowid = n.id);" \
    2>&1 | tr '\n' ' ' | sed 's/ $//'
}
staging_left() { ls "$data"/index.db.reindex-staging* 2>/dev/null | wc -l; }
now_ms() { date +%s%3N; }
indexes() { sqlite3 "$data/index.db" "SELECT group_concat(name, ' ') FROM (SELECT name FROM sqlite_master WHERE type = 'index' ORDER BY name)"; }

settled
t0=$(now_ms)
"$bin" reindex "${via[@]}" --clear-existing --repo "$repo" --data-dir "$data" >/dev/null 2>"$work/log"
duration=$(( $(now_ms) - t0 ))
before=$(fingerprint)
want_indexes=$(indexes)  # every index of the schema, which each rebuild must leave in place
[[ " $want_indexes " == *" symbols_by_name "* ]] || { echo "the first rebuild left indexes: $want_indexes" >&2; exit 1; }
[[ $(search_tables) == "0 0 ok 0" ]] || { echo "the first rebuild left search tables: $(search_tables)" >&2; exit 1; }
echo "tree: $source_tree ($(counts) files/symbols), full rebuild ${duration} ms, $trials trials, $mode mode"

old_kept=0 new_swapped=0 failures=0
for ((i = 1; i <= trials; i++)); do
  rm -f "$repo"/brenloc_trial_*.h
  printf 'int brenloc_trial_%d_fn(void);\n' "$i" >"$repo/brenloc_trial_$i.h"

  settled
  "$bin" reindex "${via[@]}" --clear-existing --repo "$repo" --data-dir "$data" >/dev/null 2>>"$work/log" &
  pid=$!
  delay=$(( (RANDOM * 32768 + RANDOM) % (duration * 12 / 10 + 1) ))
  sleep "$(printf '%d.%03d' $((delay / 1000)) $((delay % 1000)))"
  kill -KILL "$(victim "$pid")" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true

  problem=""
  integrity=$(sqlite3 "$data/index.db" "PRAGMA integrity_check" 2>&1 || true)
  [[ "$integrity" == "ok" ]] || problem+=" integrity=$integrity"
  after_kill=$(fingerprint)
  [[ $(bad_ranges) == "0 0" ]] || problem+=" symbol ranges after the kill: $(bad_ranges)"
  [[ $(search_tables) == "0 0 ok 0" ]] || problem+=" search tables after the kill: $(search_tables)"
  "$bin" search "${via[@]}" --repo "$repo" --data-dir "$data" --limit 1 main >/dev/null 2>>"$work/log" ||
    problem+=" query failed"
  settled
  if ! "$bin" reindex "${via[@]}" --clear-existing --repo "$repo" --data-dir "$data" >/dev/null 2>>"$work/log"; then
    problem+=" next rebuild failed"
  fi
  [[ $(staging_left) -eq 0 ]] || problem+=" staging files left"
  [[ $(bad_ranges) == "0 0" ]] || problem+=" symbol ranges after the next rebuild: $(bad_ranges)"
  [[ $(search_tables) == "0 0 ok 0" ]] || problem+=" search tables after the next rebuild: $(search_tables)"
  [[ $(indexes) == "$want_indexes" ]] || problem+=" indexes: $(indexes)"
  complete=$(fingerprint)
  if [[ "$after_kill" == "$before" ]]; then
    old_kept=$((old_kept + 1)); state=old
  elif [[ "$after_kill" == "$complete" ]]; then
    new_swapped=$((new_swapped + 1)); state=new
  else
    state=mixed; problem+=" index neither old nor new"
  fi
  if [[ -n "$problem" ]]; then
    failures=$((failures + 1))
    echo "trial $i: killed after ${delay} ms: FAILED:$problem"
  else
    echo "trial $i: killed after ${delay} ms: $state index, integrity ok, query ok, next rebuild ok"
  fi
  before=$complete
done

echo "summary: $trials trials, $old_kept kept the old index, $new_swapped had the new one, $failures failed"
[[ $failures -eq 0 ]]
