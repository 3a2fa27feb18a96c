// Relevance of search_symbols on real trees: asks the questions of bench/relevance/{dev,held_out}.json
// through `brenloc serve --standalone` and prints, per tree and half and overall, how often the hit
// meant came first and how often it was among the first five, then every miss.
//
// Usage: node bench/relevance.mjs BRENLOC_BINARY [--against OTHER_BINARY] [--check] [--tree NAME]...
//                                 [--set dev|held_out] [--data-root DIR] [--quiet]
// Each tree is indexed once per binary (`reindex --clear-existing`) into DATA_ROOT/<binary name>-<hash>/<tree>
// (default: relevance/ beside the first binary, in its build directory) and reused while the binary is the
// same file; every question then goes, pipelined, to one server process per tree, limit 5.
// --against prints a second binary's rates beside the first's. --check exits 1 when a rate of the first
// binary falls below the thresholds recorded in the set's file, or when a tree is missing.
// Before asking, each expected hit is looked for in the tree (the file, the name on its line): an entry
// that no longer holds is an error of the set, reported as such, and fails --check.
import { spawn, spawnSync } from "node:child_process";
import { createHash } from "node:crypto";
import { existsSync, mkdirSync, readdirSync, readFileSync, rmSync, statSync, writeFileSync } from "node:fs";
import { basename, dirname, join, resolve } from "node:path";
import { fileURLToPath } from "node:url";

const repoRoot = resolve(dirname(fileURLToPath(import.meta.url)), "..");
const setNames = ["dev", "held_out"];

function parseArgs(argv) {
  const o = { binaries: [], trees: [], sets: [], check: false, quiet: false, dataRoot: null };
  for (let i = 0; i < argv.length; i++) {
    const a = argv[i];
    const value = () => {
      if (i + 1 >= argv.length) usage(`${a} needs a value`);
      return argv[++i];
    };
    if (a === "--against") o.binaries.push(value());
    else if (a === "--check") o.check = true;
    else if (a === "--quiet") o.quiet = true;
    else if (a === "--tree") o.trees.push(value());
    else if (a === "--set") o.sets.push(value());
    else if (a === "--data-root") o.dataRoot = value();
    else if (a.startsWith("--")) usage(`unknown option ${a}`);
    else o.binaries.unshift(a);
  }
  if (o.binaries.length < 1 || o.binaries.length > 2) usage("one binary, and at most one --against");
  for (const s of o.sets) if (!setNames.includes(s)) usage(`--set takes ${setNames.join(" or ")}`);
  if (!o.sets.length) o.sets = setNames;
  o.binaries = o.binaries.map((b) => resolve(b));
  o.dataRoot = resolve(o.dataRoot ?? join(dirname(o.binaries[0]), "relevance"));
  return o;
}

function usage(message) {
  console.error(`relevance: ${message}`);
  console.error("usage: relevance.mjs BRENLOC_BINARY [--against OTHER] [--check] [--tree NAME]... " +
                "[--set dev|held_out] [--data-root DIR] [--quiet]");
  process.exit(64);
}

// A tree's root as the set names it: absolute, or relative to this repository; one `*` in a component
// stands for any name (the Rust sources' directory carries the compiler's version). `git:COMMIT:DIR` is
// DIR of this repository as it was at COMMIT, unpacked once under `snapshots` (this repository's own
// sources change with every refactoring; the questions about them hold for the commit they were asked of).
export function resolveRoot(root, dataRoot) {
  const snapshot = /^git:([0-9a-f]{7,40}):(.+)$/.exec(root);
  if (snapshot) return unpackSnapshot(snapshot[1], snapshot[2], dataRoot);
  const parts = (root.startsWith("/") ? root : join(repoRoot, root)).split("/");
  let found = [""];
  for (const part of parts.slice(1)) {
    if (!part.includes("*")) {
      found = found.map((p) => `${p}/${part}`);
      continue;
    }
    const re = new RegExp(`^${part.split("*").map((s) => s.replace(/[.+?^${}()|[\]\\]/g, "\\$&")).join(".*")}$`);
    found = found.flatMap((p) => {
      try {
        return readdirSync(p || "/").filter((n) => re.test(n)).sort().map((n) => `${p}/${n}`);
      } catch {
        return [];
      }
    });
  }
  found = found.filter((p) => existsSync(p) && statSync(p).isDirectory());
  return found.length ? found[found.length - 1] : null;
}

function unpackSnapshot(commit, dir, dataRoot) {
  const target = join(dataRoot, "snapshots", commit);
  const done = join(target, ".unpacked");
  if (!existsSync(done)) {
    rmSync(target, { recursive: true, force: true });
    mkdirSync(target, { recursive: true });
    const archive = spawnSync("git", ["-C", repoRoot, "archive", "--format=tar", commit, dir], { maxBuffer: 1 << 30 });
    if (archive.status !== 0) return null;
    const tar = spawnSync("tar", ["-x", "-C", target], { input: archive.stdout });
    if (tar.status !== 0) return null;
    writeFileSync(done, "");
  }
  const root = join(target, dir);
  return existsSync(root) ? root : null;
}

