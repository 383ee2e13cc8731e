'use strict';
// The keys collection: create, versions, tiers, import, update, listing
// with soft-deleted names, and the soft-delete lifecycle with its
// controllable "being deleted" window.
const { test, before, after } = require('node:test');
const assert = require('node:assert');
const crypto = require('crypto');
const { startEmulator, ctl, vaultToken, vaultCaller } = require('../test-support/harness');
const { javaKey, pythonKey } = require('../test-support/fixtures');

let em;
let token;

before(async () => {
  em = await startEmulator();
  token = await vaultToken(em);
});
after(() => em.stop());

// A fresh vault per test, so settings and names do not leak between tests.
let vaultCount = 0;
async function freshVault(settings) {
  const name = `keys${++vaultCount}`;
  if (settings) assert.strictEqual((await ctl(em, 'PUT', `/vaults/${name}`, settings)).status, 200);
  return { name, call: vaultCaller(em, `${name}.vault.azure.net`, token) };
}

const KEY_NOT_FOUND = (id) => ({ error: { code: 'KeyNotFound', message: `A key with (name/id) ${id} was not found in this ` +
  'key vault. If you recently deleted this key you may be able to recover it using the correct recovery command. ' +
  'For help resolving this issue, please see https://go.microsoft.com/fwlink/?linkid=2125182' } });

test('create answers 200 with the KeyBundle for RSA and EC keys, key_size as number or text', async () => {
  const { call } = await freshVault();
  const rsa = await call('POST', '/keys/web/create?api-version=7.3', { kty: 'RSA', key_size: '3072', tags: { AlgID: 'RSA', KeyName: 'web' } });
  assert.strictEqual(rsa.status, 200, rsa.text);
  assert.deepStrictEqual(Object.keys(rsa.json), ['key', 'attributes', 'tags']);
  assert.deepStrictEqual(Object.keys(rsa.json.key), ['kid', 'kty', 'key_ops', 'n', 'e']);
  assert.strictEqual(Buffer.from(rsa.json.key.n, 'base64url').length, 384);
  assert.deepStrictEqual(rsa.json.tags, { AlgID: 'RSA', KeyName: 'web' });
  assert.deepStrictEqual(Object.keys(rsa.json.attributes), ['enabled', 'created', 'updated', 'recoveryLevel', 'recoverableDays']);
  const ec = await call('POST', '/keys/ec/create?api-version=7.0', { kty: 'EC', crv: 'P-384' });
  assert.deepStrictEqual(Object.keys(ec.json.key), ['kid', 'kty', 'key_ops', 'crv', 'x', 'y']);
  assert.strictEqual(ec.json.key.crv, 'P-384');
  assert.deepStrictEqual(ec.json.key.key_ops, ['sign', 'verify']);
  assert.deepStrictEqual(Object.keys(ec.json.attributes), ['enabled', 'created', 'updated', 'recoveryLevel']);
  const plainEc = await call('POST', '/keys/ec2/create?api-version=7.4', { kty: 'EC' });
  assert.strictEqual(plainEc.json.key.crv, 'P-256', 'P-256 is the default curve');
  assert.strictEqual(plainEc.json.attributes.exportable, false, '7.4 bundles carry exportable');
  const numeric = await call('POST', '/keys/n2048/create?api-version=7.0', { kty: 'RSA', key_size: 2048 });
  assert.strictEqual(Buffer.from(numeric.json.key.n, 'base64url').length, 256);
});

test('create refuses bad requests with the service codes', async () => {
  const { call } = await freshVault();
  const oct = await call('POST', '/keys/k/create?api-version=7.3', { kty: 'oct' });
  assert.deepStrictEqual(oct.json, { error: { code: 'BadParameter', message: 'Invalid kty value: oct',
    innererror: { code: 'KeyTypeNotSupported' } } });
  for (const body of [{}, { kty: 'RSA', key_size: 1024 }, { kty: 'EC', crv: 'P-192' }, { kty: 'RSA', key_ops: ['fly'] }]) {
    const r = await call('POST', '/keys/k/create?api-version=7.3', body);
    assert.strictEqual(r.status, 400, JSON.stringify(body));
    assert.strictEqual(r.json.error.code, 'BadParameter');
  }
  assert.strictEqual((await call('POST', '/keys/bad_name/create?api-version=7.3', { kty: 'EC' })).status, 400);
  assert.strictEqual((await call('POST', '/keys/k/create?api-version=7.3', 'not json')).status, 400);
});

