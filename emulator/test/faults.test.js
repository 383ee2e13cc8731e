'use strict';
// Scripted faults by route and call count, and the vault settings of the
// control API.
const { test, before, after, beforeEach } = require('node:test');
const assert = require('node:assert');
const https = require('https');
const { startEmulator, azure, ctl, vaultToken, vaultCaller } = require('../test-support/harness');
const { javaKey } = require('../test-support/fixtures');

const HOST = 'faults.vault.azure.net';
let em;
let call;

before(async () => {
  em = await startEmulator();
  call = vaultCaller(em, HOST, await vaultToken(em));
});
after(() => em.stop());
beforeEach(async () => {
  await ctl(em, 'DELETE', '/script');
  await ctl(em, 'DELETE', '/requests');
});

const script = async (entry) => {
  const r = await ctl(em, 'POST', '/script', Object.assign({ service: 'vault', vault: 'faults' }, entry));
  assert.strictEqual(r.status, 200, r.text);
};

test('skip, repeat and pass script a sequence by call count', async () => {
  await script({ method: 'GET', path: '/keys', skip: 1,
    responses: [{ status: 429, repeat: 3, body: { error: { code: 'Throttled', message: 'busy' } } }, { pass: true }, { status: 500 }] });
  const statuses = [];
  for (let i = 0; i < 7; i++) statuses.push((await call('GET', '/keys?api-version=7.0')).status);
  assert.deepStrictEqual(statuses, [200, 429, 429, 429, 200, 500, 200]);
  const log = (await ctl(em, 'GET', '/requests?service=vault')).json;
  assert.deepStrictEqual(log.map((e) => e.scripted), [false, true, true, true, false, true, false]);
  assert.deepStrictEqual((await ctl(em, 'GET', '/script')).json, []);
});

test('pathPattern and bodyContains pick the requests a script answers', async () => {
  await ctl(em, 'PUT', '/vaults/faults', { tier: 'premium' });
  await script({ method: 'POST', pathPattern: '^/keys/[^/]+/create$', bodyContains: '-HSM',
    responses: [{ status: 403, body: { error: { code: 'Forbidden', message: 'Hardware key operation not allowed on standard vault' } } }] });
  const soft = await call('POST', '/keys/k/create?api-version=7.0', { kty: 'EC' });
  assert.strictEqual(soft.status, 200);
  const hsm = await call('POST', '/keys/k/create?api-version=7.0', { kty: 'EC-HSM' });
  assert.strictEqual(hsm.status, 403);
  assert.strictEqual((await call('POST', '/keys/k/create?api-version=7.0', { kty: 'EC-HSM' })).status, 200, 'used once');
  await ctl(em, 'PUT', '/vaults/faults', { tier: 'standard' });
  const bad = await ctl(em, 'POST', '/script', { service: 'vault', pathPattern: '(', responses: [{ status: 500 }] });
  assert.strictEqual(bad.status, 400);
});

test('malformed, wrongly typed, empty and truncated answers', async () => {
  await script({ path: '/keys/k', responses: [
    { status: 200, body: '{"key": {"kid": ' },
    { status: 200, body: { key: { kid: 42, kty: ['RSA'] } } },
    { status: 200 },
    { status: 200, body: { key: { kid: 'https://faults.vault.azure.net/keys/k/v', kty: 'RSA' } }, truncate: 10 },
  ] });
  const malformed = await call('GET', '/keys/k?api-version=7.0');
  assert.strictEqual(malformed.text, '{"key": {"kid": ');
  assert.strictEqual(malformed.headers['content-type'], 'application/json; charset=utf-8');
  assert.deepStrictEqual((await call('GET', '/keys/k?api-version=7.0')).json, { key: { kid: 42, kty: ['RSA'] } });
  const empty = await call('GET', '/keys/k?api-version=7.0');
  assert.strictEqual(empty.status, 200);
  assert.strictEqual(empty.text, '');
  await assert.rejects(call('GET', '/keys/k?api-version=7.0'), (e) => /aborted|ECONNRESET|socket hang up/i.test(`${e.code} ${e.message}`));
});

test('a broken chunked answer announces chunks it never frames; padTo makes a body large', async () => {
  await script({ responses: [{ status: 200, body: '{"value":"AQAB"}', brokenChunked: true }, { status: 200, body: { a: 1 }, padTo: 100000 }] });
  await assert.rejects(call('GET', '/keys?api-version=7.0'), (e) => /chunk/i.test(`${e.code} ${e.message}`));
  const padded = await call('GET', '/keys?api-version=7.0');
  assert.strictEqual(padded.text.length, 100000);
  assert.deepStrictEqual(padded.json, { a: 1 });
});

test('a reset aborts the connection; a drop closes it', async () => {
  await script({ responses: [{ reset: true }, { drop: true }] });
  await assert.rejects(call('GET', '/keys?api-version=7.0'), (e) => /ECONNRESET|socket hang up/.test(`${e.code} ${e.message}`));
  await assert.rejects(call('GET', '/keys?api-version=7.0'), (e) => /ECONNRESET|socket hang up/.test(`${e.code} ${e.message}`));
  assert.strictEqual((await call('GET', '/keys?api-version=7.0')).status, 200);
  assert.deepStrictEqual((await ctl(em, 'GET', '/requests?service=vault')).json.map((e) => e.status), [null, null, 200]);
});

