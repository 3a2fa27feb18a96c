// The daemon attacked as a hostile or broken client would attack it: a client that writes requests as fast
// as it can (reading its answers or not), a client killed with work queued, a daemon that stops answering,
// odd things at the socket's path, a daemon killed during a rebuild. Each test has a daemon of its own,
// run under a limit of private memory so that a daemon that grows without bound fails alone.
//
//   node daemon_abuse_e2e.mjs BRENLOC_BINARY SOURCE_TREE
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import { daemonWorld, sleep } from './daemon_world.mjs';

const [bin, sourceTree] = process.argv.slice(2);
if (!bin || !sourceTree) {
  console.error('usage: node daemon_abuse_e2e.mjs BRENLOC_BINARY SOURCE_TREE');
  process.exit(64);
}

const { tree, fresh, runtime, run, session, call, daemonPids, until, stopDaemon } = daemonWorld(bin, sourceTree);

const MiB = 1024 * 1024;
const DATA_LIMIT = 2048 * MiB;

const rssOf = (pid) => Number(/VmRSS:\s+(\d+) kB/.exec(fs.readFileSync(`/proc/${pid}/status`, 'utf8'))[1]) * 1024;
const cpuSecondsOf = (pid) => {
  const fields = fs.readFileSync(`/proc/${pid}/stat`, 'utf8').split(') ')[1].split(' ');
  return (Number(fields[11]) + Number(fields[12])) / 100;  // utime + stime, in clock ticks of 1/100 s
};

// Samples a process's resident memory until stopped; the peak is kept.
function rssWatch(pid) {
  const w = { peak: rssOf(pid), stop: () => clearInterval(timer) };
  const timer = setInterval(() => {
    try { w.peak = Math.max(w.peak, rssOf(pid)); } catch { /* gone */ }
  }, 50);
  return w;
}

// Searches on `s` every `everyMs` until stopped, keeping each search's time in milliseconds.
function searchLoop(s, everyMs = 200) {
  const times = [];
  let going = true;
  const done = (async () => {
    while (going) {
      const t0 = Date.now();
      const r = await call(s, 'search_symbols', { query: 'io_context', limit: 5 });
      assert.equal(r.isError, false, JSON.stringify(r.content));
      times.push(Date.now() - t0);
      await sleep(everyMs);
    }
  })();
  return { times, stop: async () => { going = false; await done; } };
}

const line = (m) => `${JSON.stringify({ jsonrpc: '2.0', ...m })}\n`;

// A `serve` whose client writes search_symbols requests as fast as the pipe takes them for `ms`, and reads
// its answers or not. Resolves with the child (still running) and the counts of requests and answers.
async function flood(rt, data, { reading, ms }) {
  const child = spawn(rt.launch[0], [...rt.launch.slice(1), 'serve', '--repo', tree, '--data-dir', data],
    { env: rt.env, stdio: ['pipe', 'pipe', 'ignore'] });
  const counts = { sent: 0, answered: 0 };
  let pending = '';
  child.stdout.on('data', (d) => {
    pending += d;
    const lines = pending.split('\n');
    pending = lines.pop();
    counts.answered += lines.filter((l) => l.includes('"result"')).length;
  });
  child.stdin.on('error', () => {});
  child.stdin.write(line({ id: 'init', method: 'initialize', params: { protocolVersion: '2025-11-25', capabilities: {}, clientInfo: { name: 'flood', version: '1' } } }));
  child.stdin.write(line({ method: 'notifications/initialized' }));
  await sleep(300);
  if (!reading) child.stdout.pause();
  const queries = ['io_context', 'strand', 'async_read', 'basic_socket', 'exec', 'post', 'dispatch', 'buffer'];
  for (const end = Date.now() + ms; Date.now() < end;) {
    let chunk = '';
    for (let i = 0; i < 200; ++i, ++counts.sent) {
      chunk += line({ id: counts.sent, method: 'tools/call',
        params: { name: 'search_symbols', arguments: { query: queries[counts.sent % queries.length], match: 'fuzzy' } } });
    }
    if (!child.stdin.write(chunk)) {
      await Promise.race([new Promise((resolve) => child.stdin.once('drain', resolve)), sleep(Math.max(0, end - Date.now()))]);
    }
  }
  return { child, counts };
}

