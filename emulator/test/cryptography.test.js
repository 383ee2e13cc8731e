'use strict';
// Key operations with real keys, each result checked independently with
// Node's own crypto over the message behind the digest.
const { test, before, after } = require('node:test');
const assert = require('node:assert');
const crypto = require('crypto');
const { startEmulator, ctl, vaultToken, vaultCaller } = require('../test-support/harness');
const { javaKey } = require('../test-support/fixtures');

const HOST = 'crypto.vault.azure.net';
const { RSA_NO_PADDING, RSA_PKCS1_PADDING, RSA_PKCS1_OAEP_PADDING, RSA_PKCS1_PSS_PADDING } = crypto.constants;
let em;
let call;
let rsaPrivate;
let rsaPublic;
const ecPublic = {};

const b64u = (b) => Buffer.from(b).toString('base64url');
const message = Buffer.from('the message behind every digest');
const digestOf = (hash) => crypto.createHash(hash).update(message).digest();
const op = (key, action, body, version = '') => call('POST', `/keys/${key}/${version}/${action}?api-version=7.0`, body);

before(async () => {
  em = await startEmulator();
  call = vaultCaller(em, HOST, await vaultToken(em));
  const jwk = javaKey();
  rsaPrivate = crypto.createPrivateKey({ key: jwk, format: 'jwk' });
  rsaPublic = crypto.createPublicKey(rsaPrivate);
  await ctl(em, 'POST', '/vaults/crypto/keys', { name: 'rsa', jwk });
  for (const crv of ['P-256', 'P-384', 'P-521', 'P-256K']) {
    const r = await call('POST', `/keys/ec${crv.replace('-', '')}/create?api-version=7.4`, { kty: 'EC', crv });
    assert.strictEqual(r.status, 200, r.text);
    const { x, y } = r.json.key;
    ecPublic[crv] = crypto.createPublicKey({
      key: { kty: 'EC', crv: crv === 'P-256K' ? 'secp256k1' : crv, x, y }, format: 'jwk',
    });
  }
});
after(() => em.stop());

test('RS and PS signatures verify over the message with Node, and with the vault', async () => {
  for (const [alg, hash] of [['RS256', 'sha256'], ['RS384', 'sha384'], ['RS512', 'sha512'],
    ['PS256', 'sha256'], ['PS384', 'sha384'], ['PS512', 'sha512']]) {
    const digest = digestOf(hash);
    const r = await op('rsa', 'sign', { alg, value: b64u(digest) });
    assert.strictEqual(r.status, 200, `${alg}: ${r.text}`);
    assert.match(r.json.kid, /^https:\/\/crypto\.vault\.azure\.net\/keys\/rsa\/[0-9a-f]{32}$/);
    assert.doesNotMatch(r.json.value, /[=+/]/);
    const sig = Buffer.from(r.json.value, 'base64url');
    assert.strictEqual(sig.length, 256);
    const key = alg.startsWith('PS')
      ? { key: rsaPublic, padding: RSA_PKCS1_PSS_PADDING, saltLength: digest.length }
      : rsaPublic;
    assert.ok(crypto.verify(hash, message, key, sig), `${alg} verifies with Node`);
    const yes = await op('rsa', 'verify', { alg, digest: b64u(digest), value: r.json.value });
    assert.deepStrictEqual(yes.json, { value: true }, alg);
    const other = crypto.createHash(hash).update('another message').digest();
    const no = await op('rsa', 'verify', { alg, digest: b64u(other), value: r.json.value });
    assert.deepStrictEqual(no.json, { value: false }, alg);
  }
});

test('PS signatures made by Node verify with the vault; PKCS#1 v1.5 ones are deterministic', async () => {
  const digest = digestOf('sha384');
  const nodeSig = crypto.sign('sha384', message, { key: rsaPrivate, padding: RSA_PKCS1_PSS_PADDING, saltLength: 48 });
  const r = await op('rsa', 'verify', { alg: 'PS384', digest: b64u(digest), value: b64u(nodeSig) });
  assert.deepStrictEqual(r.json, { value: true });
  const rs = await op('rsa', 'sign', { alg: 'RS384', value: b64u(digest) });
  assert.strictEqual(rs.json.value, b64u(crypto.sign('sha384', message, rsaPrivate)));
});