// Whether a search hit is one that the entry expects: same path and name, and, when given, the line
// within the hit's lines and the same scope (absent and empty are alike).
export function hitMatches(hit, want) {
  if (!hit || hit.path !== want.path || hit.name !== want.name) return false;
  if (want.line !== undefined) {
    const end = Math.max(hit.end_line ?? hit.line, hit.line);
    if (want.line < hit.line || want.line > end) return false;
  }
  if (want.scope !== undefined && (hit.scope ?? "") !== want.scope) return false;
  return true;
}

// What the set expects that the tree does not hold: a missing file, a name not in it, a line that does
// not name it. Returns one message per broken expectation.
export function checkExpectations(root, query) {
  const problems = [];
  for (const want of query.expect) {
    let text;
    try {
      text = readFileSync(join(root, want.path), "latin1");
    } catch {
      problems.push(`${want.path}: no such file`);
      continue;
    }
    const word = new RegExp(`(^|[^A-Za-z0-9_$])${want.name.replace(/[$.*+?^{}()|[\]\\]/g, "\\$&")}($|[^A-Za-z0-9_$])`);
    if (want.line !== undefined) {
      const line = text.split("\n")[want.line - 1];
      if (line === undefined || !word.test(line)) problems.push(`${want.path}:${want.line} does not name ${want.name}`);
    } else if (!word.test(text)) {
      problems.push(`${want.path} does not name ${want.name}`);
    }
  }
  return problems;
}

// First hit right, expected hit in the first five, and what came first, for one answer.
export function grade(query, hits) {
  const rank = hits.findIndex((h) => query.expect.some((w) => hitMatches(h, w)));
  return { first: rank === 0, top5: rank >= 0 && rank < 5, rank, got: hits[0] ?? null };
}

// The rates of a tree's half (first binary) that fall below the thresholds its file records.
export function belowThresholds(row) {
  const out = [];
  for (const [what, key] of [["first hit", "first"], ["top 5", "top5"]]) {
    const got = row.n ? row[key][0] / row.n : 1;
    const floor = row.thresholds?.[key] ?? 0;
    if (got < floor) out.push(`${row.tree}/${row.set}: ${what} ${pct(row[key][0], row.n)} is below the recorded ${(100 * floor).toFixed(0)}%`);
  }
  return out;
}

function loadSets(names) {
  return names.map((name) => ({ name, ...JSON.parse(readFileSync(join(repoRoot, "bench", "relevance", `${name}.json`), "utf8")) }));
}

// `--root` takes a tree as it is where newer binaries would look for a `.git` above it (zod lies in this
// repository); older binaries know only `--repo`, which took it as it is.
const rootFlags = new Map();
function rootFlag(binary) {
  if (!rootFlags.has(binary)) {
    const help = spawnSync(binary, ["help", "reindex"], { encoding: "utf8" });
    rootFlags.set(binary, (help.stdout || "").includes("--root") ? "--root" : "--repo");
  }
  return rootFlags.get(binary);
}

// The index of `root` built by `binary`, reused while the binary is the same file.
function ensureIndex(binary, root, dataDir) {
  const st = statSync(binary);
  const stamp = JSON.stringify({ binary, root, size: st.size, mtime: st.mtimeMs });
  const stampFile = join(dataDir, "relevance-stamp.json");
  if (existsSync(join(dataDir, "index.db")) && existsSync(stampFile) && readFileSync(stampFile, "utf8") === stamp) {
    return { reused: true, seconds: 0 };
  }
  rmSync(dataDir, { recursive: true, force: true });
  mkdirSync(dataDir, { recursive: true });
  const started = process.hrtime.bigint();
  const run = spawnSync(binary, ["reindex", "--clear-existing", "--quiet", rootFlag(binary), root, "--data-dir", dataDir],
                        { encoding: "utf8", env: { ...process.env, BRENLOC_NO_WATCH: "1" }, maxBuffer: 64 << 20 });
  const seconds = Number(process.hrtime.bigint() - started) / 1e9;
  if (run.status !== 0) {
    throw new Error(`${binary} reindex of ${root} exited ${run.status ?? run.signal}: ${(run.stderr || run.stdout).trim().slice(0, 2000)}`);
  }
  writeFileSync(stampFile, stamp);
  return { reused: false, seconds };
}