for (const reading of [true, false]) {
  test(`a client that writes as fast as it can, ${reading ? 'reading' : 'not reading'} its answers`, async () => {
    const rt = runtime({}, { dataLimit: DATA_LIMIT });
    const data = fresh('data');
    const other = await session(rt, tree, data, ['--no-watch']);
    const [pid] = daemonPids(rt);
    const before = rssOf(pid);
    const watch = rssWatch(pid);
    try {
      const searches = searchLoop(other);
      const { child, counts } = await flood(rt, data, { reading, ms: 5000 });
      await searches.stop();
      watch.stop();
      const grown = (watch.peak - before) / MiB;
      const slowest = Math.max(...searches.times);
      console.log(`# ${reading ? 'reading' : 'not reading'}: ${counts.sent} requests written, ${counts.answered} ` +
        `answered; daemon RSS ${(before / MiB).toFixed(0)} -> peak ${(watch.peak / MiB).toFixed(0)} MiB; the other ` +
        `session's searches: ${searches.times.length}, slowest ${slowest} ms`);
      assert.ok(daemonPids(rt).includes(pid), 'the daemon is still there');
      assert.ok(grown < 150, `the daemon grew by ${grown.toFixed(0)} MiB`);
      assert.ok(slowest < 2000, `another session's search took ${slowest} ms`);

      // The client dies with its work queued: the daemon drops that work at once.
      child.kill('SIGKILL');
      await sleep(500);
      const cpu0 = cpuSecondsOf(pid);
      await sleep(1000);
      const busy = cpuSecondsOf(pid) - cpu0;
      assert.ok(busy < 0.3, `the daemon spent ${busy.toFixed(2)} s of CPU in the second after its client died`);
      const t0 = Date.now();
      assert.equal((await call(other, 'search_symbols', { query: 'strand' })).isError, false);
      assert.ok(Date.now() - t0 < 1000, `a search after the client died took ${Date.now() - t0} ms`);
    } finally {
      watch.stop();
      await other.client.close();
      const t0 = Date.now();
      await stopDaemon(rt);
      await until('the daemon has stopped', () => daemonPids(rt).length === 0, 10_000);
      console.log(`# daemon --stop took ${Date.now() - t0} ms`);
    }
  });
}

// Times `fn`, in milliseconds.
async function timed(fn) {
  const t0 = Date.now();
  const value = await fn();
  return { value, ms: Date.now() - t0 };
}

test('a stopped daemon: pending calls fail within seconds, new sessions are served alone or told why', async () => {
  const rt = runtime({}, { dataLimit: DATA_LIMIT });
  const owned = fresh('data');
  const a = await session(rt, tree, owned, ['--no-watch']);
  const [pid] = daemonPids(rt);
  process.kill(pid, 'SIGSTOP');
  try {
    // The attached session's call gives up within the bridge's deadlines (a ping after 5 s of silence,
    // 5 s more for its answer).
    const pending = await timed(() => call(a, 'index_status'));
    assert.equal(pending.value.isError, true);
    assert.match(pending.value.content[0].text, /has not answered for \d+ s.*call the tool again/);
    assert.ok(pending.ms < 15_000, `the pending call failed after ${pending.ms} ms`);

    // A new session on a free data directory is served by its own process.
    const alone = await timed(async () => {
      const s = await session(rt, tree, fresh('data'), ['--no-watch'], false);
      return { s, status: await call(s, 'index_status') };
    });
    assert.equal(alone.value.status.isError, false, JSON.stringify(alone.value.status.content) + alone.value.s.stderr);
    assert.ok(alone.ms < 12_000, `a new session took ${alone.ms} ms to be served`);
    await alone.value.s.client.close();

    // A new session on the data directory the stopped daemon owns is told why, at once after its handshake.
    const told = await timed(async () => {
      const s = await session(rt, tree, owned, [], false);
      return { s, status: await call(s, 'index_status') };
    });
    assert.equal(told.value.status.isError, true);
    assert.match(told.value.status.content[0].text, /cannot be reached: .*did not answer within 5 s.*in use by another brenloc process/);
    assert.ok(told.ms < 12_000, `the refusal took ${told.ms} ms`);
    await told.value.s.client.close();

    // The command line is told as quickly.
    const cli = await timed(() => run(['status', '--daemon', '--repo', tree, '--data-dir', owned], rt.env));
    assert.notEqual(cli.value.code, 0);
    assert.match(cli.value.stderr, /did not answer within 5 s/);
    assert.ok(cli.ms < 12_000, `the command took ${cli.ms} ms`);
  } finally {
    process.kill(pid, 'SIGCONT');
    await a.client.close();
    await stopDaemon(rt);
  }
});

