// End-to-end tests of the user's daemon: `brenloc serve` sessions (official MCP SDK clients) and the
// command line sharing one daemon and one worker per repository, and the daemon's faults.
//
//   node daemon_e2e.mjs BRENLOC_BINARY SOURCE_TREE
//
// SOURCE_TREE is copied once; it must take the indexer long enough (a second or so) that a request sent
// right after a rebuild was accepted finds it running. Each test has a runtime directory of its own, so
// a daemon of its own, stopped at the end.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFile, spawn } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import path from 'node:path';
import { pathToFileURL } from 'node:url';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { ListRootsRequestSchema } from '@modelcontextprotocol/sdk/types.js';
import { daemonWorld, sleep } from './daemon_world.mjs';

const [bin, sourceTree] = process.argv.slice(2);
if (!bin || !sourceTree) {
  console.error('usage: node daemon_e2e.mjs BRENLOC_BINARY SOURCE_TREE');
  process.exit(64);
}

const {
  scratch, tree, demo, fresh, runtime, NO_DAEMON, run, session, settled, call, answer, outcomeAfter, daemonStatus,
  daemonPids, until, stopDaemon, staging,
} = daemonWorld(bin, sourceTree);

test('sessions and the command line share one daemon, one worker and one rebuild', async () => {
  const rt = runtime();
  const data = fresh('data');
  // Five sessions started at once end with one daemon.
  const sessions = await Promise.all([1, 2, 3, 4, 5].map(() => session(rt, tree, data)));
  try {
    await until('the losing daemons have exited', () => daemonPids(rt).length === 1);
    const status = await daemonStatus(rt);
    // Detached: a session and a process group of its own, so closing an assistant never reaches it.
    const [sid, pgid] = ((pid) => {
      const fields = fs.readFileSync(`/proc/${pid}/stat`, 'utf8').split(') ')[1].split(' ');
      return [Number(fields[3]), Number(fields[2])];
    })(status.pid);
    assert.notEqual(sid, Number(fs.readFileSync('/proc/self/stat', 'utf8').split(') ')[1].split(' ')[3]));
    assert.notEqual(pgid, process.pid);
    assert.equal(fs.statSync(path.join(rt.dir, 'brenloc', 'daemon.sock')).mode & 0o777, 0o600);
    assert.equal(fs.statSync(path.join(rt.dir, 'brenloc')).mode & 0o777, 0o700);
    assert.equal(status.workers.length, 1);
    assert.equal(status.workers[0].clients, 5);
    const second = await run(['daemon'], rt.env);
    assert.equal(second.code, 2);
    assert.match(second.stderr, new RegExp(`^brenloc: a brenloc daemon already runs for this user \\(pid ${status.pid},`));

    const [a, b] = sessions;
    const seen = sessions.map((s) => s.messages.length);
    assert.equal((await answer(a, 'force_reindex', { clear_existing: true })).status, 'accepted');
    const [busy, cli, waited] = await Promise.all([
      answer(b, 'force_reindex', { clear_existing: true }),
      run(['reindex', '--clear-existing', '--repo', tree, '--data-dir', data], rt.env),
      run(['reindex', '--wait', '--quiet', '--repo', tree, '--data-dir', data], rt.env),
    ]);
    assert.deepEqual(busy, { status: 'in_progress', message: 'Indexing already in progress' });
    assert.equal(cli.code, 2, cli.stderr);
    assert.equal(cli.stdout, '{"status":"in_progress","message":"Indexing already in progress"}\n');
    // --wait waits for the run under way, then runs its own.
    assert.equal(waited.code, 0, waited.stderr);
    assert.equal(JSON.parse(waited.stdout.split('\n')[0]).status, 'accepted');
    assert.equal(JSON.parse(waited.stdout.split('\n')[1]).type, 'reindex_complete');
    const outcomes = await Promise.all(sessions.map((s, i) => outcomeAfter(s.messages, seen[i])));
    for (const o of outcomes) assert.deepEqual(o, outcomes[0]);
    assert.equal(outcomes[0].type, 'reindex_complete');
    assert.ok(sessions.every((s, i) => s.messages.slice(seen[i]).some((m) => m.data?.type === 'reindex_progress')));

    // The live index is exactly the one a rebuild run alone gives.
    const alone = fresh('data');
    assert.equal((await run(['reindex', '--clear-existing', '--repo', tree, '--data-dir', alone], NO_DAEMON)).code, 0);
    const want = JSON.parse((await run(['status', '--repo', tree, '--data-dir', alone], NO_DAEMON)).stdout);
    const got = await answer(a, 'index_status');
    assert.deepEqual([got.files, got.symbols], [want.files, want.symbols]);
    assert.equal(got.files, outcomes[0].files_processed);

    // The command line goes through the running daemon: the same answers as in its own process.
    const search = await run(['search', '--repo', tree, '--data-dir', data, '--limit', '1', 'io_context'], rt.env);
    assert.equal(search.code, 0, search.stderr);
    assert.equal(JSON.parse(search.stdout).count, 1);
    assert.equal((await run(['search', '--repo', tree, '--data-dir', data, '--limit', '0', 'x'], rt.env)).code, 64);
  } finally {
    await Promise.all(sessions.map((s) => s.client.close()));
    await stopDaemon(rt);
  }
});

