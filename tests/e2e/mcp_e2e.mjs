// End-to-end tests of brenloc's MCP server with the official MCP TypeScript SDK client, plus a raw
// stdio session for what a well-behaved client never sends.
//
//   node mcp_e2e.mjs -- SERVER COMMAND...
//   node mcp_e2e.mjs -- brenloc serve --repo DIR [--data-dir DIR]

import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { createInterface } from 'node:readline';
import { readFileSync } from 'node:fs';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { LoggingMessageNotificationSchema, McpError } from '@modelcontextprotocol/sdk/types.js';

const dash = process.argv.indexOf('--');
if (dash < 0 || dash + 1 >= process.argv.length) {
  console.error('usage: node mcp_e2e.mjs -- SERVER COMMAND...');
  process.exit(64);
}
const [command, ...args] = process.argv.slice(dash + 1);

const PARSE_ERROR = -32700;
const INVALID_REQUEST = -32600;
const METHOD_NOT_FOUND = -32601;
const INVALID_PARAMS = -32602;
const LINE_LIMIT = 8 * 1024 * 1024;

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// An SDK client connected to a fresh server, collecting the log notifications it receives.
async function connect() {
  // The whole environment: the SDK passes only a few variables by default, and the server's daemon is found
  // through XDG_RUNTIME_DIR.
  const transport = new StdioClientTransport({ command, args, stderr: 'inherit', env: process.env });
  const client = new Client({ name: 'brenloc-e2e', version: '1.0.0' });
  const messages = [];
  client.setNotificationHandler(LoggingMessageNotificationSchema, (n) => messages.push(n.params));
  await client.connect(transport);
  await client.listTools();  // from here on the SDK checks every tool's answer against its outputSchema
  await settled(client);
  return { client, messages };
}

// Waits until the worker's pass at start (it catches up with the tree) has ended.
async function settled(client) {
  for (const deadline = Date.now() + 60_000; Date.now() < deadline; await sleep(20)) {
    const status = await client.callTool({ name: 'index_status', arguments: {} });
    if (status.isError || !status.structuredContent?.indexing) return;
  }
  throw new Error('timed out waiting for the pass at start to end');
}


function structured(result) {
  assert.equal(result.content.length, 1);
  assert.equal(result.content[0].type, 'text');
  // The text item holds the same JSON as structuredContent, keys in the same order.
  assert.equal(result.content[0].text, JSON.stringify(result.structuredContent));
  return result.structuredContent;
}

// Waits for the reindex that was just accepted to end, and returns its broadcast.
async function reindexOutcome(messages, from) {
  for (const deadline = Date.now() + 60_000; Date.now() < deadline; await sleep(20)) {
    const found = messages.slice(from).find((m) => ['reindex_complete', 'reindex_failed'].includes(m.data?.type));
    if (found) return found;
  }
  throw new Error('timed out waiting for the reindex outcome broadcast');
}

// A server on raw pipes: lines in, parsed lines out, in order.
function rawSession() {
  const child = spawn(command, args, { stdio: ['pipe', 'pipe', 'inherit'] });
  const lines = createInterface({ input: child.stdout, crlfDelay: Infinity })[Symbol.asyncIterator]();
  return {
    child,
    exited: once(child, 'exit'),
    send: (m) => child.stdin.write((typeof m === 'string' ? m : JSON.stringify(m)) + '\n'),
    // Everything on stdout must be a protocol message; a missing answer fails at the test's timeout.
    next: async () => JSON.parse((await lines.next()).value),
  };
}