// One `serve --standalone` process over the tree: every question pipelined, answers by id.
async function ask(binary, root, dataDir, queries) {
  const server = spawn(binary, ["serve", "--standalone", "--no-watch", rootFlag(binary), root, "--data-dir", dataDir],
                       { stdio: ["pipe", "pipe", "pipe"] });
  let stderr = "";
  server.stderr.setEncoding("utf8");
  server.stderr.on("data", (c) => { stderr = (stderr + c).slice(-4000); });
  const pending = new Map();
  let buffer = "";
  let nextId = 1;
  const exited = new Promise((res) => server.on("exit", (code, signal) => res(code ?? signal)));
  exited.then((how) => {
    for (const p of pending.values()) p.reject(new Error(`server exited (${how}) with calls pending: ${stderr.trim()}`));
    pending.clear();
  });
  server.stdout.setEncoding("utf8");
  server.stdout.on("data", (chunk) => {
    buffer += chunk;
    let nl;
    while ((nl = buffer.indexOf("\n")) >= 0) {
      const line = buffer.slice(0, nl);
      buffer = buffer.slice(nl + 1);
      if (!line.trim()) continue;
      const msg = JSON.parse(line);
      const p = msg.id !== undefined ? pending.get(msg.id) : undefined;
      if (!p) continue;
      pending.delete(msg.id);
      if (msg.error) p.reject(new Error(JSON.stringify(msg.error)));
      else p.resolve(msg.result);
    }
  });
  const send = (msg) => server.stdin.write(JSON.stringify({ jsonrpc: "2.0", ...msg }) + "\n");
  const call = (method, params) => new Promise((res, rej) => {
    const id = nextId++;
    pending.set(id, { resolve: res, reject: rej });
    send({ id, method, params });
  });
  const tool = async (name, args) => {
    const result = await call("tools/call", { name, arguments: args });
    const body = result.structuredContent ?? JSON.parse(result.content?.[0]?.text ?? "null");
    return { isError: !!result.isError, body, text: result.content?.[0]?.text ?? "" };
  };
  try {
    await call("initialize", { protocolVersion: "2025-06-18", capabilities: {}, clientInfo: { name: "relevance", version: "1" } });
    send({ method: "notifications/initialized" });
    // The server's pass at start (a catch-up over an index just built) runs before the questions.
    for (let waited = 0; ; waited += 100) {
      const status = await tool("index_status", {});
      if (!status.body?.indexing) break;
      if (waited > 600000) throw new Error("the server's pass at start did not end within 10 minutes");
      await new Promise((r) => setTimeout(r, 100));
    }
    return await Promise.all(queries.map(async (q) => {
      const answer = await tool("search_symbols", { ...q.args, limit: 5 });
      if (answer.isError) return { error: answer.text || JSON.stringify(answer.body), hits: [] };
      return { hits: answer.body?.results ?? [] };
    }));
  } finally {
    server.stdin.end();
    const timer = setTimeout(() => server.kill("SIGKILL"), 10000);
    await exited;
    clearTimeout(timer);
  }
}

const pct = (n, d) => (d ? `${((100 * n) / d).toFixed(1)}%` : "-");
const hitText = (h) => (h ? `${h.name} ${h.kind} ${h.path}:${h.line}` : "nothing");
const wantText = (q) => q.expect.map((w) => `${w.name} ${w.path}${w.line !== undefined ? `:${w.line}` : ""}${w.scope !== undefined ? ` (scope "${w.scope}")` : ""}`).join(" | ");
const argsText = (args) => Object.entries(args).map(([k, v]) => (k === "query" ? JSON.stringify(v) : `${k}=${v}`)).join(" ");