test('odd things at the socket path are answered within seconds, and the session is served alone', async (t) => {
  const net = await import('node:net');
  const cases = [
    ['a directory that is not empty', (sock) => { fs.mkdirSync(sock); fs.writeFileSync(`${sock}/x`, ''); }],
    ['a regular file', (sock) => fs.writeFileSync(sock, 'junk')],
    ['a program that listens and never answers', (sock) => {
      const server = net.createServer(() => {});
      server.listen(sock);
      return () => server.close();
    }],
  ];
  for (const [name, spoil] of cases) {
    await t.test(name, async () => {
      const rt = runtime({}, { dataLimit: DATA_LIMIT });
      fs.mkdirSync(`${rt.dir}/brenloc`, { mode: 0o700 });
      const undo = spoil(`${rt.dir}/brenloc/daemon.sock`);
      try {
        const served = await timed(async () => {
          const s = await session(rt, tree, fresh('data'), ['--no-watch'], false);
          return { s, status: await call(s, 'index_status') };
        });
        assert.equal(served.value.status.isError, false, JSON.stringify(served.value.status.content));
        assert.ok(served.ms < 12_000, `served after ${served.ms} ms`);
        await served.value.s.client.close();
      } finally {
        if (undo) undo();
      }
    });
  }
});

test('a daemon killed during a rebuild: the session hears reindex_failed when it reconnects', async () => {
  const rt = runtime({}, { dataLimit: DATA_LIMIT });
  const data = fresh('data');
  const s = await session(rt, tree, data, ['--no-watch']);
  try {
    const seen = s.messages.length;
    assert.equal((await call(s, 'force_reindex', { clear_existing: true })).structuredContent.status, 'accepted');
    await until('the rebuild has made progress',
      () => s.messages.slice(seen).some((m) => m.data?.type === 'reindex_progress'));
    const [pid] = daemonPids(rt);
    process.kill(pid, 'SIGKILL');
    await until('the daemon is gone', () => daemonPids(rt).length === 0);

    // The next call reconnects (a new daemon); the outcome of the killed run follows.
    let status = await call(s, 'index_status');
    if (status.isError) status = await call(s, 'index_status');  // sent before the bridge saw the daemon go
    assert.equal(status.isError, false, JSON.stringify(status.content) + s.stderr);
    await until('the session has heard the outcome',
      () => s.messages.slice(seen).some((m) => m.data?.type === 'reindex_failed'), 10_000);
    const failed = s.messages.slice(seen).find((m) => m.data?.type === 'reindex_failed');
    assert.equal(failed.level, 'error');
    assert.match(failed.data.error, new RegExp(`^Reindex interrupted: the brenloc process that ran it \\(pid ${pid}, started .*\\) ended before it finished; the live index was kept as it was`));
    const after = (await call(s, 'index_status')).structuredContent;
    assert.equal(after.last_reindex_error, failed.data.error);
    assert.equal(after.last_reindex.state, 'interrupted');
    assert.deepEqual(after.last_reindex.outcome, failed.data);
  } finally {
    await s.client.close();
    await stopDaemon(rt);
  }
});
