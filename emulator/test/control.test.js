'use strict';
const { test, before, after, beforeEach } = require('node:test');
const assert = require('node:assert');
const http = require('http');
const https = require('https');
const { startEmulator, azure, plain, ctl, vaultToken } = require('../test-support/harness');

const HOST = 'scripted.vault.azure.net';
const THROTTLED = { error: { code: 'Throttled', message: 'Request was not processed because too many requests were received. Reason: VaultRequestTypeLimitReached' } };
let em;
let token;

before(async () => {
  em = await startEmulator();
  token = await vaultToken(em);
});
after(() => em.stop());
beforeEach(async () => { await ctl(em, 'DELETE', '/requests'); });

const list = (opts = {}) => azure(em, HOST, 'GET', '/keys?api-version=7.4',
  Object.assign({ headers: { Authorization: `Bearer ${token}` } }, opts));

test('scripted 429 twice, then the vault answers normally', async () => {
  const r = await ctl(em, 'POST', '/script', {
    service: 'vault', method: 'GET', path: '/keys', vault: 'scripted',
    responses: [{ status: 429, body: THROTTLED }, { status: 429, body: THROTTLED }],
  });
  assert.strictEqual(r.status, 200);
  const other = await azure(em, 'elsewhere.vault.azure.net', 'GET', '/keys?api-version=7.4',
    { headers: { Authorization: `Bearer ${token}` } });
  assert.strictEqual(other.status, 200, 'another vault is not scripted');
  const statuses = [];
  for (let i = 0; i < 3; i++) {
    const a = await list();
    statuses.push(a.status);
    if (a.status === 429) {
      assert.deepStrictEqual(a.json, THROTTLED);
      assert.strictEqual(a.headers['content-type'], 'application/json; charset=utf-8');
      assert.ok(a.headers['x-ms-request-id']);
    }
  }
  assert.deepStrictEqual(statuses, [429, 429, 200]);
  const logged = (await ctl(em, 'GET', '/requests?service=vault')).json.map((e) => e.status);
  assert.deepStrictEqual(logged, [200, 429, 429, 200]);
});

test('a scripted drop closes the connection without an answer', async () => {
  await ctl(em, 'POST', '/script', { service: 'imds', responses: [{ drop: true }] });
  await assert.rejects(plain(em.ports.imds, 'GET', '/metadata/identity/oauth2/token', { Metadata: 'true' }),
    (e) => e.code === 'ECONNRESET' || /socket hang up/.test(e.message));
  const next = await plain(em.ports.imds, 'GET', '/metadata/identity/oauth2/token', {});
  assert.strictEqual(next.status, 400);
  const log = (await ctl(em, 'GET', '/requests?service=imds')).json;
  assert.deepStrictEqual(log.map((e) => e.status), [null, 400]);
});

test('the scripted body may be text, sent as is, with its own headers', async () => {
  await ctl(em, 'POST', '/script', { service: 'login', method: 'POST',
    responses: [{ status: 503, headers: { 'Retry-After': '7', 'Content-Type': 'text/plain' }, body: 'busy' }] });
  const r = await azure(em, 'login.microsoftonline.com', 'POST', '/t/oauth2/token', { body: 'x=1' });
  assert.strictEqual(r.status, 503);
  assert.strictEqual(r.text, 'busy');
  assert.strictEqual(r.headers['retry-after'], '7');
  assert.strictEqual(r.headers['content-type'], 'text/plain');
  const [entry] = (await ctl(em, 'GET', '/requests?service=login')).json;
  assert.strictEqual(entry.body, 'x=1');
  assert.strictEqual(entry.status, 503);
});

test('the request log keeps raw headers, tls and connection reuse', async () => {
  const agent = new https.Agent({ keepAlive: true, maxSockets: 1 });
  const headers = { 'X-First': 'one', Authorization: `Bearer ${token}`, 'x-ms-client-request-id': 'Zz' };
  await list({ agent, headers });
  await list({ agent, headers });
  agent.destroy();
  await list({ headers, agent: new https.Agent() });
  await plain(em.ports.imds, 'POST', '/metadata/identity/oauth2/token?a=b+c', { 'Content-Type': 'text/plain' }, new http.Agent())
    .catch(() => null);
  const log = (await ctl(em, 'GET', '/requests')).json;
  assert.deepStrictEqual(log.map((e) => e.service), ['vault', 'vault', 'vault', 'imds']);
  assert.deepStrictEqual(log.map((e) => e.newConnection), [true, false, true, true]);
  assert.deepStrictEqual(log.map((e) => e.tls), [true, true, true, false]);
  assert.deepStrictEqual(log[0].headers.slice(0, 4).map((h) => h[0]), ['Host', 'X-First', 'Authorization', 'x-ms-client-request-id']);
  assert.strictEqual(log[0].host, HOST);
  assert.strictEqual(log[0].url, '/keys?api-version=7.4');
  assert.strictEqual(log[3].url, '/metadata/identity/oauth2/token?a=b+c');
  const imdsOnly = (await ctl(em, 'GET', '/requests?service=imds')).json;
  assert.strictEqual(imdsOnly.length, 1);
});

test('unknown hosts get 404 and the untrusted listener serves the same routes', async () => {
  const unknown = await azure(em, 'localhost', 'GET', '/keys?api-version=7.4');
  assert.strictEqual(unknown.status, 404);
  await assert.rejects(list({ port: em.ports.untrusted }), (e) => /certificate|verify/i.test(e.message));
  const r = await list({ port: em.ports.untrusted, ca: undefined, agent: new https.Agent({ rejectUnauthorized: false }) });
  assert.strictEqual(r.status, 200);
  const log = (await ctl(em, 'GET', '/requests')).json;
  assert.strictEqual(log[log.length - 1].listener, 'untrusted');
});

test('reset forgets apps, tokens, keys and the log', async () => {
  await ctl(em, 'POST', '/vaults/scripted/keys', { name: 'gone' });
  await ctl(em, 'POST', '/reset');
  assert.strictEqual((await list()).status, 401);
  assert.deepStrictEqual((await ctl(em, 'GET', '/requests')).json.map((e) => e.status), [401]);
  token = await vaultToken(em);
  assert.deepStrictEqual((await list()).json.value, []);
  const bad = await ctl(em, 'POST', '/script', { service: 'nowhere', responses: [] });
  assert.strictEqual(bad.status, 400);
});