test('a pass response lets the service answer, and the log shows connection reuse', async () => {
  await script({ responses: [{ pass: true, delay: 1 }] });
  const agent = new https.Agent({ keepAlive: true, maxSockets: 1 });
  const token = await vaultToken(em);
  for (let i = 0; i < 2; i++) {
    const r = await azure(em, HOST, 'GET', '/keys?api-version=7.0', { agent, headers: { Authorization: `Bearer ${token}` } });
    assert.strictEqual(r.status, 200);
  }
  agent.destroy();
  const vaultLog = (await ctl(em, 'GET', '/requests?service=vault')).json;
  assert.deepStrictEqual(vaultLog.map((e) => e.newConnection), [true, false]);
});

test('script entries are validated', async () => {
  for (const bad of [{ responses: [{ status: 200, repeat: 0 }] }, { responses: [{ status: 200, truncate: -1 }] },
    { responses: [{}] }, { skip: 'x', responses: [{ status: 200 }] }, { bodyContains: 3, responses: [{ status: 200 }] }]) {
    const r = await ctl(em, 'POST', '/script', Object.assign({ service: 'vault' }, bad));
    assert.strictEqual(r.status, 400, JSON.stringify(bad));
  }
});

test('vault settings are described, validated and forgotten', async () => {
  const set = await ctl(em, 'PUT', '/vaults/settings1',
    { tier: 'premium', recoverableDays: 7, deleteWindowRequests: 2, deleteWindowMs: 0, certificatePolls: 1, pageSizes: [1], latencyMs: 5 });
  assert.strictEqual(set.status, 200);
  assert.deepStrictEqual(set.json, { name: 'settings1', tier: 'premium', pageSizes: [1], tenant: set.json.tenant,
    recoverableDays: 7, deleteWindowRequests: 2, deleteWindowMs: 0, certificatePolls: 1, latencyMs: 5,
    keys: [], certificates: [], deletedKeys: [], deletedCertificates: [] });
  for (const bad of [{ recoverableDays: 6 }, { recoverableDays: 91 }, { deleteWindowRequests: -1 }, { deleteWindowMs: 1.5 },
    { certificatePolls: 'x' }, { tier: 'gold' }, { latencyMs: 120001 }]) {
    assert.strictEqual((await ctl(em, 'PUT', '/vaults/settings1', bad)).status, 400, JSON.stringify(bad));
  }
  await ctl(em, 'POST', '/vaults/settings1/keys', { name: 'k', jwk: javaKey() });
  await ctl(em, 'POST', '/vaults/settings1/certificates', { name: 'c', jwk: javaKey() });
  const described = (await ctl(em, 'GET', '/vaults/settings1')).json;
  assert.deepStrictEqual([described.keys, described.certificates], [['c', 'k'], ['c']]);
  assert.strictEqual((await ctl(em, 'DELETE', '/vaults/settings1')).status, 200);
  assert.deepStrictEqual((await ctl(em, 'GET', '/vaults/settings1')).json.keys, []);
});

test('seeding keys from JWKs: private, public only, and refusals', async () => {
  const pub = javaKey();
  for (const m of ['d', 'p', 'q', 'dp', 'dq', 'qi']) delete pub[m];
  const r = await ctl(em, 'POST', '/vaults/seeding/keys', { name: 'pub', jwk: pub, key_ops: ['verify'] });
  assert.strictEqual(r.status, 200, r.text);
  assert.deepStrictEqual(r.json.key.key_ops, ['verify']);
  assert.strictEqual(r.json.key.n, pub.n);
  const fixed = await ctl(em, 'POST', '/vaults/seeding/keys', { name: 'fixed', kty: 'EC', version: '0123456789abcdef0123456789abcdef' });
  assert.strictEqual(fixed.json.key.kid, 'https://seeding.vault.azure.net/keys/fixed/0123456789abcdef0123456789abcdef');
  const call2 = vaultCaller(em, 'seeding.vault.azure.net', await vaultToken(em));
  const made = await call2('POST', '/keys/made/create?api-version=7.3', { kty: 'EC', managed: true, version: '0'.repeat(32) });
  assert.strictEqual(made.json.managed, undefined, 'a client cannot make a managed key');
  assert.notStrictEqual(made.json.key.kid.split('/').pop(), '0'.repeat(32));
  for (const bad of [{ name: 'fixed', kty: 'EC', version: '0123456789abcdef0123456789abcdef' }, { name: 'v', kty: 'EC', version: 'XY' },
    { name: 'a', jwk: { kty: 'oct', k: 'AA' } }, { name: 'b', jwk: { kty: 'RSA', n: 'AQAB' } },
    { name: 'c', jwk: { kty: 'EC', crv: 'P-256', x: 'AA', y: 'AA' } }, { name: 'd', jwk: 'x' }, { name: 'e', kty: 'EC', key_ops: ['x'] }]) {
    const e = await ctl(em, 'POST', '/vaults/seeding/keys', bad);
    assert.strictEqual(e.status, 400, JSON.stringify(bad));
  }
});