test('ES signatures are raw r‖s of the curve size and verify with Node', async () => {
  for (const [alg, crv, hash, size] of [['ES256', 'P-256', 'sha256', 64], ['ES384', 'P-384', 'sha384', 96],
    ['ES512', 'P-521', 'sha512', 132], ['ES256K', 'P-256K', 'sha256', 64]]) {
    const key = `ec${crv.replace('-', '')}`;
    const digest = digestOf(hash);
    const r = await op(key, 'sign', { alg, value: b64u(digest) });
    assert.strictEqual(r.status, 200, `${alg}: ${r.text}`);
    const sig = Buffer.from(r.json.value, 'base64url');
    assert.strictEqual(sig.length, size, alg);
    assert.ok(crypto.verify(hash, message, { key: ecPublic[crv], dsaEncoding: 'ieee-p1363' }, sig), `${alg} verifies with Node`);
    const yes = await op(key, 'verify', { alg, digest: b64u(digest), value: r.json.value });
    assert.deepStrictEqual(yes.json, { value: true }, alg);
  }
});

test('RSNULL pads the given bytes with PKCS#1 type 1, up to the modulus limit', async () => {
  const data = crypto.randomBytes(245);
  const r = await op('rsa', 'sign', { alg: 'RSNULL', value: b64u(data) });
  assert.strictEqual(r.status, 200, r.text);
  const sig = Buffer.from(r.json.value, 'base64url');
  assert.deepStrictEqual(crypto.publicDecrypt({ key: rsaPublic, padding: RSA_PKCS1_PADDING }, sig), data);
  const raw = crypto.publicEncrypt({ key: rsaPublic, padding: RSA_NO_PADDING }, sig);
  assert.deepStrictEqual(raw.subarray(0, 2), Buffer.from([0x00, 0x01]));
  const v = await op('rsa', 'verify', { alg: 'RSNULL', digest: b64u(data), value: r.json.value });
  assert.deepStrictEqual(v.json, { value: true });
  const tooLong = await op('rsa', 'sign', { alg: 'RSNULL', value: b64u(crypto.randomBytes(246)) });
  assert.strictEqual(tooLong.status, 400);
  assert.strictEqual(tooLong.json.error.code, 'BadParameter');
});

test('a digest of the wrong length is refused with the service message', async () => {
  const rows = [
    ['rsa', 'sign', 'RS256', 48, 'value', 32],
    ['rsa', 'sign', 'PS512', 32, 'value', 64],
    ['rsa', 'sign', 'RS384', 64, 'value', 48],
    ['ecP384', 'sign', 'ES384', 32, 'value', 48],
    ['ecP521', 'sign', 'ES512', 66, 'value', 64],
    ['ecP256', 'verify', 'ES256', 20, 'digest', 32],
  ];
  for (const [key, action, alg, got, member, need] of rows) {
    const body = action === 'sign' ? { alg, value: b64u(crypto.randomBytes(got)) }
      : { alg, digest: b64u(crypto.randomBytes(got)), value: b64u(crypto.randomBytes(64)) };
    const r = await op(key, action, body);
    assert.strictEqual(r.status, 400, `${alg} ${got}`);
    assert.deepStrictEqual(r.json, { error: { code: 'BadParameter',
      message: `Invalid length of '${member}': ${got} bytes. ${alg} requires ${need} bytes, encoded with base64url.` } });
  }
});