test('handshake, ping and tool listing', async () => {
  const { client } = await connect();
  try {
    assert.equal(client.getServerVersion().name, 'brenloc');
    assert.match(client.getServerVersion().version, /^\d+\.\d+\.\d+/);
    assert.deepEqual(client.getServerCapabilities(), { tools: {}, logging: {} });
    assert.deepEqual(await client.ping(), {});

    const { tools } = await client.listTools();
    const byName = Object.fromEntries(tools.map((t) => [t.name, t]));
    for (const name of ['force_reindex', 'index_status', 'search_symbols']) {
      assert.ok(byName[name], `tool ${name} listed`);
      assert.equal(byName[name].inputSchema.type, 'object');
      assert.ok(byName[name].description);
    }
    {
      assert.match(client.getInstructions(), /force_reindex/);
      for (const t of tools) {
        assert.ok(t.title, `${t.name} has a title`);
        assert.equal(t.outputSchema?.type, 'object', `${t.name} has an output schema`);
      }
      assert.equal(byName.index_status.annotations.readOnlyHint, true);
      assert.equal(byName.search_symbols.annotations.readOnlyHint, true);
      assert.equal(byName.force_reindex.annotations.readOnlyHint, false);
      // Every answer is checked against its tool's outputSchema by the SDK once the tools are listed.
      await client.callTool({ name: 'index_status', arguments: {} });
      await client.callTool({ name: 'search_symbols', arguments: { query: 'a', kind: null } });
      await client.callTool({ name: 'force_reindex', arguments: { paths: ['/'] } });
    }
    const { properties: reindex, required } = byName.force_reindex.inputSchema;
    assert.deepEqual([reindex.paths.type, reindex.paths.items, reindex.clear_existing.type, required ?? []],
      ['array', { type: 'string' }, 'boolean', []]);
    const search = byName.search_symbols.inputSchema;
    assert.deepEqual([search.required, search.properties.kind.type, search.properties.limit.type],
      [['query'], 'string', 'integer']);
    assert.deepEqual(Object.keys(byName.index_status.inputSchema.properties ?? {}), ['repo']);
  } finally {
    await client.close();
  }
});

test('force_reindex answers each form and broadcasts the outcome', async () => {
  const { client, messages } = await connect();
  const call = async (args) => client.callTool({ name: 'force_reindex', arguments: args });
  try {
    // Whole repository, live, and a rebuild asked for at the same moment: the first is accepted, the
    // second finds it running (unless the small repository's pass was over before the second request
    // reached the worker, which a relay through the daemon on a loaded machine allows).
    let seen = messages.length;
    let [result, busy] = await Promise.all([call({}), call({ clear_existing: true })]);
    assert.equal(result.isError, false);
    let answer = structured(result);
    assert.deepEqual(Object.keys(answer), ['status', 'message', 'clear_existing']);
    assert.deepEqual(answer, { status: 'accepted', message: 'Reindexing started in background', clear_existing: false });
    assert.equal(busy.isError, false);
    if (structured(busy).status === 'accepted') {
      const first = await reindexOutcome(messages, seen);
      seen = messages.indexOf(first) + 1;  // the outcome looked at below is the second run's
    } else {
      assert.deepEqual(structured(busy), { status: 'in_progress', message: 'Indexing already in progress' });
    }

    let outcome = await reindexOutcome(messages, seen);
    assert.equal(outcome.level, 'info');
    assert.equal(outcome.logger, 'brenloc');
    assert.deepEqual(Object.keys(outcome.data), ['type', 'files_processed', 'symbols_added', 'errors']);
    assert.equal(outcome.data.type, 'reindex_complete');
    for (const m of messages.slice(seen).filter((m) => m.data?.type === 'reindex_progress')) {
      assert.equal(m.level, 'info');
      assert.deepEqual(Object.keys(m.data), ['type', 'files_done', 'files_total']);
    }

    // A path outside the repository: refused, with isError.
    result = await call({ paths: ['../../../..'], clear_existing: true });
    assert.equal(result.isError, true);
    answer = structured(result);
    assert.deepEqual(Object.keys(answer), ['error', 'status']);
    assert.deepEqual(answer, { error: 'Path outside repository', status: 'failed' });

    // clear_existing with paths: the paths are reindexed live and the answer says so.
    seen = messages.length;
    result = await call({ paths: ['.'], clear_existing: true });
    assert.deepEqual(structured(result), {
      status: 'accepted',
      message: 'Reindexing started in background; clear_existing rebuilds only the whole repository: paths are reindexed',
      clear_existing: false,
    });
    await reindexOutcome(messages, seen);

    // A full rebuild.
    seen = messages.length;
    result = await call({ clear_existing: true });
    assert.deepEqual(structured(result), { status: 'accepted', message: 'Reindexing started in background', clear_existing: true });
    outcome = await reindexOutcome(messages, seen);
    assert.equal(outcome.level, outcome.data.type === 'reindex_complete' ? 'info' : 'error');

    const status = structured(await client.callTool({ name: 'index_status', arguments: {} }));
    assert.deepEqual(Object.keys(status), [
      'repo_root', 'data_dir', 'indexing', 'progress', 'last_reindex_error', 'rebuild_refusal', 'last_reindex',
      'files', 'symbols', 'last_index', 'left_out', 'watch', 'watches',
    ]);
    assert.equal(status.indexing, false);
    if (outcome.data.type === 'reindex_complete') {
      assert.equal(status.last_reindex_error, null);
      assert.equal(status.rebuild_refusal, null);
    } else {
      assert.equal(status.last_reindex_error, outcome.data.error);
    }

    // The search tools' answers, each checked by the SDK against the tool's outputSchema.
    const { tools } = await client.listTools();
    if (tools.some((t) => t.name === 'file_outline') && status.files > 0) {
      const hit = structured(await client.callTool({ name: 'search_symbols', arguments: { query: 'a', limit: 1 } })).results[0];
      assert.ok(hit, 'the index has a symbol with an a');
      const outline = await client.callTool({ name: 'file_outline', arguments: { path: hit.path } });
      assert.equal(outline.isError, false);
      const source = await client.callTool({ name: 'symbol_source', arguments: { name: hit.name, path: hit.path } });
      assert.equal(source.isError, false);
      assert.equal((await client.callTool({ name: 'file_outline', arguments: { path: '../elsewhere' } })).isError, true);
    }
  } finally {
    await client.close();
  }
});