test('a standard vault refuses -HSM keys with 403; a premium vault makes them', async () => {
  const standard = await freshVault();
  for (const kty of ['RSA-HSM', 'EC-HSM']) {
    const r = await standard.call('POST', '/keys/hsm/create?api-version=7.0', { kty, key_size: '2048' });
    assert.strictEqual(r.status, 403);
    assert.deepStrictEqual(r.json, { error: { code: 'Forbidden', message: 'Hardware key operation not allowed on standard vault' } });
  }
  const imported = await standard.call('PUT', '/keys/hsm?api-version=7.0', { key: Object.assign(javaKey(), { kty: 'RSA-HSM' }) });
  assert.strictEqual(imported.status, 403);
  const premium = await freshVault({ tier: 'premium' });
  const r = await premium.call('POST', '/keys/hsm/create?api-version=7.0', { kty: 'EC-HSM', crv: 'P-521' });
  assert.strictEqual(r.status, 200, r.text);
  assert.strictEqual(r.json.key.kty, 'EC-HSM');
});

test('a create on an existing name adds a version; versions are listed and addressable', async () => {
  const { call } = await freshVault();
  const first = (await call('POST', '/keys/multi/create?api-version=7.3', { kty: 'EC' })).json.key.kid;
  const second = (await call('POST', '/keys/multi/create?api-version=7.3', { kty: 'EC' })).json.key.kid;
  assert.notStrictEqual(first, second);
  assert.strictEqual((await call('GET', '/keys/multi?api-version=7.3')).json.key.kid, second);
  assert.strictEqual((await call('GET', `/keys/multi/${first.split('/').pop()}?api-version=7.3`)).json.key.kid, first);
  const versions = await call('GET', '/keys/multi/versions?api-version=7.3');
  assert.deepStrictEqual(versions.json.value.map((v) => v.kid).sort(), [first, second].sort());
  const list = await call('GET', '/keys?api-version=7.3');
  assert.deepStrictEqual(list.json.value.map((k) => k.kid), [first.split('/').slice(0, -1).join('/')]);
});

test('import takes a JWK with private parts and echoes its public members', async () => {
  const { call } = await freshVault();
  const jwk = pythonKey();
  const r = await call('PUT', '/keys/imported?api-version=7.3', { key: Object.assign({}, jwk, { key_ops: ['sign', 'verify'] }), tags: { t: '1' } });
  assert.strictEqual(r.status, 200, r.text);
  assert.strictEqual(r.json.key.n, jwk.n);
  assert.deepStrictEqual(r.json.key.key_ops, ['sign', 'verify']);
  assert.deepStrictEqual(r.json.tags, { t: '1' });
  const publicOnly = await call('PUT', '/keys/imported2?api-version=7.3', { key: { kty: 'RSA', n: jwk.n, e: jwk.e } });
  assert.strictEqual(publicOnly.status, 400);
  const ec = crypto.generateKeyPairSync('ec', { namedCurve: 'secp256k1' }).privateKey.export({ format: 'jwk' });
  const k1 = await call('PUT', '/keys/k1?api-version=7.3', { key: Object.assign(ec, { crv: 'P-256K' }) });
  assert.strictEqual(k1.status, 200, k1.text);
  assert.strictEqual(k1.json.key.crv, 'P-256K');
});

