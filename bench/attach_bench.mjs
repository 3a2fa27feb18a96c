// What a session over one repository costs, two binaries side by side in one run: the time from starting
// `brenloc serve` to the answer of its first tool call (the bridge connects, attaches to the daemon's
// running worker, initializes, calls index_status), and the resident memory of the bridge and of the
// daemon (after the sessions, and with 8 sessions attached), each with its private part (what the
// process allocated; the rest is the binary's pages, shared and cached). Each binary has a daemon of its own; rounds
// alternate between them so that the machine's drift falls on both alike.
//
// Usage: node bench/attach_bench.mjs BINARY_A BINARY_B TREE [--rounds N]
import { spawn } from "node:child_process";
import { mkdtempSync, mkdirSync, readFileSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";

const args = process.argv.slice(2);
const [binA, binB, tree] = args;
const rounds = args.includes("--rounds") ? Number(args[args.indexOf("--rounds") + 1]) : 40;
if (!binA || !binB || !tree) {
  console.error("usage: attach_bench.mjs BINARY_A BINARY_B TREE [--rounds N]");
  process.exit(64);
}
const scratch = mkdtempSync(join(tmpdir(), "brenloc-attach-bench-"));
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const median = (xs) => [...xs].sort((a, b) => a - b)[Math.floor(xs.length / 2)];
const rssMiB = (pid) => Number(/VmRSS:\s+(\d+)/.exec(readFileSync(`/proc/${pid}/status`, "utf8"))[1]) / 1024;
// The private part: what the process's own allocations hold, without the binary's pages that it shares.
const anonMiB = (pid) => Number(/Anonymous:\s+(\d+)/.exec(readFileSync(`/proc/${pid}/smaps_rollup`, "utf8"))[1]) / 1024;

function setup(bin, name) {
  const runtime = join(scratch, `${name}-runtime`);
  mkdirSync(runtime, { mode: 0o700 });
  const env = { ...process.env, XDG_RUNTIME_DIR: runtime, BRENLOC_DAEMON_IDLE_TIMEOUT: "600" };
  return { bin, name, env, runtime, data: join(scratch, `${name}-data`), attach: [], bridge: [], bridgeAnon: [] };
}

// A `serve` session: resolves once its first index_status is answered, with the time that took.
function session(b) {
  const started = process.hrtime.bigint();
  const child = spawn(b.bin, ["serve", "-q", "--repo", tree, "--data-dir", b.data], { env: b.env, stdio: ["pipe", "pipe", "ignore"] });
  let buffer = "";
  const answers = new Map();
  child.stdout.setEncoding("utf8");
  child.stdout.on("data", (chunk) => {
    buffer += chunk;
    for (let nl; (nl = buffer.indexOf("\n")) >= 0; buffer = buffer.slice(nl + 1)) {
      const msg = JSON.parse(buffer.slice(0, nl));
      if (msg.id !== undefined) answers.get(msg.id)?.(msg);
    }
  });
  const request = (id, method, params) => new Promise((resolve) => {
    answers.set(id, resolve);
    child.stdin.write(JSON.stringify({ jsonrpc: "2.0", id, method, params }) + "\n");
  });
  const ready = (async () => {
    await request(1, "initialize", { protocolVersion: "2025-11-25", capabilities: {}, clientInfo: { name: "bench", version: "1" } });
    child.stdin.write('{"jsonrpc":"2.0","method":"notifications/initialized"}\n');
    const status = await request(2, "tools/call", { name: "index_status", arguments: {} });
    return { ms: Number(process.hrtime.bigint() - started) / 1e6, indexing: status.result?.structuredContent?.indexing };
  })();
  return { child, ready, close: () => new Promise((r) => { child.on("exit", r); child.stdin.end(); }) };
}

const daemonPid = (b) => Number(readFileSync(join(b.runtime, "brenloc", "daemon.lock"), "utf8").split("\n")[0]);

const sides = [setup(binA, "a"), setup(binB, "b")];
try {
  // Each daemon started, its worker's index built and its pass at start ended.
  for (const b of sides) {
    for (;;) {
      const s = session(b);
      const { indexing } = await s.ready;
      await s.close();
      if (!indexing) break;
      await sleep(200);
    }
  }
  for (let i = 0; i < rounds; ++i) {
    for (const b of i % 2 ? [...sides].reverse() : sides) {
      const s = session(b);
      const { ms } = await s.ready;
      b.attach.push(ms);
      b.bridge.push(rssMiB(s.child.pid));
      b.bridgeAnon.push(anonMiB(s.child.pid));
      await s.close();
    }
  }
  for (const b of sides) {
    b.daemonAfter = rssMiB(daemonPid(b));
    b.daemonAnonAfter = anonMiB(daemonPid(b));
    const many = Array.from({ length: 8 }, () => session(b));
    await Promise.all(many.map((s) => s.ready));
    b.daemonWith8 = rssMiB(daemonPid(b));
    b.daemonAnonWith8 = anonMiB(daemonPid(b));
    await Promise.all(many.map((s) => s.close()));
  }
  const [a, b] = sides;
  const row = (what, x, y, unit) =>
    console.log(`${what.padEnd(38)} ${x.toFixed(1).padStart(8)} ${y.toFixed(1).padStart(8)} ${unit.padEnd(4)} ${(x / y).toFixed(3)}`);
  console.log(`${rounds} rounds over ${tree}\n${"".padEnd(38)} ${"A".padStart(8)} ${"B".padStart(8)}      A/B`);
  row("serve to first answer, median", median(a.attach), median(b.attach), "ms");
  row("bridge resident, median", median(a.bridge), median(b.bridge), "MiB");
  row("  of it private, median", median(a.bridgeAnon), median(b.bridgeAnon), "MiB");
  row("daemon resident after the sessions", a.daemonAfter, b.daemonAfter, "MiB");
  row("  of it private", a.daemonAnonAfter, b.daemonAnonAfter, "MiB");
  row("daemon resident with 8 sessions", a.daemonWith8, b.daemonWith8, "MiB");
  row("  of it private", a.daemonAnonWith8, b.daemonAnonWith8, "MiB");
} finally {
  for (const b of sides) {
    await new Promise((r) => spawn(b.bin, ["daemon", "--stop"], { env: b.env, stdio: "ignore" }).on("exit", r));
  }
  rmSync(scratch, { recursive: true, force: true });
}
