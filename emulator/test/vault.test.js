'use strict';
const { test, before, after } = require('node:test');
const assert = require('node:assert');
const crypto = require('crypto');
const { startEmulator, azure, ctl, vaultToken } = require('../test-support/harness');

const HOST = 'kestal-test.vault.azure.net';
let em;
let token;

before(async () => {
  em = await startEmulator();
  token = await vaultToken(em);
});
after(() => em.stop());

function vault(urlPath, opts = {}) {
  const headers = Object.assign({ Authorization: `Bearer ${token}` }, opts.headers || {});
  return azure(em, opts.host || HOST, opts.method || 'GET', urlPath, { headers });
}

// Follows nextLink verbatim, as a client must; bounded.
async function listAll(first, host = HOST) {
  const pages = [];
  let link = first;
  for (let i = 0; link && i < 20; i++) {
    const u = new URL(link, `https://${host}`);
    const r = await vault(u.pathname + u.search, { host });
    assert.strictEqual(r.status, 200, r.text);
    pages.push(r.json);
    link = r.json.nextLink;
  }
  return pages;
}

async function seed(vaultName, names) {
  for (const name of names) await ctl(em, 'POST', `/vaults/${vaultName}/keys`, { name, kty: 'EC' });
}

test('no bearer token gets the challenge and AKV10000', async () => {
  const r = await azure(em, HOST, 'GET', '/keys?api-version=7.4');
  assert.strictEqual(r.status, 401);
  assert.match(r.headers['www-authenticate'],
    /^Bearer authorization="https:\/\/login\.windows\.net\/[0-9a-f-]{36}", resource="https:\/\/vault\.azure\.net"$/);
  assert.deepStrictEqual(r.json, { error: { code: 'Unauthorized', message: 'AKV10000: Request is missing a Bearer or PoP token.' } });
  const forged = await vault('/keys?api-version=7.4', { headers: { Authorization: `Bearer ${token}x` } });
  assert.strictEqual(forged.status, 401);
});

