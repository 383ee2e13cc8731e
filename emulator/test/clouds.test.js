'use strict';
// Each vault domain wants tokens for its own audience; a Managed HSM refuses api-versions before
// 7.2, software key types and the certificates API.
const { test, before, after } = require('node:test');
const assert = require('node:assert');
const { startEmulator, azure, ctl, vaultCaller, TENANT, CLIENT } = require('../test-support/harness');

let em;
before(async () => { em = await startEmulator(); });
after(() => em.stop());

async function token(resource) {
  await ctl(em, 'POST', '/apps', { tenant: TENANT, clientId: CLIENT, secret: 's' });
  const body = `grant_type=client_credentials&client_id=${CLIENT}&client_secret=s&resource=${resource}`;
  const r = await azure(em, 'login.chinacloudapi.cn', 'POST', `/${TENANT}/oauth2/token`,
    { body, headers: { 'Content-Type': 'application/x-www-form-urlencoded' } });
  return r.json.access_token;
}

test('vault domains take their own audience; Managed HSM is HSM keys on 7.2+ with no certificates', async () => {
  const wrong = await token('https://vault.azure.net');
  for (const [host, login] of [['v.vault.azure.cn', 'login.chinacloudapi.cn'],
    ['v.vault.usgovcloudapi.net', 'login.microsoftonline.us'], ['h.managedhsm.azure.net', 'login.microsoftonline.com'],
    ['h.managedhsm.azure.cn', 'login.chinacloudapi.cn'], ['h.managedhsm.usgovcloudapi.net', 'login.microsoftonline.us']]) {
    const audience = `https://${host.slice(2)}`;
    assert.strictEqual((await vaultCaller(em, host, await token(audience))('GET', '/keys?api-version=7.4')).status, 200);
    const refused = await vaultCaller(em, host, wrong)('GET', '/keys?api-version=7.4');
    assert.match(refused.headers['www-authenticate'],
      new RegExp(`^Bearer authorization="https://${login}/[0-9a-f-]{36}", resource="${audience}"$`));
    assert.strictEqual(refused.text === '', host.startsWith('h.'), host); // Managed HSM: empty body
  }
  const hsm = vaultCaller(em, 'h.managedhsm.azure.net', await token('https://managedhsm.azure.net'));
  const answers = [await hsm('GET', '/keys?api-version=7.0'), await hsm('GET', '/certificates?api-version=7.4'),
    await hsm('POST', '/keys/k/create?api-version=7.4', { kty: 'RSA' }),
    await hsm('POST', '/keys/k/create?api-version=7.2', { kty: 'RSA-HSM' })];
  assert.deepStrictEqual(answers.map((a) => a.status), [400, 404, 400, 200]);
  assert.match(answers[3].json.key.kid, /^https:\/\/h\.managedhsm\.azure\.net\/keys\/k\/[0-9a-f]{32}$/);
});