test('file names that are not UTF-8 are answered, taken back, reindexed and followed in their text form', async () => {
  const rt = runtime();
  const repo = fresh('names');
  // A path under the repository from pieces: text, or arrays of bytes.
  const raw = (...parts) => Buffer.concat([Buffer.from(repo + '/'), ...parts.map((p) => Buffer.from(p))]);
  fs.mkdirSync(repo);
  fs.writeFileSync(raw('b', [0xff], '.py'), Buffer.concat([Buffer.from('def odd_name():  # caf'), Buffer.from([0xe9]), Buffer.from('\n    pass\n')]));
  fs.mkdirSync(raw('d', [0xfe]));
  fs.writeFileSync(raw('d', [0xfe], '/x.py'), 'def in_odd_dir():\n    pass\n');
  fs.writeFileSync(raw('big', [0xff], '.py'), `x = "${'y'.repeat(1 << 20)}"\n`);
  const s = await session(rt, repo, fresh('data'));
  try {
    const found = await answer(s, 'search_symbols', { query: 'odd_name' });
    assert.equal(found.results[0].path, 'b\\xff.py');
    assert.equal(found.results[0].signature, 'def odd_name():  # caf\ufffd');
    assert.equal((await answer(s, 'file_outline', { path: 'b\\xff.py' })).symbols[0].name, 'odd_name');
    assert.equal((await answer(s, 'symbol_source', { path: 'd\\xfe/x.py', line: 1 })).name, 'in_odd_dir');
    const status = await answer(s, 'index_status');
    assert.deepEqual(status.left_out, { count: 1, first: [{ path: 'big\\xff.py', stage: 'read', skipped: 'larger than 1048576 bytes' }] });
    const nul = await call(s, 'search_symbols', { query: 'a\u0000b' });
    assert.equal(nul.isError, true);
    assert.match(nul.content[0].text, /argument 'query' must not hold a NUL byte/);

    fs.writeFileSync(raw('b', [0xff], '.py'), 'def renamed_odd():\n    pass\n');
    const seen = s.messages.length;
    assert.equal((await answer(s, 'force_reindex', { paths: ['b\\xff.py'] })).status, 'accepted');
    assert.equal((await outcomeAfter(s.messages, seen)).type, 'reindex_complete');
    assert.equal((await answer(s, 'search_symbols', { query: 'renamed_odd' })).results[0]?.path, 'b\\xff.py');
    // Deleted: the watcher drops the rows.
    fs.rmSync(raw('d', [0xfe]), { recursive: true });
    fs.unlinkSync(raw('b', [0xff], '.py'));
    await until('the rows of the deleted files are gone', async () =>
      (await answer(s, 'search_symbols', { query: 'in_odd_dir' })).count === 0 &&
      (await answer(s, 'search_symbols', { query: 'renamed_odd' })).count === 0);
  } finally {
    await s.client.close();
    await stopDaemon(rt);
  }
});

