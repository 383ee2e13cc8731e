'use strict';
// Sovereign clouds and Managed HSM: each vault domain wants tokens for its own audience, and a
// Managed HSM refuses api-versions before 7.2, software key types and the certificates API.
const { test, before, after } = require('node:test');
const assert = require('node:assert');
const { startEmulator, azure, ctl, vaultCaller, TENANT, CLIENT } = require('../test-support/harness');

let em;
before(async () => {
  em = await startEmulator();
  await ctl(em, 'POST', '/apps', { tenant: TENANT, clientId: CLIENT, secret: 's' });
});
after(() => em.stop());

async function token(loginHost, resource) {
  const body = `grant_type=client_credentials&client_id=${CLIENT}&client_secret=s&resource=${encodeURIComponent(resource)}`;
  const r = await azure(em, loginHost, 'POST', `/${TENANT}/oauth2/token`, {
    body, headers: { 'Content-Type': 'application/x-www-form-urlencoded' },
  });
  assert.strictEqual(r.status, 200, r.text);
  return r.json.access_token;
}

const DOMAINS = [
  { host: 'v1.vault.azure.cn', login: 'login.chinacloudapi.cn', audience: 'https://vault.azure.cn' },
  { host: 'v1.vault.usgovcloudapi.net', login: 'login.microsoftonline.us', audience: 'https://vault.usgovcloudapi.net' },
  { host: 'h1.managedhsm.azure.net', login: 'login.microsoftonline.com', audience: 'https://managedhsm.azure.net' },
  { host: 'h1.managedhsm.azure.cn', login: 'login.chinacloudapi.cn', audience: 'https://managedhsm.azure.cn' },
  { host: 'h1.managedhsm.usgovcloudapi.net', login: 'login.microsoftonline.us',
    audience: 'https://managedhsm.usgovcloudapi.net' },
];

test('each vault domain takes tokens for its own audience and challenges with it', async () => {
  const publicToken = await token('login.microsoftonline.com', 'https://vault.azure.net');
  for (const d of DOMAINS) {
    const good = await vaultCaller(em, d.host, await token(d.login, d.audience))('GET', '/keys?api-version=7.4');
    assert.strictEqual(good.status, 200, `${d.host}: ${good.text}`);
    const wrong = await vaultCaller(em, d.host, publicToken)('GET', '/keys?api-version=7.4');
    assert.strictEqual(wrong.status, 401, d.host);
    assert.match(wrong.headers['www-authenticate'], new RegExp(`^Bearer authorization="https://${d.login}/` +
      `[0-9a-f-]{36}", resource="${d.audience}"$`));
  }
});

test('Managed HSM: api-version 7.2 and later, HSM keys only, no certificates', async () => {
  const hsm = vaultCaller(em, 'h2.managedhsm.azure.net', await token('login.microsoftonline.com',
    'https://managedhsm.azure.net'));
  const old = await hsm('GET', '/keys?api-version=7.0');
  assert.strictEqual(old.status, 400);
  assert.strictEqual(old.json.error.code, 'BadParameter');
  assert.strictEqual((await hsm('GET', '/keys?api-version=7.2')).status, 200);
  const software = await hsm('POST', '/keys/k1/create?api-version=7.4', { kty: 'RSA', key_size: 2048 });
  assert.strictEqual(software.status, 400);
  const created = await hsm('POST', '/keys/k1/create?api-version=7.4', { kty: 'RSA-HSM', key_size: 2048 });
  assert.strictEqual(created.status, 200, created.text);
  assert.match(created.json.key.kid, /^https:\/\/h2\.managedhsm\.azure\.net\/keys\/k1\/[0-9a-f]{32}$/);
  for (const path of ['/certificates?api-version=7.4', '/deletedcertificates?api-version=7.4']) {
    assert.strictEqual((await hsm('GET', path)).status, 404, path);
  }
  const challenge = await azure(em, 'h2.managedhsm.azure.net', 'GET', '/keys?api-version=7.4');
  assert.strictEqual(challenge.status, 401);
  assert.strictEqual(challenge.text, '');
});
