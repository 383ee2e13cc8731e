'use strict';
// The emulator's cryptography against the real service's recorded results:
// deterministic signatures reproduced byte for byte from the known keys,
// recorded ciphertexts decrypted, and every recorded signature verified.
const { test, before, after } = require('node:test');
const assert = require('node:assert');
const crypto = require('crypto');
const { startEmulator, ctl, vaultToken, vaultCaller } = require('../test-support/harness');
const facts = require('../test-support/facts');
const { javaKey, javaRandomBytes, pythonKey } = require('../test-support/fixtures');

const HOST = 'vectors.vault.azure.net';
let em;
let call;

before(async () => {
  facts.requireFacts();
  em = await startEmulator();
  call = vaultCaller(em, HOST, await vaultToken(em));
});
after(() => em.stop());

const signOf = (rec) => rec.filter((i) => i.path.endsWith('/sign'));
const b64u = (b) => Buffer.from(b).toString('base64url');

test('the Python RS256 signature is reproduced byte for byte from the imported key', async () => {
  const rec = facts.load('python/test_crypto_client.test_sign_and_verify_7_3_vault.yaml');
  const put = rec.find((i) => i.method === 'PUT' && i.status === 200);
  const imported = await call('PUT', '/keys/pythonsign?api-version=7.3', put.requestBody);
  assert.strictEqual(imported.status, 200, imported.text);
  assert.strictEqual(imported.json.key.n, put.responseBody.key.n, 'the modulus is echoed as given');
  const [sign] = signOf(rec);
  const r = await call('POST', '/keys/pythonsign//sign?api-version=7.3', sign.requestBody);
  assert.strictEqual(r.status, 200, r.text);
  assert.strictEqual(r.json.value, sign.responseBody.value);
});

test('the Java well-known key reproduces both recorded RS256 signatures', async () => {
  await ctl(em, 'POST', '/vaults/vectors/keys', { name: 'javaKey', jwk: javaKey() });
  const digest = crypto.createHash('sha256').update(javaRandomBytes(0x1234567, 100)).digest();
  const rec = facts.load('java/signVerifyOperationsForKeyOperationsTest.json');
  const signs = signOf(rec);
  assert.strictEqual(signs.length, 2);
  for (const recorded of signs) {
    const r = await call('POST', '/keys/javaKey//sign?api-version=7.0', { alg: 'RS256', value: b64u(digest) });
    assert.strictEqual(r.status, 200, r.text);
    assert.strictEqual(r.json.value, recorded.responseBody.value);
  }
  const modulus = rec.find((i) => i.method === 'PUT' && i.status === 200).responseBody.key.n;
  assert.strictEqual((await call('GET', '/keys/javaKey?api-version=7.0')).json.key.n, modulus);
});

test('recorded RSA-OAEP ciphertexts decrypt to the recorded plaintexts', async () => {
  await ctl(em, 'POST', '/vaults/vectors/keys', { name: 'javaCrypt', jwk: javaKey() });
  const plain = javaRandomBytes(0x1234567, 100);
  const java = facts.load('java/encryptDecryptOperationsForKeyOperationsTest.json');
  const encrypts = java.filter((i) => i.path.endsWith('/encrypt'));
  assert.strictEqual(encrypts.length, 2);
  for (const e of encrypts) {
    const r = await call('POST', '/keys/javaCrypt//decrypt?api-version=7.0', { alg: 'RSA-OAEP', value: e.responseBody.value });
    assert.strictEqual(r.status, 200, r.text);
    assert.deepStrictEqual(Buffer.from(r.json.value, 'base64url'), plain);
  }
  const py = facts.load('python/test_crypto_client.test_encrypt_and_decrypt_7_3_vault.yaml');
  const put = py.find((i) => i.method === 'PUT' && i.status === 200);
  assert.strictEqual((await call('PUT', '/keys/pythonCrypt?api-version=7.3', put.requestBody)).status, 200);
  const dec = py.find((i) => i.path.endsWith('/decrypt'));
  const r = await call('POST', '/keys/pythonCrypt//decrypt?api-version=7.3', dec.requestBody);
  assert.strictEqual(r.status, 200, r.text);
  assert.strictEqual(r.json.value, dec.responseBody.value);
});