test('argument errors are tool errors naming the culprit; an unknown tool is a protocol error', async () => {
  const { client } = await connect();
  const cases = [
    [{ name: 'search_symbols', arguments: {} }, /query/],
    [{ name: 'search_symbols', arguments: { query: 'x', limit: 'many' } }, /limit/],
    [{ name: 'search_symbols', arguments: { query: 'x', kind: 'klass' } }, /kind.*function, method, class/],
    [{ name: 'search_symbols', arguments: { query: 'x', limit: 5000 } }, /limit/],
    [{ name: 'search_symbols', arguments: { query: null } }, /query/],
    [{ name: 'search_symbols', arguments: { query: 'x'.repeat(2_000_000) } }, /query' must be at most/],
    [{ name: 'force_reindex', arguments: { paths: 'src' } }, /paths/],
    [{ name: 'force_reindex', arguments: { colour: 'red' } }, /colour/],
  ];
  try {
    for (const [params, pattern] of cases) {
      const result = await client.callTool(params);
      assert.equal(result.isError, true, JSON.stringify(params));
      assert.equal(result.structuredContent, undefined);
      assert.match(result.content[0].text, new RegExp(`^Invalid arguments for ${params.name}: .*${pattern.source}`));
    }
    await assert.rejects(client.callTool({ name: 'no_such_tool', arguments: {} }), (e) => {
      assert.ok(e instanceof McpError, String(e));
      assert.equal(e.code, INVALID_PARAMS);
      assert.match(e.message, /no_such_tool/);
      return true;
    });
    const found = structured(await client.callTool({ name: 'search_symbols', arguments: { query: 'main' } }));
    assert.equal(typeof found, 'object');
  } finally {
    await client.close();
  }
});

// The relevance table through MCP, and the outline and source tools, on a server that offers them (the
// real one, serving the demo samples).
test('search ranks as the relevance table says; outline, source, references and importers answer', async () => {
  const { client, messages } = await connect();
  try {
    const { tools } = await client.listTools();
    const byName = Object.fromEntries(tools.map((t) => [t.name, t]));
    if (!byName.file_outline) return;
    assert.ok(byName.search_symbols.inputSchema.properties.kind.enum.includes('class'));
    assert.deepEqual(byName.file_outline.inputSchema.required, ['path']);
    const seen = messages.length;
    await client.callTool({ name: 'force_reindex', arguments: { clear_existing: true } });
    assert.equal((await reindexOutcome(messages, seen)).data.type, 'reindex_complete');

    const table = JSON.parse(readFileSync(new URL('../search_relevance.json', import.meta.url)));
    const text = (h) => `${h.name} ${h.kind} ${h.path}`;
    for (const c of table.cases) {
      const answer = structured(await client.callTool({ name: 'search_symbols', arguments: c.args }));
      const message = JSON.stringify(c.args);
      assert.equal(answer.results.length > 0 ? text(answer.results[0]) : null, c.first, message);
      for (const h of answer.results) assert.ok(!c.absent.includes(text(h)), `${message}: ${text(h)}`);
    }
    const outline = structured(await client.callTool({ name: 'file_outline', arguments: { path: 'cpp/geometry.hpp' } }));
    assert.deepEqual(outline.symbols.map((s) => s.name), ['geometry']);
    assert.deepEqual(outline.symbols[0].children.map((s) => s.name), ['Point', 'Polygon']);
    const source = structured(await client.callTool({ name: 'symbol_source', arguments: { name: 'Polygon::add' } }));
    assert.equal(source.path, 'cpp/geometry.cpp');
    assert.ok(source.source.startsWith(source.signature), source.source);
    const refused = await client.callTool({ name: 'symbol_source', arguments: { path: '../x.py', line: 1 } });
    assert.equal(refused.isError, true);
    assert.deepEqual(structured(refused), { error: 'Path outside repository', status: 'failed' });

    // The calls of a function, a page at a time, each with the definition it is in; the importers of a header.
    const calls = { name: 'next_index', role: 'call', limit: 2 };
    const page = structured(await client.callTool({ name: 'find_references', arguments: calls }));
    const where = (answer) => answer.files.flatMap((f) => f.references.map((r) => `${f.path}:${r.line}:${r.column} ${r.definition?.name}`));
    assert.equal(page.total, 3);
    assert.deepEqual(where(page), ['c/ring.c:6:9 ring_push', 'c/ring.c:8:15 ring_push']);
    const next = structured(await client.callTool({ name: 'find_references', arguments: { ...calls, cursor: page.next_cursor } }));
    assert.deepEqual(where(next), ['c/ring.c:15:15 ring_pop']);
    assert.equal(next.next_cursor, undefined);
    const importers = structured(await client.callTool({ name: 'find_importers', arguments: { path: 'c/ring.h' } }));
    assert.deepEqual(importers.importers.map((i) => `${i.path}:${i.line} ${i.import}`), ['c/ring.c:1 "ring.h"']);
    assert.equal((await client.callTool({ name: 'find_references', arguments: { role: 'call' } })).isError, true);
    assert.deepEqual(structured(await client.callTool({ name: 'find_importers', arguments: { path: '../x.h' } })),
                     { error: 'Path outside repository', status: 'failed' });
  } finally {
    await client.close();
  }
});

test('bad lines get errors, the stream goes on, end of input stops the server', { timeout: 60_000 }, async () => {
  const s = rawSession();
  const cases = [
    ['this is not json', null, PARSE_ERROR],
    ['{"jsonrpc":"2.0","id":1,', null, PARSE_ERROR],
    ['[]', null, INVALID_REQUEST],
    ['{"jsonrpc":"1.0","id":2,"method":"ping"}', 2, INVALID_REQUEST],
    ['{"jsonrpc":"2.0","id":3,"method":"no/such/method"}', 3, METHOD_NOT_FOUND],
    ['{"jsonrpc":"2.0","id":6,"method":"ping","pad":"' + 'x'.repeat(LINE_LIMIT) + '"}', null, INVALID_REQUEST],
  ];
  try {
    s.send({ jsonrpc: '2.0', id: 0, method: 'initialize', params: { protocolVersion: '2024-11-05', capabilities: {}, clientInfo: { name: 'raw', version: '0' } } });
    const init = await s.next();
    assert.equal(init.id, 0);
    assert.equal(init.result.protocolVersion, '2024-11-05');
    s.send({ jsonrpc: '2.0', method: 'notifications/initialized' });

    for (const [line, id, code] of cases) {
      s.send(line);
      const reply = await s.next();
      assert.deepEqual({ ...reply, error: { code: reply?.error?.code } }, { jsonrpc: '2.0', id, error: { code } }, line.slice(0, 60));
      assert.equal(typeof reply.error.message, 'string');
    }

    // No cursor was ever handed out, so any cursor is refused.
    s.send({ jsonrpc: '2.0', id: 11, method: 'tools/list', params: { cursor: 'next' } });
    assert.equal((await s.next()).error.code, INVALID_PARAMS);

    // Cancelling a request that was answered long ago, or was never made, changes nothing.
    s.send({ jsonrpc: '2.0', method: 'notifications/cancelled', params: { requestId: 11, reason: 'late' } });
    s.send({ jsonrpc: '2.0', method: 'notifications/cancelled', params: { requestId: 99 } });
    s.send({ jsonrpc: '2.0', id: 10, method: 'ping' });
    assert.deepEqual(await s.next(), { jsonrpc: '2.0', id: 10, result: {} });

    s.child.stdin.end();
    const timer = setTimeout(() => s.child.kill('SIGKILL'), 10_000);
    const [code, signal] = await s.exited;
    clearTimeout(timer);
    assert.equal(signal, null, 'stopped by itself');
    assert.equal(code, 0);
  } finally {
    if (s.child.exitCode === null) s.child.kill('SIGKILL');
  }
});

test('under 2025-03-26 a batch is answered with one array; under other revisions it is refused', async () => {
  const s = rawSession();
  try {
    // The first batch comes in the same write as the initialize, before its answer: it is read under the
    // revision that the initialize negotiates.
    s.send(JSON.stringify({ jsonrpc: '2.0', id: 0, method: 'initialize', params: { protocolVersion: '2025-03-26', capabilities: {}, clientInfo: { name: 'raw', version: '0' } } }) + '\n' +
           JSON.stringify([{ jsonrpc: '2.0', id: 1, method: 'ping' }, { jsonrpc: '2.0', method: 'notifications/initialized' },
                           { jsonrpc: '2.0', id: 2, method: 'no/such/method' }, { jsonrpc: '2.0', id: 3, method: 'initialize', params: {} }]));
    assert.equal((await s.next()).result.protocolVersion, '2025-03-26');
    const answers = await s.next();
    assert.ok(Array.isArray(answers), JSON.stringify(answers));
    const byId = Object.fromEntries(answers.map((a) => [a.id, a]));
    assert.deepEqual(Object.keys(byId).sort(), ['1', '2', '3']);
    assert.deepEqual(byId[1].result, {});
    assert.equal(byId[2].error.code, METHOD_NOT_FOUND);
    assert.equal(byId[3].error.code, INVALID_REQUEST);
    s.send([{ jsonrpc: '2.0', method: 'notifications/initialized' }]);  // nothing to answer
    s.send([]);
    assert.equal((await s.next()).error.code, INVALID_REQUEST);
  } finally {
    s.child.stdin.end();
    await s.exited;  // a server in its own process lets the data directory go only when it has exited
  }
  const late = rawSession();
  try {
    late.send({ jsonrpc: '2.0', id: 0, method: 'initialize', params: { protocolVersion: '2025-11-25', capabilities: {}, clientInfo: { name: 'raw', version: '0' } } });
    await late.next();
    late.send([{ jsonrpc: '2.0', id: 1, method: 'ping' }]);
    assert.deepEqual(await late.next(), { jsonrpc: '2.0', id: null, error: { code: INVALID_REQUEST, message: 'Invalid Request: batches are not supported' } });
  } finally {
    late.child.stdin.end();
  }
});