test('the challenge names the tenant configured for the vault', async () => {
  await ctl(em, 'PUT', '/vaults/tenanted', { tenant: '0f0e0d0c-0b0a-4909-8807-060504030201' });
  const r = await azure(em, 'tenanted.vault.azure.net', 'GET', '/keys?api-version=7.4');
  assert.match(r.headers['www-authenticate'], /login\.windows\.net\/0f0e0d0c-0b0a-4909-8807-060504030201"/);
  const other = await vault('/keys?api-version=7.4', { host: 'tenanted.vault.azure.net' });
  assert.strictEqual(other.status, 401);
  assert.match(other.json.error.message, /^AKV10032: Invalid issuer/);
});

test('vault answers carry the service headers', async () => {
  const r = await vault('/keys?api-version=7.4', { headers: { 'x-ms-client-request-id': 'abc-123' } });
  assert.strictEqual(r.status, 200);
  assert.strictEqual(r.headers['content-type'], 'application/json; charset=utf-8');
  assert.strictEqual(r.headers['cache-control'], 'no-cache');
  assert.strictEqual(r.headers['x-ms-client-request-id'], 'abc-123');
  assert.match(r.headers['x-ms-request-id'], /^[0-9a-f-]{36}$/);
  for (const h of ['x-ms-keyvault-region', 'x-ms-keyvault-service-version', 'x-ms-keyvault-network-info']) {
    assert.ok(r.headers[h], h);
  }
  const noVersion = await vault('/keys');
  assert.strictEqual(noVersion.status, 400);
  assert.strictEqual(noVersion.json.error.code, 'BadParameter');
});

test('30 keys list as 25 then 5, in upper-cased name order, via an absolute nextLink', async () => {
  const names = Array.from({ length: 30 }, (_, i) => `Key${i}`);
  await seed('paged', names);
  const host = 'paged.vault.azure.net';
  const pages = await listAll('/keys?api-version=7.3', host);
  assert.deepStrictEqual(pages.map((p) => p.value.length), [25, 5]);
  assert.match(pages[0].nextLink, /^https:\/\/paged\.vault\.azure\.net:443\/keys\?api-version=7\.3&\$skiptoken=[A-Za-z0-9+/]+$/);
  assert.strictEqual(pages[1].nextLink, null);
  const marker = JSON.parse(Buffer.from(pages[0].nextLink.split('$skiptoken=')[1], 'base64'));
  assert.deepStrictEqual(Object.keys(marker), ['NextMarker', 'TargetLocation']);
  const listed = pages.flatMap((p) => p.value.map((k) => k.kid.split('/').pop()));
  assert.deepStrictEqual(listed, names.slice().sort((a, b) => (a.toUpperCase() < b.toUpperCase() ? -1 : 1)));
  const item = pages[0].value[0];
  assert.deepStrictEqual(Object.keys(item), ['kid', 'attributes']);
  assert.strictEqual(item.kid, 'https://paged.vault.azure.net/keys/Key0');
  assert.deepStrictEqual(Object.keys(item.attributes), ['enabled', 'created', 'updated', 'recoveryLevel', 'recoverableDays']);
});

test('a page plan gives short and empty pages that still carry a nextLink', async () => {
  await seed('planned', ['a1', 'a2', 'a3', 'a4', 'a5']);
  await ctl(em, 'PUT', '/vaults/planned', { pageSizes: [2, 0, 1] });
  const pages = await listAll('/keys?api-version=7.0&maxresults=3', 'planned.vault.azure.net');
  assert.deepStrictEqual(pages.map((p) => p.value.length), [2, 0, 1, 2]);
  assert.ok(pages[1].nextLink.endsWith('&maxresults=3'));
  assert.strictEqual(pages[3].nextLink, null);
  assert.deepStrictEqual(pages.flatMap((p) => p.value.map((k) => k.kid.split('/').pop())), ['a1', 'a2', 'a3', 'a4', 'a5']);
  assert.strictEqual(pages[0].value[0].attributes.recoverableDays, undefined);
});

test('maxresults sizes pages and is refused outside 1..25', async () => {
  await seed('small', ['k1', 'k2', 'k3']);
  const pages = await listAll('/keys?api-version=7.4&maxresults=2', 'small.vault.azure.net');
  assert.deepStrictEqual(pages.map((p) => p.value.length), [2, 1]);
  for (const bad of ['0', '26', 'x']) {
    const r = await vault(`/keys?api-version=7.4&maxresults=${bad}`, { host: 'small.vault.azure.net' });
    assert.strictEqual(r.status, 400, bad);
    assert.strictEqual(r.json.error.code, 'BadParameter');
  }
});

test('a key is read by name, with a trailing slash, and by version', async () => {
  const made = (await ctl(em, 'POST', '/vaults/kestal-test/keys', { name: 'RsaKey', tags: { purpose: 'test' } })).json;
  const second = (await ctl(em, 'POST', '/vaults/kestal-test/keys', { name: 'RsaKey' })).json;
  const latest = await vault('/keys/RsaKey?api-version=7.4');
  assert.strictEqual(latest.status, 200);
  assert.strictEqual(latest.json.key.kid, second.key.kid);
  assert.deepStrictEqual(Object.keys(latest.json.key), ['kid', 'kty', 'key_ops', 'n', 'e']);
  assert.deepStrictEqual(latest.json.key.key_ops, ['encrypt', 'decrypt', 'sign', 'verify', 'wrapKey', 'unwrapKey']);
  const pub = crypto.createPublicKey({ key: { kty: 'RSA', n: latest.json.key.n, e: latest.json.key.e }, format: 'jwk' });
  assert.strictEqual(pub.asymmetricKeyDetails.modulusLength, 2048);
  const slash = await vault('/keys/rsakey/?api-version=7.4');
  assert.strictEqual(slash.json.key.kid, second.key.kid);
  const version = made.key.kid.split('/').pop();
  assert.match(version, /^[0-9a-f]{32}$/);
  const old = await vault(`/keys/RsaKey/${version}?api-version=7.4`);
  assert.strictEqual(old.json.key.kid, `https://${HOST}/keys/RsaKey/${version}`);
  assert.deepStrictEqual(old.json.tags, { purpose: 'test' });
});

test('EC keys carry crv, x and y of the right size', async () => {
  await ctl(em, 'POST', '/vaults/kestal-test/keys', { name: 'Ec521', kty: 'EC', crv: 'P-521', managed: true });
  const r = await vault('/keys/Ec521?api-version=7.4');
  assert.deepStrictEqual(Object.keys(r.json.key), ['kid', 'kty', 'key_ops', 'crv', 'x', 'y']);
  assert.deepStrictEqual(r.json.key.key_ops, ['sign', 'verify']);
  assert.strictEqual(Buffer.from(r.json.key.x, 'base64').length, 66);
  assert.doesNotMatch(r.json.key.x + r.json.key.y, /[=+/]/);
  assert.strictEqual(r.json.managed, true);
});

test('an unknown key is KeyNotFound with the service message', async () => {
  const r = await vault('/keys/NoSuchKey?api-version=7.4');
  assert.strictEqual(r.status, 404);
  assert.deepStrictEqual(r.json, { error: { code: 'KeyNotFound', message:
    'A key with (name/id) NoSuchKey was not found in this key vault. If you recently deleted this key you may be ' +
    'able to recover it using the correct recovery command. For help resolving this issue, please see ' +
    'https://go.microsoft.com/fwlink/?linkid=2125182' } });
});

test('a token past its lifetime is refused', async () => {
  await ctl(em, 'PUT', '/settings', { tokenLifetime: 0 });
  const stale = await vaultToken(em);
  await ctl(em, 'PUT', '/settings', { tokenLifetime: 3599 });
  const r = await azure(em, HOST, 'GET', '/keys?api-version=7.4', { headers: { Authorization: `Bearer ${stale}` } });
  assert.strictEqual(r.status, 401);
  assert.ok(r.headers['www-authenticate']);
});
