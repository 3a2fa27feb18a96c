// What the shared daemon costs and holds, measured side by side in one run:
//   1. latency of one tool call at a time through `brenloc serve` and the daemon, against the same call
//      answered in the serving process (`serve --standalone`), in interleaved rounds; p50/p99 and what the
//      daemon adds at p99;
//   2. many sessions, each sending searches one after another while a full rebuild runs: every call
//      answered and none failed, and the daemon's resident memory before, during and after.
//
// Usage: node bench/daemon_bench.mjs BRENLOC_BINARY TREE [--calls N] [--rounds R] [--sessions S] [--searches K]
//                                    [--repeat N]   (part 2 N times: the daemon's memory must not climb)
// TREE is indexed once per data directory; for part 2 it should take the rebuild a good while (a copy of
// /usr/include takes ~20 s), so that the searches run during it.
import { spawn, execFileSync } from "node:child_process";
import { mkdtempSync, mkdirSync, readFileSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";

const args = process.argv.slice(2);
const [bin, tree] = args;
const opt = (name, dflt) => (args.includes(name) ? Number(args[args.indexOf(name) + 1]) : dflt);
const calls = opt("--calls", 2000);
const rounds = opt("--rounds", 3);
const sessions = opt("--sessions", 32);
const searches = opt("--searches", 1000);
if (!bin || !tree) {
  console.error("usage: daemon_bench.mjs BRENLOC_BINARY TREE [--calls N] [--rounds R] [--sessions S] [--searches K]");
  process.exit(64);
}

const scratch = mkdtempSync(join(tmpdir(), "brenloc-daemon-bench-"));
const runtime = join(scratch, "runtime");
mkdirSync(runtime, { mode: 0o700 });
const env = { ...process.env, XDG_RUNTIME_DIR: runtime, BRENLOC_DAEMON_IDLE_TIMEOUT: "600" };
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const pct = (sorted, p) => sorted[Math.min(sorted.length - 1, Math.floor(sorted.length * p))];

// A raw MCP session over a `brenloc serve` process: one JSON-RPC line each way.
function session(extra, data) {
  const child = spawn(bin, ["serve", ...extra, "--repo", tree, "--data-dir", data], { env, stdio: ["pipe", "pipe", "ignore"] });
  const pending = new Map();
  const notes = [];
  let buffer = "";
  let next = 1;
  child.stdout.setEncoding("utf8");
  child.stdout.on("data", (chunk) => {
    buffer += chunk;
    for (let nl; (nl = buffer.indexOf("\n")) >= 0; ) {
      const msg = JSON.parse(buffer.slice(0, nl));
      buffer = buffer.slice(nl + 1);
      if (msg.id === undefined) notes.push(msg);
      else pending.get(msg.id)?.(msg), pending.delete(msg.id);
    }
  });
  const request = (method, params) =>
    new Promise((resolve) => {
      const id = next++;
      pending.set(id, resolve);
      child.stdin.write(JSON.stringify({ jsonrpc: "2.0", id, method, params }) + "\n");
    });
  const tool = (name, args) => request("tools/call", { name, arguments: args });
  const outcome = async (from) => {
    while (!notes.slice(from).some((n) => ["reindex_complete", "reindex_failed"].includes(n.params?.data?.type))) await sleep(20);
  };
  return {
    child, notes, tool, outcome,
    // Initialises, then waits for the worker's pass at start (it catches up with the tree) to end.
    init: async () => {
      await request("initialize", { protocolVersion: "2025-11-25", capabilities: {}, clientInfo: { name: "bench", version: "1" } });
      while ((await tool("index_status", {})).result?.structuredContent?.indexing) await sleep(50);
    },
    close: () => new Promise((r) => { child.on("exit", r); child.stdin.end(); }),
  };
}

const daemonPid = () => Number(readFileSync(join(runtime, "brenloc", "daemon.lock"), "utf8").split("\n")[0]);
const rssMiB = (pid) => Number(/VmRSS:\s+(\d+)/.exec(readFileSync(`/proc/${pid}/status`, "utf8"))[1]) / 1024;

// --- 1. latency, one call at a time ---
const queries = ["get", "init", "str", "x", "run", "main"];
async function latencies(s) {
  const us = [];
  for (let i = 0; i < calls; i++) {
    const t = process.hrtime.bigint();
    const r = await s.tool(i % 2 ? "index_status" : "search_symbols", i % 2 ? {} : { query: queries[i % queries.length], limit: 5 });
    us.push(Number(process.hrtime.bigint() - t) / 1000);
    if (!r.result || r.result.isError) throw new Error("a call failed: " + JSON.stringify(r).slice(0, 300));
  }
  return us;
}

const modes = { "in process (--standalone)": ["--standalone"], "through the daemon": [] };
const samples = Object.fromEntries(Object.keys(modes).map((m) => [m, []]));
const dataOf = Object.fromEntries(Object.keys(modes).map((m, i) => [m, join(scratch, `data-${i}`)]));
for (const [mode, extra] of Object.entries(modes)) {  // index each data directory once
  const s = session(extra, dataOf[mode]);
  await s.init();
  const from = s.notes.length;
  await s.tool("force_reindex", { clear_existing: true });
  await s.outcome(from);
  await s.close();
}
for (let round = 0; round < rounds; round++) {
  for (const [mode, extra] of Object.entries(modes)) {
    const s = session(extra, dataOf[mode]);
    await s.init();
    await latencies(s);  // warm-up: caches, the worker's statements
    samples[mode].push(...(await latencies(s)));
    await s.close();
  }
}
console.log(`1. one call at a time (${calls} per round, ${rounds} interleaved rounds; search_symbols and index_status)`);
const summary = {};
for (const [mode, us] of Object.entries(samples)) {
  us.sort((a, b) => a - b);
  summary[mode] = { p50: pct(us, 0.5), p99: pct(us, 0.99) };
  console.log(`   ${mode.padEnd(28)} p50 ${summary[mode].p50.toFixed(0).padStart(5)} us   p99 ${summary[mode].p99.toFixed(0).padStart(5)} us`);
}
const [alone, shared] = Object.values(summary);
console.log(`   added by serve + daemon:     p50 ${(shared.p50 - alone.p50).toFixed(0)} us, p99 ${(shared.p99 - alone.p99).toFixed(0)} us ` +
            `(ratio p50 ${(shared.p50 / alone.p50).toFixed(2)}x, p99 ${(shared.p99 / alone.p99).toFixed(2)}x)`);

// --- 2. many sessions searching during a rebuild ---
const data = dataOf["through the daemon"];
const all = Array.from({ length: sessions }, () => session([], data));
await Promise.all(all.map((s) => s.init()));
const pid = daemonPid();
const repeats = opt("--repeat", 2);
console.log(`2. ${sessions} sessions x ${searches} searches during a full rebuild of ${tree}, ${repeats} times`);
for (let rep = 1; rep <= repeats; rep++) {
  while ((await all[0].tool("index_status", {})).result?.structuredContent?.indexing) await sleep(50);
  const rss = { before: rssMiB(pid), peak: 0 };
  const watch = setInterval(() => { rss.peak = Math.max(rss.peak, rssMiB(pid)); }, 100);
  const from = all[0].notes.length;
  const started = await all[0].tool("force_reindex", { clear_existing: true });
  if (started.result?.structuredContent?.status !== "accepted") throw new Error("the rebuild was not accepted");
  let answered = 0, failed = 0, duringRebuild = 0;
  const t0 = process.hrtime.bigint();
  const us = [];
  await Promise.all(all.map(async (s, k) => {
    for (let i = 0; i < searches; i++) {
      const t = process.hrtime.bigint();
      const r = await s.tool("search_symbols", { query: queries[(i + k) % queries.length], limit: 10 });
      us.push(Number(process.hrtime.bigint() - t) / 1000);
      if (r.result && !r.result.isError) answered++; else failed++;
      if (!all[0].notes.slice(from).some((n) => n.params?.data?.type?.startsWith("reindex_c"))) duringRebuild++;
    }
  }));
  const seconds = Number(process.hrtime.bigint() - t0) / 1e9;
  await all[0].outcome(from);
  await sleep(500);
  clearInterval(watch);
  rss.after = rssMiB(pid);
  us.sort((a, b) => a - b);
  console.log(`   round ${rep}: answered ${answered}, failed ${failed}, ${duringRebuild} sent while the rebuild ran; ` +
              `${(answered / seconds).toFixed(0)} searches/s; p50 ${(pct(us, 0.5) / 1000).toFixed(2)} ms, ` +
              `p99 ${(pct(us, 0.99) / 1000).toFixed(2)} ms; daemon RSS ${rss.before.toFixed(1)} MiB before, ` +
              `peak ${rss.peak.toFixed(1)} during, ${rss.after.toFixed(1)} after`);
}
await Promise.all(all.map((s) => s.close()));
execFileSync(bin, ["daemon", "--stop"], { env });
rmSync(scratch, { recursive: true, force: true });