test('a reindex on a worker just started waits for its pass at start, then runs', async () => {
  const rt = runtime();
  try {
    for (const args of [['--clear-existing'], []]) {
      const r = await run(['reindex', '--daemon', ...args, '--repo', tree, '--data-dir', fresh('data')], rt.env);
      assert.equal(r.code, 0, `${args}: ${r.stdout}${r.stderr}`);
      assert.equal(JSON.parse(r.stdout.split('\n')[0]).status, 'accepted');
    }
  } finally {
    await stopDaemon(rt);
  }
});

test('two repositories in one daemon do not hear each other', async () => {
  const rt = runtime();
  const one = await session(rt, demo, fresh('data'));
  const other = await session(rt, tree, fresh('data'));
  try {
    assert.equal((await daemonStatus(rt)).workers.length, 2);
    const seen = one.messages.length;
    const otherSeen = other.messages.length;
    assert.equal((await answer(one, 'force_reindex', {})).status, 'accepted');
    assert.equal((await outcomeAfter(one.messages, seen)).type, 'reindex_complete');
    await sleep(300);
    assert.deepEqual(other.messages.slice(otherSeen).filter((m) => m.data?.type?.startsWith('reindex')), []);
  } finally {
    await one.client.close();
    await other.client.close();
    await stopDaemon(rt);
  }
});

for (const mode of ['daemon', 'standalone']) {
  test(`one session over several repositories (${mode}): --repo twice, the client's roots and their change`, async () => {
    const rt = runtime({ XDG_DATA_HOME: fresh('xdg') });
    // A root announced below its work tree's top stands for the top.
    const lib = fresh('lib');
    fs.mkdirSync(path.join(lib, '.git'), { recursive: true });
    fs.mkdirSync(path.join(lib, 'sub'));
    fs.writeFileSync(path.join(lib, 'sub', 'lib.py'), 'def only_in_lib():\n    pass\n');
    const extra = fresh('extra');
    fs.mkdirSync(extra);
    fs.writeFileSync(path.join(extra, 'extra.py'), 'def only_in_extra():\n    pass\n');
    let roots = [{ uri: pathToFileURL(path.join(lib, 'sub')).href, name: 'lib' }];
    const client = new Client({ name: 'brenloc-repos-e2e', version: '1.0.0' }, { capabilities: { roots: { listChanged: true } } });
    client.setRequestHandler(ListRootsRequestSchema, async () => ({ roots }));
    await client.connect(new StdioClientTransport({
      command: bin,
      args: ['serve', ...(mode === 'standalone' ? ['--standalone'] : []), '--repo', demo, '--repo', tree],
      env: rt.env,
      stderr: 'ignore',
    }));
    const find = (query, repo) =>
      client.callTool({ name: 'search_symbols', arguments: repo ? { query, repo, match: 'exact' } : { query, match: 'exact' } });
    const finds = async (query, repo) => {
      await until(`${query} is found in ${repo}`, async () => (await find(query, repo)).structuredContent?.count > 0, 60_000);
    };
    try {
      const listed = await client.listTools();
      assert.ok(listed.tools.filter((t) => t.name !== 'list_repos').every((t) => t.inputSchema.properties.repo?.type === 'string'));
      assert.ok(listed.tools.find((t) => t.name === 'list_repos').outputSchema);

      // The default, then the other --repo by name and by a path in it, then the client's root by name.
      await finds('Circle');
      await finds('io_context', 'tree');
      await finds('io_context', path.join(tree, 'ip'));
      await finds('only_in_lib', path.basename(lib));
      assert.equal((await find('io_context')).structuredContent.count, 0);
      assert.equal((await find('Circle', 'tree')).structuredContent.count, 0);
      const repos = (await client.callTool({ name: 'list_repos', arguments: {} })).structuredContent.repos;
      assert.deepEqual(repos.map((r) => [r.name, r.root, r.default, r.source, r.state !== 'not started']), [
        ['demo', demo, true, '--repo', true],
        ['tree', tree, false, '--repo', true],
        [path.basename(lib), lib, false, 'roots', true],
      ]);
      assert.equal(repos[0].files, 1);

      // A repository outside the session is refused, and the refusal lists the session's.
      for (const repo of [extra, 'nowhere', 'demo/..']) {
        const refused = await find('x', repo);
        assert.equal(refused.isError, true, repo);
        assert.match(refused.content[0].text, new RegExp(`'repo'.*demo \\(${demo}, the default\\), tree \\(${tree}\\), ${path.basename(lib)} \\(`));
      }

      // The roots change: the new one is usable at once, the one gone is refused.
      roots = [{ uri: pathToFileURL(extra).href }];
      await client.sendRootsListChanged();
      await finds('only_in_extra', extra);
      assert.equal((await find('only_in_lib', path.basename(lib))).isError, true);
      if (mode === 'daemon') assert.equal((await daemonStatus(rt)).workers.length, 4);
    } finally {
      await client.close();
      if (mode === 'daemon') await stopDaemon(rt);
    }
  });
}

