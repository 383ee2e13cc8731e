'use strict';
const { test, before, after, beforeEach } = require('node:test');
const assert = require('node:assert');
const fs = require('fs');
const path = require('path');
const { startEmulator, plain, ctl, decodeJwtPart } = require('../test-support/harness');

const OID = '9e8d7c6b-5a49-4382-a716-5f4e3d2c1b0a';
const CLIENT = '1a2b3c4d-5e6f-4701-8923-456789abcdef';
const IMDS_PATH = '/metadata/identity/oauth2/token?api-version=2018-02-01&resource=https://vault.azure.net';
const ARC_PATH = '/metadata/identity/oauth2/token?resource=https://vault.azure.net&api-version=2020-06-01';
let em;

before(async () => { em = await startEmulator(); });
after(() => em.stop());
beforeEach(async () => {
  await ctl(em, 'POST', '/reset');
  await ctl(em, 'PUT', '/identity', { oid: OID, clientId: CLIENT });
});

const imds = (p, headers) => plain(em.ports.imds, 'GET', p, headers);
const arc = (headers) => plain(em.ports.arc, 'GET', ARC_PATH, headers);

test('IMDS refuses a request without the Metadata header', async () => {
  const r = await imds(IMDS_PATH, {});
  assert.strictEqual(r.status, 400);
  assert.deepStrictEqual(r.json, { error: 'invalid_request', error_description: 'Required metadata header not specified' });
});

test('IMDS answers a token with sorted string members', async () => {
  const r = await imds(IMDS_PATH, { Metadata: 'True' });
  assert.strictEqual(r.status, 200);
  assert.deepStrictEqual(Object.keys(r.json), ['access_token', 'client_id', 'expires_in', 'expires_on',
    'ext_expires_in', 'not_before', 'resource', 'token_type']);
  for (const v of Object.values(r.json)) assert.strictEqual(typeof v, 'string');
  assert.strictEqual(r.json.client_id, CLIENT);
  assert.strictEqual(r.json.resource, 'https://vault.azure.net');
  const claims = decodeJwtPart(r.json.access_token, 1);
  assert.strictEqual(claims.oid, OID);
  assert.strictEqual(claims.aud, 'https://vault.azure.net');
});

test('IMDS without an identity, or without a resource', async () => {
  await ctl(em, 'DELETE', '/identity');
  const none = await imds(IMDS_PATH, { Metadata: 'true' });
  assert.strictEqual(none.status, 400);
  assert.deepStrictEqual(none.json, { error: 'invalid_request', error_description: 'Identity not found' });
  const noResource = await imds('/metadata/identity/oauth2/token?api-version=2018-02-01', { Metadata: 'true' });
  assert.strictEqual(noResource.status, 400);
  assert.strictEqual(noResource.json.error_description, 'Required audience parameter not specified');
});

function realmFile(r) {
  const m = /^Basic realm=(.+)$/.exec(r.headers['www-authenticate']);
  assert.ok(m, 'a Basic realm challenge');
  assert.strictEqual(r.headers['www-authenticate'].split('=').length, 2);
  const prefix = `${em.realmDir}\\`;
  assert.ok(m[1].startsWith(prefix), m[1]);
  const name = m[1].slice(prefix.length);
  assert.match(name, /^[0-9a-f-]{36}\.key$/);
  return path.join(em.tokenDir, name);
}

test('Arc challenges, then accepts the key file contents once', async () => {
  const first = await arc({ Metadata: 'true' });
  assert.strictEqual(first.status, 401);
  const secret = fs.readFileSync(realmFile(first), 'utf8');
  assert.match(secret, /^[0-9a-f]{64}$/);
  const ok = await arc({ Metadata: 'true', Authorization: `Basic ${secret}` });
  assert.strictEqual(ok.status, 200);
  assert.strictEqual(ok.json.client_id, CLIENT);
  assert.strictEqual(decodeJwtPart(ok.json.access_token, 1).oid, OID);
  const again = await arc({ Metadata: 'true', Authorization: `Basic ${secret}` });
  assert.strictEqual(again.status, 401);
  assert.notStrictEqual(realmFile(again), realmFile(first));
});

test('Arc refuses a wrong secret with a fresh challenge, and needs Metadata', async () => {
  const wrong = await arc({ Metadata: 'true', Authorization: 'Basic 00' });
  assert.strictEqual(wrong.status, 401);
  assert.ok(fs.existsSync(realmFile(wrong)));
  const noHeader = await arc({});
  assert.strictEqual(noHeader.status, 400);
  assert.strictEqual(noHeader.json.error_description, 'Required metadata header not specified');
});

test('an identity with a lifetime of its own gets tokens that live that long, from IMDS and Arc', async () => {
  await ctl(em, 'PUT', '/identity', { oid: OID, lifetime: 20 });
  const fromImds = await imds(IMDS_PATH, { Metadata: 'true' });
  const first = await arc({ Metadata: 'true' });
  const fromArc = await arc({ Metadata: 'true', Authorization: `Basic ${fs.readFileSync(realmFile(first), 'utf8')}` });
  for (const r of [fromImds, fromArc]) {
    assert.strictEqual(r.json.expires_in, '20');
    assert.strictEqual(Number(r.json.expires_on) - decodeJwtPart(r.json.access_token, 1).nbf, 320);
  }
});