test('values are read as base64url, and as standard base64 with padding', async () => {
  const digest = digestOf('sha256');
  const a = await op('rsa', 'sign', { alg: 'RS256', value: b64u(digest) });
  const b = await op('rsa', 'sign', { alg: 'RS256', value: digest.toString('base64') });
  assert.strictEqual(b.status, 200, b.text);
  assert.strictEqual(a.json.value, b.json.value);
  const bad = await op('rsa', 'sign', { alg: 'RS256', value: 'not*base64' });
  assert.deepStrictEqual(bad.json, { error: { code: 'BadParameter',
    message: "Content of 'value' is not base64url.\r\nProperty 'value' is required.\r\n" } });
  const noAlg = await op('rsa', 'sign', { alg: '', value: b64u(digest) });
  assert.deepStrictEqual(noAlg.json, { error: { code: 'BadParameter', message: 'Property  has invalid value\r\n' } });
  const wrongFamily = await op('rsa', 'sign', { alg: 'ES256', value: b64u(digest) });
  assert.strictEqual(wrongFamily.status, 400);
  const wrongCurve = await op('ecP384', 'sign', { alg: 'ES256', value: b64u(digest) });
  assert.strictEqual(wrongCurve.status, 400);
  const notJson = await op('rsa', 'sign', '{"alg":');
  assert.strictEqual(notJson.status, 400);
});

test('encrypt and decrypt interoperate with Node for RSA-OAEP, RSA-OAEP-256 and RSA1_5', async () => {
  const plain = Buffer.from('A single block of plaintext\0');
  for (const [alg, oaepHash] of [['RSA-OAEP', 'sha1'], ['RSA-OAEP-256', 'sha256'], ['RSA1_5', null]]) {
    const padding = oaepHash ? { padding: RSA_PKCS1_OAEP_PADDING, oaepHash } : { padding: RSA_PKCS1_PADDING };
    const local = crypto.publicEncrypt(Object.assign({ key: rsaPublic }, padding), plain);
    for (const [enc, dec] of [['encrypt', 'decrypt'], ['wrapKey', 'unwrapKey']]) {
      const d = await op('rsa', dec, { alg, value: b64u(local) });
      assert.strictEqual(d.status, 200, `${alg} ${dec}: ${d.text}`);
      assert.deepStrictEqual(Buffer.from(d.json.value, 'base64url'), plain, `${alg} ${dec}`);
      const e = await op('rsa', enc, { alg, value: b64u(plain) });
      assert.strictEqual(e.status, 200, `${alg} ${enc}: ${e.text}`);
      const ct = Buffer.from(e.json.value, 'base64url');
      assert.strictEqual(ct.length, 256);
      let back;
      if (oaepHash) {
        back = crypto.privateDecrypt({ key: rsaPrivate, padding: RSA_PKCS1_OAEP_PADDING, oaepHash }, ct);
      } else {
        const em2 = crypto.privateDecrypt({ key: rsaPrivate, padding: RSA_NO_PADDING }, ct);
        assert.deepStrictEqual(em2.subarray(0, 2), Buffer.from([0, 2]));
        back = em2.subarray(em2.indexOf(0, 2) + 1);
      }
      assert.deepStrictEqual(back, plain, `${alg} ${enc}`);
    }
  }
});

test('encryption limits and undecryptable values', async () => {
  const long = await op('rsa', 'encrypt', { alg: 'RSA-OAEP-256', value: b64u(crypto.randomBytes(191)) });
  assert.strictEqual(long.status, 400);
  assert.strictEqual(long.json.error.code, 'BadParameter');
  const fits = await op('rsa', 'encrypt', { alg: 'RSA-OAEP-256', value: b64u(crypto.randomBytes(190)) });
  assert.strictEqual(fits.status, 200);
  // Two different faults of PKCS#1 v1.5 padding get the same answer.
  const noSeparator = Buffer.concat([Buffer.from([0, 2]), Buffer.alloc(254, 0x55)]);
  const wrongType = Buffer.concat([Buffer.from([0, 1]), Buffer.alloc(20, 0x55), Buffer.from([0]), Buffer.alloc(233, 7)]);
  const answers = [];
  for (const em2 of [noSeparator, wrongType]) {
    const ct = crypto.publicEncrypt({ key: rsaPublic, padding: RSA_NO_PADDING }, em2);
    const r = await op('rsa', 'decrypt', { alg: 'RSA1_5', value: b64u(ct) });
    assert.strictEqual(r.status, 400);
    answers.push(r.json);
  }
  assert.deepStrictEqual(answers[0], answers[1]);
  const short = await op('rsa', 'decrypt', { alg: 'RSA-OAEP', value: b64u(crypto.randomBytes(100)) });
  assert.strictEqual(short.status, 400);
  const ecEncrypt = await op('ecP256', 'encrypt', { alg: 'RSA-OAEP', value: b64u(Buffer.from('x')) });
  assert.strictEqual(ecEncrypt.status, 403, 'an EC key has no encrypt in its key_ops');
});

