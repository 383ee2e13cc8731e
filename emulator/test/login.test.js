'use strict';
const { test, before, after } = require('node:test');
const assert = require('node:assert');
const { startEmulator, azure, ctl, decodeJwtPart, TENANT, CLIENT } = require('../test-support/harness');

const HOST = 'login.microsoftonline.com';
const FORM = { 'Content-Type': 'application/x-www-form-urlencoded' };
let em;

before(async () => {
  em = await startEmulator();
  await ctl(em, 'POST', '/apps', { tenant: TENANT, clientId: CLIENT, secret: 'a+b&c=d', oid: '0b1c2d3e-4f50-4617-8293-a4b5c6d7e8f9' });
});
after(() => em.stop());

const form = (secret, extra = '') =>
  `resource=https://vault.azure.net&grant_type=client_credentials&client_id=${CLIENT}&client_secret=${secret}${extra}`;

function token(body, tenant = TENANT, headers = FORM) {
  return azure(em, HOST, 'POST', `/${tenant}/oauth2/token`, { body, headers });
}

test('client credentials answer the v1 token shape with string numbers', async () => {
  const before = Math.floor(Date.now() / 1000);
  const r = await token(form(encodeURIComponent('a+b&c=d')));
  assert.strictEqual(r.status, 200);
  assert.strictEqual(r.headers['content-type'], 'application/json; charset=utf-8');
  assert.deepStrictEqual(Object.keys(r.json),
    ['token_type', 'expires_in', 'ext_expires_in', 'expires_on', 'not_before', 'resource', 'access_token']);
  assert.strictEqual(r.json.token_type, 'Bearer');
  assert.strictEqual(r.json.expires_in, '3599');
  assert.strictEqual(r.json.resource, 'https://vault.azure.net');
  const expiresOn = Number(r.json.expires_on);
  assert.ok(expiresOn >= before + 3599 && expiresOn <= before + 3601);
});

test('the access token is a JWT naming the app, tenant and audience', async () => {
  const r = await token(form(encodeURIComponent('a+b&c=d')));
  const head = decodeJwtPart(r.json.access_token, 0);
  const claims = decodeJwtPart(r.json.access_token, 1);
  assert.strictEqual(head.typ, 'JWT');
  assert.strictEqual(head.alg, 'RS256');
  assert.strictEqual(claims.aud, 'https://vault.azure.net');
  assert.strictEqual(claims.iss, `https://sts.windows.net/${TENANT}/`);
  assert.strictEqual(claims.tid, TENANT);
  assert.strictEqual(claims.appid, CLIENT);
  assert.strictEqual(claims.oid, '0b1c2d3e-4f50-4617-8293-a4b5c6d7e8f9');
  assert.strictEqual(claims.sub, claims.oid);
  assert.ok(claims.nbf <= Math.floor(Date.now() / 1000) && claims.exp > claims.nbf);
  assert.strictEqual(String(claims.exp), r.json.expires_on);
});

test('a secret sent without URL-encoding is a wrong secret', async () => {
  const r = await token(form('a+b&c=d'));
  assert.strictEqual(r.status, 401);
  assert.strictEqual(r.json.error, 'invalid_client');
  assert.deepStrictEqual(r.json.error_codes, [7000215]);
  assert.match(r.json.error_description,
    /^AADSTS7000215: Invalid client secret is provided\.\r\nTrace ID: [0-9a-f-]{36}\r\nCorrelation ID: [0-9a-f-]{36}\r\nTimestamp: \d{4}-\d\d-\d\d \d\d:\d\d:\d\dZ$/);
  assert.strictEqual(r.json.trace_id, r.json.error_description.split('Trace ID: ')[1].slice(0, 36));
  assert.strictEqual(r.json.error_uri, 'https://login.microsoftonline.com/error?code=7000215');
  assert.deepStrictEqual(Object.keys(r.json),
    ['error', 'error_description', 'error_codes', 'timestamp', 'trace_id', 'correlation_id', 'error_uri']);
});

test('form decoding: "+" is a space and "%2B" a plus', async () => {
  await ctl(em, 'POST', '/apps', { tenant: TENANT, clientId: 'plus-app', secret: 'x y+z' });
  const send = (secret) => token(`grant_type=client_credentials&client_id=plus-app&client_secret=${secret}&resource=https%3A%2F%2Fvault.azure.net`);
  assert.strictEqual((await send('x+y%2Bz')).status, 200);
  assert.strictEqual((await send('x+y+z')).status, 401);
  assert.strictEqual((await send('x%20y%2bz')).status, 200);
});

test('an unknown client id is unauthorized_client 700016', async () => {
  const r = await token(form('s').replace(CLIENT, 'ffffffff-0000-0000-0000-000000000000'));
  assert.strictEqual(r.status, 400);
  assert.strictEqual(r.json.error, 'unauthorized_client');
  assert.match(r.json.error_description,
    new RegExp(`^AADSTS700016: Application with identifier 'ffffffff-0000-0000-0000-000000000000' was not found in the directory '${TENANT}'`));
});

test('an unknown tenant is invalid_request 90002', async () => {
  const r = await token(form('s'), '11111111-2222-3333-4444-555555555555');
  assert.strictEqual(r.status, 400);
  assert.strictEqual(r.json.error, 'invalid_request');
  assert.deepStrictEqual(r.json.error_codes, [90002]);
  assert.match(r.json.error_description, /^AADSTS90002: Tenant '11111111-2222-3333-4444-555555555555' not found\./);
});

test('grant types and methods the endpoint refuses', async () => {
  const other = await token(form('s').replace('client_credentials', 'password'));
  assert.strictEqual(other.status, 400);
  assert.strictEqual(other.json.error, 'unsupported_grant_type');
  assert.deepStrictEqual(other.json.error_codes, [70003]);
  const json = await token(JSON.stringify({ grant_type: 'client_credentials' }), TENANT, { 'Content-Type': 'application/json' });
  assert.strictEqual(json.status, 400);
  assert.match(json.json.error_description, /^AADSTS900144: .*'grant_type'/);
  const get = await azure(em, HOST, 'GET', `/${TENANT}/oauth2/token`);
  assert.strictEqual(get.status, 405);
  assert.deepStrictEqual(get.json.error_codes, [900561]);
});

test('the correlation id follows client-request-id and is echoed when asked', async () => {
  const id = '6d1e4b52-93a0-4c8e-b1f7-2a3c4d5e6f70';
  const r = await token(form('wrong'), TENANT,
    Object.assign({ 'client-request-id': `{${id}}`, 'return-client-request-id': 'true' }, FORM));
  assert.strictEqual(r.json.correlation_id, id);
  assert.strictEqual(r.headers['client-request-id'], `{${id}}`);
});

test('an app with a lifetime of its own gets tokens that live that long', async () => {
  await ctl(em, 'POST', '/apps', { tenant: TENANT, clientId: 'short-lived', secret: 's', lifetime: 20 });
  const r = await token(form('s').replace(CLIENT, 'short-lived'));
  assert.deepStrictEqual([r.json.expires_in, r.json.ext_expires_in], ['20', '20']);
  const claims = decodeJwtPart(r.json.access_token, 1);
  assert.strictEqual(claims.exp - claims.nbf, 320);
  const bad = await ctl(em, 'POST', '/apps', { tenant: TENANT, clientId: 'x', secret: 's', lifetime: -1 });
  assert.strictEqual(bad.status, 400);
});