async function main() {
  const o = parseArgs(process.argv.slice(2));
  for (const b of o.binaries) if (!existsSync(b)) usage(`no binary at ${b}`);
  const sets = loadSets(o.sets);
  const treeNames = [...new Set(sets.flatMap((s) => s.trees.map((t) => t.name)))];
  for (const t of o.trees) if (!treeNames.includes(t)) usage(`no tree ${t} (the trees: ${treeNames.join(", ")})`);
  const wanted = o.trees.length ? o.trees : treeNames;
  const failures = [];
  // rows[tree][set] = {n, first: [per binary], top5: [per binary], misses: [per binary][]}
  const rows = [];
  for (const treeName of wanted) {
    const entries = sets.map((s) => ({ set: s.name, tree: s.trees.find((t) => t.name === treeName) })).filter((e) => e.tree);
    const tree = entries[0].tree;
    const root = resolveRoot(tree.root, o.dataRoot);
    if (!root && tree.root.startsWith("git:")) {
      // A shallow clone lacks the commit: the other trees still judge the binary.
      console.log(`${treeName}: SKIPPED ${tree.root} (this clone lacks that commit: git fetch --unshallow)`);
      continue;
    }
    if (!root) {
      failures.push(`tree ${treeName}: ${tree.root} is missing; it comes from ${tree.setup}`);
      console.log(`${treeName}: MISSING ${tree.root} (from ${tree.setup})`);
      continue;
    }
    for (const e of entries) {
      for (const q of e.tree.queries) {
        for (const p of checkExpectations(root, q)) failures.push(`${treeName} ${e.set} ${argsText(q.args)}: the set is wrong: ${p}`);
      }
    }
    const queries = entries.flatMap((e) => e.tree.queries.map((q) => ({ ...q, set: e.set })));
    const perBinary = [];
    for (const binary of o.binaries) {
      const tag = createHash("sha1").update(binary).digest("hex").slice(0, 8);
      const dataDir = join(o.dataRoot, `${basename(binary)}-${tag}`, treeName);
      const built = ensureIndex(binary, root, dataDir);
      const answers = await ask(binary, root, dataDir, queries);
      perBinary.push({ built, answers });
    }
    const line = perBinary.map((p, i) => `${o.binaries.length > 1 ? `[${i + 1}] ` : ""}${p.built.reused ? "index reused" : `indexed in ${p.built.seconds.toFixed(1)} s`}`);
    console.log(`${treeName}: ${root}, ${queries.length} queries; ${line.join(", ")}`);
    for (const e of entries) {
      const idx = queries.map((q, i) => (q.set === e.set ? i : -1)).filter((i) => i >= 0);
      const row = { tree: treeName, set: e.set, n: idx.length, first: [], top5: [], misses: [], thresholds: e.tree.thresholds };
      for (const p of perBinary) {
        let first = 0, top5 = 0;
        const misses = [];
        for (const i of idx) {
          const a = p.answers[i];
          const g = grade(queries[i], a.hits);
          first += g.first;
          top5 += g.top5;
          if (!g.first) misses.push({ q: queries[i], g, error: a.error });
        }
        row.first.push(first);
        row.top5.push(top5);
        row.misses.push(misses);
      }
      rows.push(row);
    }
  }

  const multi = o.binaries.length > 1;
  const head = multi ? "first [1]  first [2]  top 5 [1]  top 5 [2]" : "first      top 5";
  const fmt = (r) => (multi ? [pct(r.first[0], r.n), pct(r.first[1], r.n), pct(r.top5[0], r.n), pct(r.top5[1], r.n)]
                            : [pct(r.first[0], r.n), pct(r.top5[0], r.n)]).map((s) => s.padEnd(11)).join("");
  console.log("");
  if (multi) o.binaries.forEach((b, i) => console.log(`[${i + 1}] ${b}`));
  console.log(`${"tree".padEnd(10)}${"set".padEnd(10)}${"queries".padEnd(9)}${head}`);
  const sum = (rs) => ({ n: rs.reduce((a, r) => a + r.n, 0),
                         first: o.binaries.map((_, b) => rs.reduce((a, r) => a + r.first[b], 0)),
                         top5: o.binaries.map((_, b) => rs.reduce((a, r) => a + r.top5[b], 0)) });
  for (const r of rows) console.log(`${r.tree.padEnd(10)}${r.set.padEnd(10)}${String(r.n).padEnd(9)}${fmt(r)}`);
  for (const s of o.sets) console.log(`${"all".padEnd(10)}${s.padEnd(10)}${String(sum(rows.filter((r) => r.set === s)).n).padEnd(9)}${fmt(sum(rows.filter((r) => r.set === s)))}`);
  console.log(`${"all".padEnd(10)}${"both".padEnd(10)}${String(sum(rows).n).padEnd(9)}${fmt(sum(rows))}`);

  if (!o.quiet) {
    o.binaries.forEach((b, bi) => {
      console.log(`\nmisses${multi ? ` of [${bi + 1}]` : ""} (first hit not the one meant; "top 5" when it was further down):`);
      for (const r of rows) {
        for (const m of r.misses[bi]) {
          const where = m.error ? `error: ${m.error}` : `${m.g.top5 ? `top 5 (#${m.g.rank + 1})` : "not in top 5"}, first: ${hitText(m.g.got)}`;
          console.log(`  ${r.tree}/${r.set} ${argsText(m.q.args)}: want ${wantText(m.q)}; ${where}`);
        }
      }
    });
  }

  if (o.check) for (const r of rows) failures.push(...belowThresholds(r));
  if (failures.length) {
    console.log("");
    for (const f of failures) console.log(`FAIL ${f}`);
  }
  if (o.check) console.log(failures.length ? `relevance: ${failures.length} failed` : "relevance: every rate at or above its threshold");
  process.exit(o.check && failures.length ? 1 : 0);
}

if (process.argv[1] && resolve(process.argv[1]) === fileURLToPath(import.meta.url)) {
  main().catch((e) => {
    console.error(`relevance: ${e.stack ?? e}`);
    process.exit(2);
  });
}