test('update changes enabled, exp, key_ops and tags of a version', async () => {
  const { call } = await freshVault();
  const kid = (await call('POST', '/keys/upd/create?api-version=7.3', { kty: 'EC' })).json.key.kid;
  const r = await call('PATCH', `/keys/upd/${kid.split('/').pop()}?api-version=7.3`,
    { attributes: { enabled: false, exp: 1919635200 }, key_ops: ['verify'], tags: { a: 'b' } });
  assert.strictEqual(r.status, 200, r.text);
  assert.deepStrictEqual(Object.keys(r.json.attributes), ['enabled', 'exp', 'created', 'updated', 'recoveryLevel', 'recoverableDays']);
  const got = await call('GET', '/keys/upd?api-version=7.3');
  assert.strictEqual(got.json.attributes.enabled, false);
  assert.strictEqual(got.json.attributes.exp, 1919635200);
  assert.deepStrictEqual(got.json.key.key_ops, ['verify']);
  assert.deepStrictEqual(got.json.tags, { a: 'b' });
});

test('delete answers the DeletedKeyBundle; the name is then gone, twice-deleted is 404', async () => {
  const { name, call } = await freshVault({ recoverableDays: 7 });
  await call('POST', '/keys/gone/create?api-version=7.3', { kty: 'EC' });
  const r = await call('DELETE', '/keys/gone?api-version=7.3');
  assert.strictEqual(r.status, 200);
  assert.deepStrictEqual(Object.keys(r.json), ['recoveryId', 'deletedDate', 'scheduledPurgeDate', 'key', 'attributes']);
  assert.strictEqual(r.json.recoveryId, `https://${name}.vault.azure.net/deletedkeys/gone`);
  assert.strictEqual(r.json.scheduledPurgeDate - r.json.deletedDate, 7 * 86400);
  assert.strictEqual(r.json.attributes.recoveryLevel, 'CustomizedRecoverable+Purgeable');
  assert.deepStrictEqual((await call('GET', '/keys/gone?api-version=7.3')).json, KEY_NOT_FOUND('gone'));
  assert.deepStrictEqual((await call('DELETE', '/keys/gone?api-version=7.3')).json, KEY_NOT_FOUND('gone'));
  assert.deepStrictEqual((await call('DELETE', '/keys/never?api-version=7.3')).json, KEY_NOT_FOUND('never'));
  const deleted = await call('GET', '/deletedkeys/gone?api-version=7.3');
  assert.strictEqual(deleted.status, 200, 'with no window the deletion is complete at once');
  const listed = await call('GET', '/deletedkeys?api-version=7.3');
  assert.deepStrictEqual(listed.json.value.map((k) => k.recoveryId), [r.json.recoveryId]);
  assert.deepStrictEqual(Object.keys(listed.json.value[0]), ['recoveryId', 'deletedDate', 'scheduledPurgeDate', 'kid', 'attributes']);
});

test('the deletion window: 404 and 409 answers for a set number of requests, then purge 204', async () => {
  const { name, call } = await freshVault({ deleteWindowRequests: 3 });
  await call('POST', '/keys/slow/create?api-version=7.3', { kty: 'EC' });
  assert.strictEqual((await call('DELETE', '/keys/slow?api-version=7.3')).status, 200);
  const lookup = await call('GET', '/deletedkeys/slow?api-version=7.3');
  assert.deepStrictEqual(lookup.json, { error: { code: 'KeyNotFound', message: 'Deleted Key not found: slow' } });
  const purge = await call('DELETE', '/deletedkeys/slow?api-version=7.0');
  assert.strictEqual(purge.status, 409);
  assert.deepStrictEqual(purge.json, { error: { code: 'Conflict', message: 'Key is currently being deleted.',
    innererror: { code: 'ObjectIsBeingDeleted' } } });
  const create = await call('POST', '/keys/slow/create?api-version=7.0', { kty: 'EC' });
  assert.strictEqual(create.status, 409);
  assert.deepStrictEqual(create.json, { error: { code: 'Conflict', message: 'Key slow is currently in a deleted but ' +
    'recoverable state, and its name cannot be reused; in this state, the key can only be recovered or purged.',
    innererror: { code: 'ObjectIsDeletedButRecoverable' } } });
  assert.strictEqual((await call('GET', '/deletedkeys/slow?api-version=7.3')).status, 200, 'three requests completed it');
  assert.strictEqual((await call('POST', '/keys/slow/create?api-version=7.0', { kty: 'EC' })).status, 409,
    'a completed deletion still holds the name');
  const done = await call('DELETE', '/deletedkeys/slow?api-version=7.0');
  assert.strictEqual(done.status, 204);
  assert.strictEqual(done.text, '');
  assert.strictEqual((await call('DELETE', '/deletedkeys/slow?api-version=7.0')).status, 404);
  assert.strictEqual((await call('POST', '/keys/slow/create?api-version=7.0', { kty: 'EC' })).status, 200);
  const described = (await ctl(em, 'GET', `/vaults/${name}`)).json;
  assert.deepStrictEqual(described.deletedKeys, []);
  assert.deepStrictEqual(described.keys, ['slow']);
});