test('a killed daemon: the pending call fails clearly, the next one starts a new daemon, the index is whole', async () => {
  const rt = runtime();
  const repo = fresh('tree');
  fs.cpSync(tree, repo, { recursive: true });
  const data = fresh('data');
  const s = await session(rt, repo, data, ['--no-watch']);
  try {
    let seen = s.messages.length;
    await answer(s, 'force_reindex', { clear_existing: true });
    await outcomeAfter(s.messages, seen);
    const old = await answer(s, 'index_status');
    fs.writeFileSync(path.join(repo, 'brenloc_extra.h'), 'int brenloc_extra_fn(void);\n');

    seen = s.messages.length;
    await answer(s, 'force_reindex', { clear_existing: true });
    await until('the rebuild has made progress', () => s.messages.slice(seen).some((m) => m.data?.type === 'reindex_progress'));
    const [pid] = daemonPids(rt);
    process.kill(pid, 'SIGSTOP');
    const pending = call(s, 'index_status');
    await sleep(200);
    process.kill(pid, 'SIGKILL');
    const failed = await pending;
    assert.equal(failed.isError, true);
    assert.match(failed.content[0].text, /daemon stopped before answering this call.*call the tool again/);
    await until('the daemon is gone', () => daemonPids(rt).length === 0);
    assert.ok(fs.existsSync(path.join(rt.dir, 'brenloc', 'daemon.sock')), 'a killed daemon leaves its socket');

    // The next call starts a new daemon over the stale socket; the index is wholly old or wholly new.
    const reconnected = await call(s, 'index_status');
    assert.equal(reconnected.isError, false, JSON.stringify(reconnected.content));
    assert.notEqual(daemonPids(rt)[0], pid);
    const now = reconnected.structuredContent;
    assert.ok([old.files, old.files + 1].includes(now.files), `files ${now.files}, before ${old.files}`);
    await settled(s);  // the new daemon's worker catches up with the tree first
    assert.equal((await answer(s, 'index_status')).watch, 'off');
    assert.deepEqual(staging(data), []);
    seen = s.messages.length;
    assert.equal((await answer(s, 'force_reindex', { clear_existing: true })).status, 'accepted');
    assert.equal((await outcomeAfter(s.messages, seen)).files_processed, old.files + 1);
  } finally {
    await s.client.close();
    await stopDaemon(rt);
  }
});

