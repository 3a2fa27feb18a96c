// What the daemon's end-to-end tests share: a scratch folder with a copy of the source tree and a small
// demo repository, private runtime directories (a daemon of each test's own), the binary run as a command
// or as a `serve` session of the official MCP SDK client, and the daemons found by their runtime directory.
import { after } from 'node:test';
import assert from 'node:assert/strict';
import { execFile } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { LoggingMessageNotificationSchema } from '@modelcontextprotocol/sdk/types.js';

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

export function daemonWorld(bin, sourceTree) {
  const scratch = fs.mkdtempSync(path.join(os.tmpdir(), 'brenloc-daemon-e2e-'));
  after(() => process.env.KEEP_SCRATCH || fs.rmSync(scratch, { recursive: true, force: true }));
  const tree = path.join(scratch, 'tree');
  fs.cpSync(sourceTree, tree, { recursive: true });
  const demo = path.join(scratch, 'demo');
  fs.mkdirSync(path.join(demo, 'pkg'), { recursive: true });
  fs.writeFileSync(path.join(demo, 'pkg', 'shapes.py'), 'class Circle:\n    def area(self):\n        return 3\n');

  let counter = 0;
  const fresh = (name) => path.join(scratch, `${name}-${++counter}`);

  // A private runtime directory (so a daemon of its own) and the environment that leads to it. With
  // `dataLimit` (bytes), every brenloc process started for it, the daemon included, runs under that limit of
  // private memory, so that a runaway daemon fails alone instead of taking the machine down.
  function runtime(extra = {}, { dataLimit } = {}) {
    const dir = fresh('rt');
    fs.mkdirSync(dir, { mode: 0o700 });
    const launch = dataLimit ? ['prlimit', `--data=${dataLimit}`, bin] : [bin];
    return { dir, launch, env: { ...process.env, XDG_RUNTIME_DIR: dir, BRENLOC_DAEMON_IDLE_TIMEOUT: '60', ...extra } };
  }
  const NO_DAEMON = { ...process.env, XDG_RUNTIME_DIR: '/nonexistent-runtime-dir' };

  function run(args, env) {
    return new Promise((resolve) => {
      execFile(bin, args, { env, timeout: 120_000 }, (error, stdout, stderr) => {
        resolve({ code: error ? error.code ?? -1 : 0, stdout, stderr });
      });
    });
  }

  // A session; unless told otherwise, once its worker's pass at start (it catches up with the tree) has ended.
  async function session(rt, repo, data, extraArgs = [], settle = true) {
    const transport = new StdioClientTransport({
      command: rt.launch[0],
      args: [...rt.launch.slice(1), 'serve', ...extraArgs, '--repo', repo, '--data-dir', data],
      env: rt.env,
      stderr: 'pipe',
    });
    const client = new Client({ name: 'brenloc-daemon-e2e', version: '1.0.0' });
    const messages = [];
    client.setNotificationHandler(LoggingMessageNotificationSchema, (n) => messages.push(n.params));
    const s = { client, messages, transport, stderr: '' };
    transport.stderr?.on('data', (d) => { s.stderr += d; });
    await client.connect(transport);
    if (settle) await settled(s);
    return s;
  }

  async function settled(s) {
    for (const deadline = Date.now() + 120_000; Date.now() < deadline; await sleep(20)) {
      const status = await s.client.callTool({ name: 'index_status', arguments: {} });
      if (status.isError || !status.structuredContent.indexing) return;
    }
    throw new Error('timed out waiting for the pass at start to end');
  }

  const call = async (s, name, args = {}) => s.client.callTool({ name, arguments: args });
  const answer = async (s, name, args = {}) => (await call(s, name, args)).structuredContent;

  async function outcomeAfter(messages, from) {
    for (const deadline = Date.now() + 120_000; Date.now() < deadline; await sleep(20)) {
      const found = messages.slice(from).find((m) => ['reindex_complete', 'reindex_failed'].includes(m.data?.type));
      if (found) return found.data;
    }
    throw new Error('timed out waiting for the reindex outcome');
  }

  async function daemonStatus(rt) {
    const r = await run(['daemon', '--status'], rt.env);
    assert.equal(r.code, 0, r.stderr);
    return JSON.parse(r.stdout);
  }

  // The pids of the daemons whose runtime directory is `rt`'s.
  function daemonPids(rt) {
    const pids = [];
    for (const pid of fs.readdirSync('/proc').filter((p) => /^\d+$/.test(p))) {
      try {
        if (fs.readFileSync(`/proc/${pid}/cmdline`, 'utf8') !== 'brenloc\0daemon\0') continue;
        if (fs.readFileSync(`/proc/${pid}/environ`, 'utf8').split('\0').includes(`XDG_RUNTIME_DIR=${rt.dir}`)) {
          pids.push(Number(pid));
        }
      } catch { /* gone meanwhile */ }
    }
    return pids;
  }

  async function until(what, predicate, ms = 20_000) {
    for (const deadline = Date.now() + ms; Date.now() < deadline; await sleep(25)) {
      if (await predicate()) return;
    }
    throw new Error(`timed out waiting until ${what}`);
  }

  const stopDaemon = (rt) => run(['daemon', '--stop'], rt.env);
  const staging = (data) => fs.readdirSync(data).filter((f) => f.startsWith('index.db.reindex-staging'));

  return {
    scratch, tree, demo, fresh, runtime, NO_DAEMON, run, session, settled, call, answer, outcomeAfter, daemonStatus,
    daemonPids, until, stopDaemon, staging,
  };
}