test('a deletion window in time holds while it lasts, whatever the number of requests', async () => {
  const { call } = await freshVault({ deleteWindowMs: 600000 });
  await call('POST', '/keys/held/create?api-version=7.3', { kty: 'EC' });
  await call('DELETE', '/keys/held?api-version=7.3');
  for (let i = 0; i < 4; i++) assert.strictEqual((await call('DELETE', '/deletedkeys/held?api-version=7.0')).status, 409);
  assert.strictEqual((await call('POST', '/deletedkeys/held/recover?api-version=7.3')).status, 409);
});

test('recover brings the key back with its versions', async () => {
  const { call } = await freshVault();
  const kid = (await call('POST', '/keys/back/create?api-version=7.3', { kty: 'EC' })).json.key.kid;
  await call('DELETE', '/keys/back?api-version=7.3');
  const r = await call('POST', '/deletedkeys/back/recover?api-version=7.3');
  assert.strictEqual(r.status, 200);
  assert.strictEqual(r.json.key.kid, kid);
  assert.strictEqual((await call('GET', '/keys/back?api-version=7.3')).json.key.kid, kid);
  assert.strictEqual((await call('POST', '/deletedkeys/back/recover?api-version=7.3')).status, 404);
});

test('soft-deleted names take their place in listing pages, which come out short', async () => {
  const { call } = await freshVault();
  for (const n of ['a1', 'a2', 'a3', 'a4', 'a5']) await call('POST', `/keys/${n}/create?api-version=7.3`, { kty: 'EC' });
  await call('DELETE', '/keys/a2?api-version=7.3');
  await call('DELETE', '/keys/a3?api-version=7.3');
  const pages = [];
  let link = '/keys?api-version=7.3&maxresults=2';
  for (let i = 0; link && i < 10; i++) {
    const u = new URL(link, 'https://x');
    const r = await call('GET', u.pathname + u.search);
    pages.push(r.json.value.map((k) => k.kid.split('/').pop()));
    link = r.json.nextLink;
  }
  assert.deepStrictEqual(pages, [['a1'], ['a4'], ['a5']]);
});

test('backup and restore bring a purged key back under its name', async () => {
  const { call } = await freshVault();
  const kid = (await call('POST', '/keys/saved/create?api-version=7.3', { kty: 'EC' })).json.key.kid;
  const backup = await call('POST', '/keys/saved/backup?api-version=7.3');
  assert.match(backup.json.value, /^[A-Za-z0-9_-]+$/);
  assert.strictEqual((await call('POST', '/keys/restore?api-version=7.3', { value: backup.json.value })).status, 409);
  await call('DELETE', '/keys/saved?api-version=7.3');
  await call('DELETE', '/deletedkeys/saved?api-version=7.3');
  const r = await call('POST', '/keys/restore?api-version=7.3', { value: backup.json.value });
  assert.strictEqual(r.status, 200);
  assert.strictEqual(r.json.key.kid, kid);
  assert.strictEqual((await call('POST', '/keys/restore?api-version=7.3', { value: 'AAAA' })).status, 400);
});

test('vault routes need api-version and known collections; unknown methods are 405', async () => {
  const { call } = await freshVault();
  assert.strictEqual((await call('GET', '/keys/x')).status, 400);
  assert.strictEqual((await call('GET', '/secrets?api-version=7.3')).status, 404);
  assert.strictEqual((await call('POST', '/keys?api-version=7.3', {})).status, 405);
  assert.strictEqual((await call('GET', '/deletedkeys/bad_name?api-version=7.3')).status, 400);
});