test('a data directory owned by another process is refused, never shared', async () => {
  const rt = runtime();
  const data = fresh('data');
  const standalone = await session(rt, demo, data, ['--standalone']);
  const owner = standalone.transport.pid;
  try {
    const refusal = `brenloc: the data directory ${data} is in use by another brenloc process (pid ${owner})\n`;
    // The owner may still be rewriting its reports after its pass at start: those are its own to write.
    const files = () => fs.readdirSync(data).filter((f) => !f.startsWith('report.')).sort();
    const before = files();
    for (const [args, env] of [[['reindex', '--clear-existing'], NO_DAEMON], [['reindex', '--daemon'], rt.env],
                               [['status'], NO_DAEMON]]) {
      const r = await run([...args, '--repo', demo, '--data-dir', data], env);
      assert.equal(r.code, 2, `${args}: ${r.stderr}`);
      assert.equal(r.stderr, refusal);
    }
    assert.deepEqual(files(), before);
    // A session through the daemon hears the same refusal as a tool error, and goes on.
    const bridged = await session(rt, demo, data, [], false);
    const result = await call(bridged, 'index_status');
    assert.equal(result.isError, true);
    assert.match(result.content[0].text, new RegExp(`data directory ${data} is in use by another brenloc process \\(pid ${owner}\\)`));
    await bridged.client.close();
    // So does a second server in its own process: it completes the handshake and refuses each call.
    const second = await session(rt, demo, data, ['--standalone'], false);
    assert.deepEqual(await second.client.listTools(), await standalone.client.listTools());
    const refused = await call(second, 'search_symbols', { query: 'Cart' });
    assert.equal(refused.isError, true);
    assert.match(refused.content[0].text, new RegExp(`in use by another brenloc process \\(pid ${owner}\\); serve without --standalone`));
    await second.client.close();

    // A daemon of another runtime directory owns a data directory: a command without a daemon of its own
    // is led to the owner through the lock file, and gets its answer there.
    const rt2 = runtime();
    const data2 = fresh('data');
    const s2 = await session(rt2, demo, data2);
    const st = await run(['status', '--repo', demo, '--data-dir', data2], NO_DAEMON);
    assert.equal(st.code, 0, st.stderr);
    assert.equal(JSON.parse(st.stdout).data_dir, data2);
    await s2.client.close();
    await stopDaemon(rt2);
  } finally {
    await standalone.client.close();
    await stopDaemon(rt);
  }
});

test('a runtime directory that is not private is refused; serve then works alone', async (t) => {
  const cases = [
    ['loose permissions', (dir) => fs.chmodSync(dir, 0o755), /has mode 0755; it must be 0700/],
    ['a symbolic link', (dir) => { fs.rmdirSync(dir); fs.symlinkSync(fresh('elsewhere'), dir); }, /is not a directory \(it is a symbolic link\)/],
  ];
  if (process.getuid() === 0) cases.push(['another owner', (dir) => fs.chownSync(dir, 65534, 65534), /belongs to uid 65534, not to you/]);
  for (const [name, spoil, reason] of cases) {
    await t.test(name, async () => {
      const rt = runtime();
      const dir = path.join(rt.dir, 'brenloc');
      fs.mkdirSync(dir, { mode: 0o700 });
      spoil(dir);
      const r = await run(['daemon'], rt.env);
      assert.equal(r.code, 2);
      assert.match(r.stderr, reason);
      assert.equal(r.stderr.split('\n').length, 2, r.stderr);
      const s = await session(rt, demo, fresh('data'));
      assert.equal((await call(s, 'index_status')).isError, false);
      await s.client.close();
      assert.deepEqual(daemonPids(rt), []);
    });
  }
});

test('another user gets nothing from the daemon', { skip: process.getuid() !== 0 && 'needs root to act as another user' }, async () => {
  const rt = runtime();
  const s = await session(rt, demo, fresh('data'));
  try {
    // Opened up so that the other user can reach the socket at all: the daemon's own check must refuse.
    const socket = path.join(rt.dir, 'brenloc', 'daemon.sock');
    for (const dir of [scratch, rt.dir]) fs.chmodSync(dir, 0o711);
    fs.chmodSync(path.dirname(socket), 0o711);
    fs.chmodSync(socket, 0o666);
    const script = `const c = require('net').connect(${JSON.stringify(socket)});
      let got = ''; c.on('data', (d) => { got += d; });
      c.on('connect', () => c.write(JSON.stringify({jsonrpc: '2.0', id: 0, method: 'brenloc/status'}) + '\\n'));
      c.on('close', () => { process.stdout.write(JSON.stringify(got)); });
      c.on('error', () => {});  // the daemon may close before the request is written`;
    const child = spawn('setpriv', ['--reuid=65534', '--regid=65534', '--clear-groups', process.execPath, '-e', script],
      { stdio: ['ignore', 'pipe', 'inherit'] });
    let out = '';
    child.stdout.on('data', (d) => { out += d; });
    await once(child, 'exit');
    assert.equal(out, '""');
    assert.match(fs.readFileSync(path.join(rt.dir, 'brenloc', 'daemon.log'), 'utf8'), /Refused a connection from uid 65534/);
    assert.equal((await call(s, 'index_status')).isError, false);
  } finally {
    await s.client.close();
    await stopDaemon(rt);
  }
});

