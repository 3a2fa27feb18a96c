// Load on `brenloc serve` over stdio: batches of pipelined index_status and search_symbols calls,
// idle and while a full rebuild runs. Prints p50/p99 latency and requests/s per phase, checks that every
// request is answered, and follows the server's resident memory across the batches.
//
// Usage: node bench/serve_load.mjs BRENLOC_BINARY REPO [--requests N] [--batches B] [--check]
// With --check it exits non-zero when an answer is missing or wrong, when the rebuild phase did not
// overlap a rebuild, or when memory grows batch after batch (the form run by CTest).
import { spawn } from "node:child_process";
import { existsSync, readFileSync, mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";

const args = process.argv.slice(2);
const [bin, repo] = args;
const opt = (name, dflt) => {
  const i = args.indexOf(name);
  return i >= 0 ? Number(args[i + 1]) : dflt;
};
const requests = opt("--requests", 10000);
const batches = opt("--batches", 3);
const check = args.includes("--check");
if (!bin || !repo) {
  console.error("usage: serve_load.mjs BRENLOC_BINARY REPO [--requests N] [--batches B] [--check]");
  process.exit(64);
}

const data = mkdtempSync(join(tmpdir(), "brenloc-load-"));
const server = spawn(bin, ["serve", "--repo", repo, "--data-dir", data], { stdio: ["pipe", "pipe", "ignore"] });
const pending = new Map();  // id -> {sent, resolve}
const notifications = [];
let buffer = "";
server.stdout.setEncoding("utf8");
server.stdout.on("data", (chunk) => {
  buffer += chunk;
  let nl;
  while ((nl = buffer.indexOf("\n")) >= 0) {
    const line = buffer.slice(0, nl);
    buffer = buffer.slice(nl + 1);
    const msg = JSON.parse(line);
    if (msg.id === undefined) {
      notifications.push(msg);
      continue;
    }
    const p = pending.get(msg.id);
    if (p) {
      pending.delete(msg.id);
      p.resolve({ msg, us: Number(process.hrtime.bigint() - p.sent) / 1000 });
    }
  }
});

let nextId = 0;
function call(method, params) {
  const id = nextId++;
  return new Promise((resolve) => {
    pending.set(id, { sent: process.hrtime.bigint(), resolve });
    server.stdin.write(JSON.stringify({ jsonrpc: "2.0", id, method, params }) + "\n");
  });
}
const tool = (name, args) => call("tools/call", { name, arguments: args });
// The memory to follow is the daemon's when serve relays to one (its pid heads its lock file), else
// the serving process's own.
function memoryPid() {
  try {
    const pid = Number(readFileSync(join(process.env.XDG_RUNTIME_DIR ?? "", "brenloc", "daemon.lock"), "utf8").split("\n")[0]);
    if (pid > 0 && existsSync(`/proc/${pid}/status`)) return pid;
  } catch { /* no daemon */ }
  return server.pid;
}
const rssKiB = () => Number(/VmRSS:\s+(\d+)/.exec(readFileSync(`/proc/${memoryPid()}/status`, "utf8"))[1]);
const pct = (sorted, p) => sorted[Math.min(sorted.length - 1, Math.floor(sorted.length * p))];
// After a rebuild the worker still writes its report and hands freed memory back to the system, so a
// reading taken at the completion notice can land before or after that trim. Memory is read once it
// has held still for a second (at most ten seconds after the notice).
async function settledRssKiB() {
  const readings = [rssKiB()];
  for (let waited = 0; waited < 10000; waited += 100) {
    await new Promise((r) => setTimeout(r, 100));
    readings.push(rssKiB());
    const last = readings.slice(-11);
    if (last.length === 11 && Math.max(...last) - Math.min(...last) < 1024) break;
  }
  return readings.at(-1);
}

async function batch() {
  const started = process.hrtime.bigint();
  const calls = [];
  for (let i = 0; i < requests; i++) {
    calls.push(i % 2 ? tool("index_status", {}) : tool("search_symbols", { query: ["str", "get", "init", "x"][i % 4], limit: 5 }));
  }
  const answers = await Promise.all(calls);
  const seconds = Number(process.hrtime.bigint() - started) / 1e9;
  const us = answers.map((a) => a.us).sort((a, b) => a - b);
  const bad = answers.filter((a) => !a.msg.result || a.msg.result.isError).length;
  const indexing = answers.some((a) => a.msg.result?.structuredContent?.indexing === true);
  return { p50: pct(us, 0.5) / 1000, p99: pct(us, 0.99) / 1000, rps: requests / seconds, bad, indexing };
}

const failures = [];
await call("initialize", { protocolVersion: "2025-06-18", capabilities: {}, clientInfo: { name: "load", version: "1" } });
server.stdin.write(JSON.stringify({ jsonrpc: "2.0", method: "notifications/initialized" }) + "\n");
// The worker first catches up with the tree by itself; the rebuilds come after that.
while ((await tool("index_status", {})).msg.result?.structuredContent?.indexing) await new Promise((r) => setTimeout(r, 50));
const first = await tool("force_reindex", { clear_existing: true });
if (first.msg.result?.structuredContent?.status !== "accepted") {
  console.error(`FAIL: first rebuild not accepted: ${JSON.stringify(first.msg.result)}`);
  process.exit(1);
}
const outcome = () => notifications.find((n) => ["reindex_complete", "reindex_failed"].includes(n.params?.data?.type));
while (!outcome()) await new Promise((r) => setTimeout(r, 50));
if (outcome().params.data.type !== "reindex_complete") failures.push(`first rebuild: ${JSON.stringify(outcome().params.data)}`);

console.log(`${"phase".padEnd(18)} ${"batch".padStart(5)} ${"p50 ms".padStart(9)} ${"p99 ms".padStart(9)} ${"req/s".padStart(9)} ${"RSS MiB".padStart(8)}`);
const rss = {};  // phase -> resident memory after each batch, once that batch's rebuild had ended
for (const phase of ["idle", "during rebuild"]) {
  rss[phase] = [];
  for (let b = 0; b < batches; b++) {
    let done = 0;
    if (phase !== "idle") {
      const r = await tool("force_reindex", { clear_existing: true });
      if (r.msg.result?.structuredContent?.status !== "accepted") failures.push(`rebuild ${b} not accepted`);
      done = notifications.length;
    }
    const f = await batch();
    if (f.bad) failures.push(`${phase} batch ${b + 1}: ${f.bad} failed answers`);
    if (phase !== "idle") {
      if (!f.indexing) failures.push(`${phase} batch ${b + 1} did not overlap the rebuild`);
      while (!notifications.slice(done).some((n) => ["reindex_complete", "reindex_failed"].includes(n.params?.data?.type))) {
        await new Promise((r) => setTimeout(r, 50));
      }
    }
    rss[phase].push(await settledRssKiB());
    console.log(`${phase.padEnd(18)} ${String(b + 1).padStart(5)} ${f.p50.toFixed(2).padStart(9)} ${f.p99.toFixed(2).padStart(9)} ${f.rps.toFixed(0).padStart(9)} ${(rss[phase].at(-1) / 1024).toFixed(1).padStart(8)}`);
  }
}
// Memory is stable when batch after batch of the same phase does not keep adding to it. (A rebuild's
// working set, its staging database's page cache and the parsers' buffers, is there once, not per batch.)
for (const [phase, kib] of Object.entries(rss)) {
  const growth = (kib.at(-1) - kib[0]) / 1024;
  console.log(`${phase}: RSS ${kib.map((k) => (k / 1024).toFixed(1)).join(" -> ")} MiB`);
  if (growth > 32) failures.push(`memory grew by ${growth.toFixed(1)} MiB over the ${phase} batches`);
}
console.log(`answered ${nextId} requests`);
if (pending.size) failures.push(`${pending.size} requests unanswered`);

server.stdin.end();
const code = await new Promise((r) => server.on("exit", r));
if (code !== 0) failures.push(`server exited with ${code}`);
rmSync(data, { recursive: true, force: true });
for (const f of failures) console.error("FAIL: " + f);
process.exit(check && failures.length ? 1 : 0);