// Every recorded signature, with the digest it was made over and the key
// it was made with.
function recordedSignatures() {
  const cppDigest = crypto.createHash('sha256').update('A single block of plaintext').digest();
  const javaPlain = javaRandomBytes(0x1234567, 100);
  const out = [];
  const walk = (file, algs, digestFor) => {
    let key = null;
    let i = 0;
    for (const it of facts.load(file)) {
      const b = it.responseBody;
      if (b && typeof b === 'object' && b.key && it.status === 200) key = b.key;
      if (it.path.endsWith('/sign') && it.status === 200) {
        const alg = algs ? algs[i++] : JSON.parse(it.requestBody).alg;
        out.push({ file, alg, key, digest: digestFor(alg, it), signature: b.value });
      }
    }
  };
  walk('cpp/KeyVaultKeyClient.RemoteSignVerifyES256.json', ['ES256', 'ES256K'], () => cppDigest);
  walk('cpp/Crypto-KeyVaultKeyClientWithParam.RemoteSignVerifyRSA256-2048.json', ['RS256', 'PS256'], () => cppDigest);
  for (const f of ['dotnet/CreateECDsaSignVerify(ES384).json', 'dotnet/CreateECDsaSignVerify(ES512).json']) {
    walk(f, null, (alg, it) => Buffer.from(JSON.parse(it.requestBody).value, 'base64url'));
  }
  walk('java/testSignVerifyIntegrationES256.json', ['ES256'], () => crypto.createHash('sha256').update(javaPlain).digest());
  walk('java/testSignVerifyIntegrationES521.json', ['ES512'], () => crypto.createHash('sha512').update(javaPlain).digest());
  walk('python/test_crypto_client.test_sign_and_verify_7_3_vault.yaml', null,
    (alg, it) => Buffer.from(JSON.parse(it.requestBody).value, 'base64url'));
  return out;
}

test('every recorded ES, PS and RS signature verifies, and a changed one does not', async () => {
  const all = recordedSignatures();
  assert.deepStrictEqual(all.map((s) => s.alg).sort(),
    ['ES256', 'ES256', 'ES256K', 'ES384', 'ES512', 'ES512', 'PS256', 'RS256', 'RS256']);
  let n = 0;
  for (const s of all) {
    const name = `recorded${n++}`;
    const { kty, crv, n: mod, e, x, y } = s.key;
    const jwk = kty.startsWith('RSA') ? { kty, n: mod, e } : { kty, crv, x, y };
    const seeded = await ctl(em, 'POST', '/vaults/vectors/keys', { name, jwk });
    assert.strictEqual(seeded.status, 200, seeded.text);
    const body = { alg: s.alg, digest: b64u(s.digest), value: s.signature };
    const good = await call('POST', `/keys/${name}//verify?api-version=7.4`, body);
    assert.strictEqual(good.status, 200, `${s.file} ${s.alg}: ${good.text}`);
    assert.deepStrictEqual(good.json, { value: true }, `${s.file} ${s.alg}`);
    const sig = Buffer.from(s.signature, 'base64url');
    sig[sig.length >> 1] ^= 0x01;
    const bad = await call('POST', `/keys/${name}//verify?api-version=7.4`, Object.assign({}, body, { value: b64u(sig) }));
    assert.deepStrictEqual(bad.json, { value: false }, `${s.file} ${s.alg} changed`);
    const refused = await call('POST', `/keys/${name}//sign?api-version=7.4`, { alg: s.alg, value: b64u(s.digest) });
    assert.strictEqual(refused.status, 400, 'a key seeded without its private part cannot sign');
  }
});