test('a newer brenloc binary has an older daemon make way; sessions follow it', async () => {
  const rt = runtime();
  const data = fresh('data');
  const s = await session(rt, demo, data);
  try {
    const old = await daemonStatus(rt);
    const newer = path.join(scratch, 'brenloc-newer');
    fs.copyFileSync(bin, newer);
    fs.chmodSync(newer, 0o755);
    const later = new Date(Date.now() + 60_000);
    fs.utimesSync(newer, later, later);
    const r = await new Promise((resolve) => execFile(newer, ['status', '--daemon', '--repo', demo, '--data-dir', data],
      { env: rt.env }, (error, stdout, stderr) => resolve({ code: error ? error.code : 0, stdout, stderr })));
    assert.equal(r.code, 0, r.stderr);
    assert.equal(JSON.parse(r.stdout).data_dir, data);
    const now = await daemonStatus(rt);
    assert.notEqual(now.pid, old.pid);
    assert.notDeepEqual(now.build, old.build);
    // The session's next call reaches the new daemon; an older client does not displace it.
    let result = await call(s, 'index_status');
    if (result.isError) result = await call(s, 'index_status');  // a call that was under way when it changed
    assert.equal(result.isError, false, JSON.stringify(result.content));
    assert.equal((await run(['status', '--repo', demo, '--data-dir', data], rt.env)).code, 0);
    assert.equal((await daemonStatus(rt)).pid, now.pid);
  } finally {
    await s.client.close();
    await stopDaemon(rt);
  }
});

test('the daemon stops when idle, on SIGTERM mid-rebuild and when asked, cleaning up', async () => {
  let rt = runtime({ BRENLOC_DAEMON_IDLE_TIMEOUT: '1', BRENLOC_WORKER_IDLE_TIMEOUT: '0' });
  let s = await session(rt, demo, fresh('data'));
  await call(s, 'index_status');
  const [idle] = daemonPids(rt);
  await s.client.close();
  await until('the idle daemon has exited', () => daemonPids(rt).length === 0 && !fs.existsSync(path.join(rt.dir, 'brenloc', 'daemon.sock')));

  rt = runtime();
  const data = fresh('data');
  s = await session(rt, tree, data);
  const seen = s.messages.length;
  await answer(s, 'force_reindex', { clear_existing: true });
  await until('the rebuild has started', () => s.messages.slice(seen).some((m) => m.data?.type === 'reindex_progress'));
  const [pid] = daemonPids(rt);
  assert.notEqual(pid, idle);
  process.kill(pid, 'SIGTERM');
  await until('the daemon has exited', () => daemonPids(rt).length === 0);
  assert.deepEqual(staging(data), []);
  assert.ok(!fs.existsSync(path.join(rt.dir, 'brenloc', 'daemon.sock')));
  await s.client.close();

  // No daemon: --stop and --status say so alike.
  const socket = path.join(rt.dir, 'brenloc', 'daemon.sock');
  for (const flag of ['--stop', '--status']) {
    assert.deepEqual(await run(['daemon', flag], rt.env),
                     { code: 1, stdout: '', stderr: `brenloc: no brenloc daemon runs (none listens on ${socket})\n` });
  }
  assert.equal((await run(['daemon', '--detach'], rt.env)).code, 0);
  assert.equal(daemonPids(rt).length, 1);
  assert.deepEqual(await stopDaemon(rt), { code: 0, stdout: 'brenloc daemon stopped\n', stderr: '' });
  // Stopped means its lock is free; the process may still be on its way out (a sanitizer's exit checks).
  await until('the stopped daemon has exited', () => daemonPids(rt).length === 0);
});