test('key_ops and the enabled flag limit the operations, with the service bodies', async () => {
  await ctl(em, 'POST', '/vaults/crypto/keys', { name: 'signonly', jwk: javaKey(), key_ops: ['sign', 'verify'] });
  const digest = b64u(digestOf('sha256'));
  const dec = await op('signonly', 'decrypt', { alg: 'RSA-OAEP', value: b64u(crypto.randomBytes(256)) });
  assert.strictEqual(dec.status, 403);
  assert.deepStrictEqual(dec.json, { error: { code: 'Forbidden', message: 'Operation decrypt is not permitted on this key.',
    innererror: { code: 'KeyOperationForbidden' } } });
  const wrap = await op('signonly', 'wrapKey', { alg: 'RSA-OAEP', value: digest });
  assert.strictEqual(wrap.json.error.message, 'Operation wrapKey is not permitted on this key.');
  assert.strictEqual((await op('signonly', 'sign', { alg: 'RS256', value: digest })).status, 200);

  await ctl(em, 'POST', '/vaults/crypto/keys', { name: 'disabled', jwk: javaKey(), attributes: { enabled: false } });
  const sign = await op('disabled', 'sign', { alg: 'RS256', value: digest });
  assert.strictEqual(sign.status, 403);
  assert.deepStrictEqual(sign.json.error.innererror, { code: 'KeyDisabled' });
  const sig = (await op('rsa', 'sign', { alg: 'RS256', value: digest })).json.value;
  const verify = await op('disabled', 'verify', { alg: 'RS256', digest, value: sig });
  assert.deepStrictEqual(verify.json, { value: true }, 'verification does not need the key enabled');
});

test('operations address versions: a named one, the latest, or none that exists', async () => {
  const first = (await call('POST', '/keys/versioned/create?api-version=7.4', { kty: 'EC' })).json.key;
  const second = (await call('POST', '/keys/versioned/create?api-version=7.4', { kty: 'EC' })).json.key;
  const digest = b64u(digestOf('sha256'));
  const oldVersion = first.kid.split('/').pop();
  const r = await op('versioned', 'sign', { alg: 'ES256', value: digest }, oldVersion);
  assert.strictEqual(r.json.kid, first.kid);
  const pub = crypto.createPublicKey({ key: { kty: 'EC', crv: 'P-256', x: first.x, y: first.y }, format: 'jwk' });
  assert.ok(crypto.verify('sha256', message, { key: pub, dsaEncoding: 'ieee-p1363' }, Buffer.from(r.json.value, 'base64url')));
  assert.strictEqual((await op('versioned', 'sign', { alg: 'ES256', value: digest })).json.kid, second.kid);
  const missing = await op('versioned', 'sign', { alg: 'ES256', value: digest }, '0123456789abcdef0123456789abcdef');
  assert.strictEqual(missing.status, 404);
  assert.match(missing.json.error.message, /^A key with \(name\/id\) versioned\/0123456789abcdef0123456789abcdef was not found/);
  assert.strictEqual((await op('nosuchkey', 'sign', { alg: 'ES256', value: digest })).status, 404);
});
