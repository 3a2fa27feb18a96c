#!/usr/bin/env bash
# Smoke test with the MCP Inspector's command-line mode: `tools/list` and one `tools/call` against
# `brenloc serve`, each checked for the answer a client relies on.
# Usage: mcp_cli_smoke.sh BRENLOC_BINARY REPO DATA_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
inspector=$here/node_modules/.bin/mcp-inspector
bin=$1 repo=$2 data=$3

tools=$(timeout 120 "$inspector" --cli "$bin" serve --root "$repo" --data-dir "$data" --method tools/list)
for tool in force_reindex index_status search_symbols; do
  grep -q "\"name\": \"$tool\"" <<<"$tools" || { echo "tools/list lacks $tool:"; echo "$tools"; exit 1; }
done

status=$(timeout 120 "$inspector" --cli "$bin" serve --root "$repo" --data-dir "$data" \
  --method tools/call --tool-name index_status)
grep -q '"repo_root"' <<<"$status" || { echo "index_status answered:"; echo "$status"; exit 1; }
grep -q '"isError": false' <<<"$status" || { echo "index_status failed:"; echo "$status"; exit 1; }
echo "inspector: tools/list and tools/call index_status answered"
