'use strict';
// Replays the recorded sessions of the real service against the emulator
// and compares every answer: the status, the members of the body in the
// service's order and with the service's JSON types, and the values that
// do not depend on fresh keys or clocks (error texts, identifiers, key
// types and operations, policies, operation states, verification
// results, decrypted plaintexts, deterministic signatures).
//
// Where a recorder kept no request body, the body is rebuilt from what
// the SDK test is known to have sent (its digest, plaintext, policy) or
// from the answer it got. Where the service's state is not in the
// recording (other keys in the vault, how long a deletion took, how many
// polls a certificate took), the emulator is set up to match it first.
const { test, before, after } = require('node:test');
const assert = require('node:assert');
const crypto = require('crypto');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { execFileSync } = require('child_process');
const { startEmulator, azure, ctl, vaultToken } = require('../test-support/harness');
const facts = require('../test-support/facts');
const { javaKey, javaRandomBytes } = require('../test-support/fixtures');

const EXCLUDED = {
  'cpp/KeyVaultKeyClient.CreateEcHsmKey.json': 'a Managed HSM session (managedhsm.azure.net), a service the emulator does not play',
  'cpp/KeyVaultKeyClient.CreateRsaHsmKey.json': 'a Managed HSM session (managedhsm.azure.net), a service the emulator does not play',
  'python/test_challenge_auth.test_multitenant_authentication_7_3_mhsm.yaml':
    'a Managed HSM session (managedhsm.azure.net), a service the emulator does not play',
};

// What the SDK tests signed and encrypted where the recorder dropped the body.
const CPP_PLAIN = Buffer.from('A single block of plaintext\0');
const CPP_DIGEST = crypto.createHash('sha256').update('A single block of plaintext').digest();
const JAVA_PLAIN = javaRandomBytes(0x1234567, 100);
const SIGN_ALGS = {
  'cpp/KeyVaultKeyClient.RemoteSignVerifyES256.json': ['ES256', 'ES256K'],
  'cpp/Crypto-KeyVaultKeyClientWithParam.RemoteSignVerifyRSA256-2048.json': ['RS256', 'PS256'],
  'java/signVerifyOperationsForKeyOperationsTest.json': ['RS256', 'RS256'],
  'java/testSignVerifyIntegrationES256.json': ['ES256'],
  'java/testSignVerifyIntegrationES521.json': ['ES512'],
};
const HASH_OF = { ES256: 'sha256', ES256K: 'sha256', RS256: 'sha256', PS256: 'sha256', ES512: 'sha512' };
const ENCRYPT_ALGS = {
  'cpp/Crypto-KeyVaultKeyClientWithParam.RemoteEncrypt-2048.json': 'RSA-OAEP',
  'cpp/Crypto-KeyVaultKeyClientWithParam.RemoteWrap-2048.json': 'RSA-OAEP-256',
  'java/encryptDecryptOperationsForKeyOperationsTest.json': 'RSA-OAEP',
};
// Signatures the real service made deterministically from a known key.
const DETERMINISTIC_SIGNATURES = new Set([
  'java/signVerifyOperationsForKeyOperationsTest.json', 'python/test_crypto_client.test_sign_and_verify_7_3_vault.yaml',
]);

const HEX32 = /^[0-9a-f]{32}$/;
const STD_B64 = /^[A-Za-z0-9+/]+={0,2}$/;
// Members whose values are compared exactly (where both sides have them).
const EXACT = new Set(['kty', 'crv', 'key_ops', 'enabled', 'exportable', 'recoverableDays', 'status', 'status_details',
  'cancellation_requested', 'contentType', 'subject', 'validity_months', 'ca', 'lifetime_percentage', 'action_type',
  'reuse_key', 'key_size', 'ekus', 'key_usage', 'sans', 'cert_transparency', 'managed', 'code', 'e']);
const URLS = new Set(['kid', 'id', 'sid', 'recoveryId', 'target', 'nextLink']);

let em;
let scratch;

before(async () => {
  facts.requireFacts();
  em = await startEmulator();
  scratch = fs.mkdtempSync(path.join(os.tmpdir(), 'kestal-replay-'));
});
after(() => {
  em.stop();
  fs.rmSync(scratch, { recursive: true, force: true });
});

const b64u = (b) => Buffer.from(b).toString('base64url');
const segmentsOf = (p) => p.split('/').slice(1);

class Replay {
  constructor(file) {
    this.file = file;
    this.rec = facts.load(file);
    this.versions = new Map();
    this.next = new Map();
    this.signAlgs = (SIGN_ALGS[file] || []).slice();
    this.knownKey = false;
    const host = this.rec[0].host.toLowerCase();
    this.vault = host.split('.')[0];
    this.host = `${this.vault}.vault.azure.net`;
  }

  where(i) {
    const it = this.rec[i];
    return `${this.file} #${i} ${it.method} ${it.path}`;
  }

  configure(settings) {
    return ctl(em, 'PUT', `/vaults/${this.vault}`, settings);
  }

  async run() {
    await ctl(em, 'POST', '/reset');
    this.token = await vaultToken(em);
    await this.prepare();
    for (let i = 0; i < this.rec.length; i++) await this.step(i);
  }

  // The vault's retention, and the objects its listings show that the
  // session did not make itself.
  async prepare() {
    const days = this.rec.map((it) => findMember(it.responseBody, 'recoverableDays')).find((d) => d !== undefined);
    if (days !== undefined) assert.strictEqual((await this.configure({ recoverableDays: days })).status, 200);
    const made = new Set(this.rec.filter((it) => /^\/(keys|certificates)\/[^/]+(\/create)?$/.test(it.path) &&
      ['POST', 'PUT'].includes(it.method)).map((it) => segmentsOf(it.path)[1].toLowerCase()));
    for (const it of this.rec) {
      const seg = segmentsOf(it.path);
      if (it.method !== 'GET' || seg.length !== 1 || !Array.isArray(it.responseBody.value)) continue;
      for (const item of it.responseBody.value) {
        const name = (item.kid || item.id).split('/').pop();
        if (made.has(name.toLowerCase())) continue;
        made.add(name.toLowerCase());
        const kind = seg[0] === 'keys' ? 'keys' : seg[0] === 'certificates' ? 'certificates' : null;
        if (!kind) continue;
        const body = kind === 'keys' ? this.keySeed(name, item) : { name, jwk: javaKey(), subject: 'CN=xyz' };
        const r = await ctl(em, 'POST', `/vaults/${this.vault}/${kind}`, body);
        assert.strictEqual(r.status, 200, r.text);
      }
    }
  }

  // A key like the one the recorded vault held: its type from any answer
  // that shows it, its tags and managed flag from the listing.
  keySeed(name, item) {
    const shown = this.rec.map((r) => r.responseBody && r.responseBody.key)
      .find((k) => k && typeof k.kid === 'string' && k.kid.split('/').slice(-2)[0] === name);
    const seed = { name };
    if (shown && shown.kty.startsWith('RSA')) Object.assign(seed, { jwk: javaKey(), key_ops: shown.key_ops });
    else Object.assign(seed, { kty: 'EC', crv: shown ? shown.crv : 'P-256' });
    if (item.tags) seed.tags = item.tags;
    if (item.managed) seed.managed = true;
    return seed;
  }

  // Settings that let the emulator answer the following requests as the
  // service did: page sizes of a listing, the length of a deletion, the
  // polls of a self-issued certificate.
  async arrange(i) {
    const it = this.rec[i];
    const seg = segmentsOf(it.path);
    if (it.method === 'GET' && seg.length === 1 && !/skiptoken/.test(it.query) && Array.isArray(it.responseBody.value)) {
      const sizes = [];
      for (let j = i; j < this.rec.length; j++) {
        const r = this.rec[j];
        if (r.path !== it.path || r.method !== 'GET' || !Array.isArray(r.responseBody.value)) continue;
        if (j > i && !/skiptoken/.test(r.query)) break;
        sizes.push(r.responseBody.value.length);
        if (!r.responseBody.nextLink) break;
      }
      await this.configure({ pageSizes: sizes });
    }
    if (it.method === 'DELETE' && seg.length === 2 && ['keys', 'certificates'].includes(seg[0])) {
      await this.configure({ deleteWindowRequests: this.deletionLength(i, seg[0], seg[1]) });
    }
    if (it.method === 'POST' && seg.length === 3 && seg[0] === 'certificates' && seg[2] === 'create') {
      let polls = 0;
      for (let j = i + 1; j < this.rec.length; j++) {
        const r = this.rec[j];
        if (r.path !== `/certificates/${seg[1]}/pending` || r.method !== 'GET') continue;
        if (r.responseBody.status !== 'inProgress') break;
        polls++;
      }
      await this.configure({ certificatePolls: polls });
    }
  }

  // How many requests after a delete saw the deletion still in progress.
  deletionLength(i, collection, name) {
    const deletedPath = `/deleted${collection}/${name}`;
    let count = 0;
    for (let j = i + 1; j < this.rec.length; j++) {
      const r = this.rec[j];
      const related = r.path === deletedPath || r.path === `${deletedPath}/recover` ||
        (r.path === `/${collection}/${name}/create` && r.method === 'POST');
      if (!related) continue;
      const inProgress = (r.method === 'GET' && r.status === 404) ||
        (r.status === 409 && findMember(r.responseBody, 'code') !== undefined &&
          JSON.stringify(r.responseBody).includes('ObjectIsBeingDeleted'));
      if (!inProgress) break;
      count++;
    }
    return count;
  }

  mapPath(p) {
    return p.split('/').map((s) => (HEX32.test(s) && this.versions.has(s) ? this.versions.get(s) : s)).join('/');
  }

  // The first answer from i on (or else anywhere in the session) that matches.
  laterAnswer(i, predicate) {
    const fits = (r) => predicate(r) && r.responseBody && typeof r.responseBody === 'object';
    return this.rec.slice(i).find(fits) || this.rec.find(fits);
  }

  // The request body the recorder did not keep.
  rebuild(i) {
    const it = this.rec[i];
    const seg = segmentsOf(it.path);
    const action = seg[seg.length - 1].toLowerCase();
    if (it.method === 'POST' && seg[0] === 'keys' && action === 'create') {
      const key = this.laterAnswer(i, (r) => r.path === it.path && r.status === 200).responseBody.key;
      if (key.kty.startsWith('EC')) return { kty: key.kty, crv: key.crv };
      return { kty: key.kty, key_size: Buffer.from(key.n, 'base64url').length * 8 };
    }
    if (it.method === 'PUT' && seg[0] === 'keys') {
      const key = this.laterAnswer(i, (r) => r.path === it.path && r.status === 200).responseBody.key;
      let jwk;
      if (this.file.startsWith('java/') && key.kty === 'RSA') {
        jwk = javaKey();
        this.knownKey = true;
      } else if (key.kty === 'RSA') {
        jwk = crypto.generateKeyPairSync('rsa', { modulusLength: 2048 }).privateKey.export({ format: 'jwk' });
      } else {
        const curve = { 'P-256': 'prime256v1', 'P-384': 'secp384r1', 'P-521': 'secp521r1' }[key.crv];
        jwk = Object.assign(crypto.generateKeyPairSync('ec', { namedCurve: curve }).privateKey.export({ format: 'jwk' }),
          { crv: key.crv });
      }
      return { key: Object.assign(jwk, { kty: key.kty, key_ops: key.key_ops }) };
    }
    if (action === 'sign') {
      const alg = this.signAlgs.shift();
      const digest = this.file.startsWith('java/')
        ? crypto.createHash(HASH_OF[alg]).update(JAVA_PLAIN).digest() : CPP_DIGEST;
      this.signed = { alg, digest };
      return { alg, value: b64u(digest) };
    }
    if (action === 'verify') {
      return { alg: this.signed.alg, digest: b64u(this.signed.digest), value: this.signature };
    }
    if (action === 'encrypt' || action === 'wrapkey') {
      this.plain = this.file.startsWith('java/') ? JAVA_PLAIN : CPP_PLAIN;
      return { alg: ENCRYPT_ALGS[this.file], value: b64u(this.plain) };
    }
    if (action === 'decrypt' || action === 'unwrapkey') return { alg: ENCRYPT_ALGS[this.file], value: this.cipher };
    if (it.method === 'PATCH') {
      const a = it.responseBody.attributes;
      return { attributes: { enabled: a.enabled, exp: a.exp } };
    }
    if (action === 'restore') return { value: this.backup };
    if (seg[0] === 'certificates' && action === 'create') {
      const name = seg[1];
      const p = this.laterAnswer(i, (r) => r.path === `/certificates/${name}` && r.responseBody.policy).responseBody.policy;
      return { policy: { key_props: p.key_props, secret_props: p.secret_props, x509_props: p.x509_props, issuer: p.issuer } };
    }
    return undefined;
  }

  // Request bodies kept by the recorder, adjusted where they name things
  // that only existed in the recorded vault.
  adjust(i, text) {
    const it = this.rec[i];
    const action = segmentsOf(it.path).pop().toLowerCase();
    if (it.method === 'PUT' && /"d"\s*:/.test(text)) this.knownKey = true;
    const body = JSON.parse(text);
    if (action === 'encrypt') this.plain = Buffer.from(body.value, 'base64url');
    if ((action === 'decrypt' || action === 'unwrapkey') && !this.knownKey) body.value = this.cipher;
    if (action === 'merge') body.x5c = this.mergeChain(body.x5c);
    if (action === 'sign') this.signed = { alg: body.alg, digest: Buffer.from(body.value, 'base64url') };
    return JSON.stringify(body);
  }

  // A certificate for the emulator's pending key, signed by a throwaway CA
  // with openssl, encoded the way the recorded client encoded its own.
  mergeChain(recorded) {
    const dir = fs.mkdtempSync(path.join(scratch, 'merge-'));
    const run = (args) => execFileSync('openssl', args, { cwd: dir, stdio: 'ignore' });
    fs.writeFileSync(path.join(dir, 'req.der'), Buffer.from(this.csr, 'base64'));
    run(['req', '-inform', 'der', '-in', 'req.der', '-out', 'req.pem']);
    run(['req', '-x509', '-newkey', 'rsa:2048', '-nodes', '-keyout', 'ca.key', '-out', 'ca.pem', '-days', '1', '-subj', '/CN=replay CA']);
    run(['x509', '-req', '-in', 'req.pem', '-CA', 'ca.pem', '-CAkey', 'ca.key', '-CAcreateserial', '-days', '1',
      '-outform', 'der', '-out', 'leaf.der']);
    const der = fs.readFileSync(path.join(dir, 'leaf.der'));
    const once = der.toString('base64');
    const twice = Buffer.from(recorded[0], 'base64')[0] !== 0x30;
    this.merged = der;
    return [twice ? Buffer.from(once).toString('base64') : once];
  }

  async step(i) {
    const it = this.rec[i];
    await this.arrange(i);
    let urlPath = this.mapPath(it.path) + it.query;
    if (/skiptoken/.test(it.query)) {
      const link = this.next.get(it.path);
      assert.ok(link, `${this.where(i)}: the previous page had a nextLink`);
      const u = new URL(link);
      urlPath = u.pathname + u.search;
    }
    let body;
    if (it.status === 401) body = undefined;
    else if (typeof it.requestBody === 'string') body = this.adjust(i, it.requestBody);
    else if (it.requestBody === undefined) {
      const rebuilt = this.rebuild(i);
      body = rebuilt === undefined ? undefined : JSON.stringify(rebuilt);
    }
    const headers = body === undefined ? {} : { 'Content-Type': 'application/json' };
    if (it.status !== 401) headers.Authorization = `Bearer ${this.token}`;
    const r = await azure(em, this.host, it.method, urlPath, { headers, body });
    assert.strictEqual(r.status, it.status, `${this.where(i)}: ${r.text}`);
    this.compareHeaders(i, r);
    if (it.status === 401) {
      this.compareChallenge(i, r);
      return;
    }
    const ours = r.text === '' ? '' : r.json;
    if (it.responseBody === '') assert.strictEqual(r.text, '', `${this.where(i)}: an empty body`);
    else this.compare(ours, it.responseBody, [], i);
    this.checkValues(i, ours, body);
    this.learn(ours, it);
  }

  compareHeaders(i, r) {
    const rec = this.rec[i].headers;
    if (rec['retry-after'] === '10') assert.strictEqual(r.headers['retry-after'], '10', `${this.where(i)}: Retry-After`);
    if (rec.location) {
      const ours = new URL(r.headers.location);
      const theirs = new URL(rec.location);
      assert.strictEqual(ours.host, this.host, this.where(i));
      assert.strictEqual(ours.pathname, this.mapPath(theirs.pathname), `${this.where(i)}: Location`);
      assert.deepStrictEqual([...ours.searchParams.keys()], [...theirs.searchParams.keys()], `${this.where(i)}: Location query`);
      if (theirs.searchParams.has('request_id')) assert.match(ours.searchParams.get('request_id'), HEX32);
    }
    if (rec['content-type']) assert.strictEqual(r.headers['content-type'], rec['content-type'], `${this.where(i)}: content type`);
  }

  compareChallenge(i, r) {
    assert.match(r.headers['www-authenticate'],
      /^Bearer authorization="https:\/\/login\.windows\.net\/[0-9a-f-]{36}", resource="https:\/\/vault\.azure\.net"$/,
      this.where(i));
    const rec = this.rec[i].responseBody;
    if (rec && typeof rec === 'object') {
      assert.strictEqual(r.json.error.code, rec.error.code, this.where(i));
      assert.ok(r.json.error.message.endsWith(rec.error.message.replace(/^AKV\d+: /, '')), this.where(i));
    }
  }

  compareUrl(ours, theirs, where) {
    const fixed = theirs.replace('.vault.azure.netkeys/', '.vault.azure.net/keys/');
    const [recBase, recQuery] = fixed.split('?');
    const [ourBase, ourQuery] = ours.split('?');
    const rp = recBase.replace(/^https:\/\/[^/:]+/, '').split('/');
    const op = ourBase.replace(/^https:\/\/[^/:]+/, '').split('/');
    assert.ok(ourBase.startsWith(`https://${this.host}`), `${where}: ${ours}`);
    assert.strictEqual(op.length, rp.length, `${where}: ${ours} against ${theirs}`);
    for (let k = 0; k < rp.length; k++) {
      if (HEX32.test(rp[k]) && HEX32.test(op[k])) {
        if (!this.versions.has(rp[k])) this.versions.set(rp[k], op[k]);
        assert.strictEqual(op[k], this.versions.get(rp[k]), `${where}: version in ${ours}`);
      } else {
        assert.strictEqual(op[k], rp[k], `${where}: ${ours} against ${theirs}`);
      }
    }
    if (recQuery !== undefined) {
      const keys = (q) => q.split('&').map((p) => p.split('=')[0]);
      assert.deepStrictEqual(keys(ourQuery || ''), keys(recQuery), `${where}: query of ${ours}`);
    }
  }

  compare(ours, theirs, trail, i) {
    const where = `${this.where(i)} at ${trail.join('.') || 'body'}`;
    const name = trail[trail.length - 1];
    if (theirs === null) {
      assert.strictEqual(ours, null, where);
      return;
    }
    if (Array.isArray(theirs)) {
      assert.ok(Array.isArray(ours), `${where}: an array`);
      if (EXACT.has(name)) assert.deepStrictEqual(ours, theirs, where);
      assert.strictEqual(ours.length, theirs.length, `${where}: length`);
      ours.forEach((o, k) => this.compare(o, theirs[k], trail.concat(String(k)), i));
      return;
    }
    if (typeof theirs === 'object') {
      assert.ok(ours && typeof ours === 'object' && !Array.isArray(ours), `${where}: an object`);
      let recKeys = Object.keys(theirs);
      // The service once echoed a requested curve on an RSA key it imported.
      if (name === 'key' && theirs.kty && theirs.kty.startsWith('RSA')) recKeys = recKeys.filter((k) => k !== 'crv');
      assert.deepStrictEqual(Object.keys(ours), recKeys, `${where}: members`);
      for (const k of recKeys) this.compare(ours[k], theirs[k], trail.concat(k), i);
      if (theirs.deletedDate !== undefined) {
        assert.strictEqual(ours.scheduledPurgeDate - ours.deletedDate, theirs.scheduledPurgeDate - theirs.deletedDate, where);
      }
      return;
    }
    assert.strictEqual(typeof ours, typeof theirs, `${where}: type`);
    if (URLS.has(name) && typeof theirs === 'string') {
      this.compareUrl(ours, theirs, where);
    } else if (name === 'message') {
      assert.strictEqual(ours, theirs.replace(/^AKV\d+: /, ''), where);
    } else if (name === 'recoveryLevel' && theirs !== 'Purgeable') {
      assert.strictEqual(ours, theirs, where);
    } else if (name === 'csr' || name === 'cer') {
      assert.match(ours, STD_B64, where);
    } else if (name === 'x5t' || name === 'request_id' || ['n', 'x', 'y'].includes(name)) {
      assert.strictEqual(ours.length, theirs.length, `${where}: length`);
    } else if (name === 'value' && typeof theirs === 'boolean') {
      assert.strictEqual(ours, theirs, where);
    } else if (EXACT.has(name) || (trail.includes('issuer') && name === 'name')) {
      assert.strictEqual(ours, theirs, where);
    }
  }

  // Values fixed by the request: plaintexts, deterministic signatures, the
  // certificate a merge sent, thumbprints.
  checkValues(i, ours, body) {
    const it = this.rec[i];
    const action = segmentsOf(it.path).pop().toLowerCase();
    if (action === 'decrypt' || action === 'unwrapkey') {
      if (this.plain) assert.deepStrictEqual(Buffer.from(ours.value, 'base64url'), this.plain, `${this.where(i)}: plaintext`);
      if (this.knownKey || this.file.startsWith('cpp/')) assert.strictEqual(ours.value, it.responseBody.value, this.where(i));
    }
    if (action === 'sign' && DETERMINISTIC_SIGNATURES.has(this.file)) {
      assert.strictEqual(ours.value, it.responseBody.value, `${this.where(i)}: the same signature`);
    }
    if (action === 'sign') {
      const want = { ES256: 64, ES256K: 64, ES384: 96, ES512: 132 }[this.signed.alg];
      if (want) assert.strictEqual(Buffer.from(ours.value, 'base64url').length, want, this.where(i));
    }
    if (action === 'merge') assert.strictEqual(ours.cer, this.merged.toString('base64'), this.where(i));
    if (ours && ours.cer) {
      const x5t = b64u(crypto.createHash('sha1').update(Buffer.from(ours.cer, 'base64')).digest());
      assert.strictEqual(ours.x5t, x5t, `${this.where(i)}: x5t`);
    }
    if (body && it.method === 'PUT' && this.knownKey) {
      assert.strictEqual(ours.key.n, JSON.parse(body).key.n, `${this.where(i)}: the imported modulus`);
    }
  }

  learn(ours, it) {
    if (!ours || typeof ours !== 'object') return;
    if (ours.nextLink !== undefined) this.next.set(it.path, ours.nextLink);
    const action = segmentsOf(it.path).pop().toLowerCase();
    if (action === 'sign') this.signature = ours.value;
    if (action === 'encrypt' || action === 'wrapkey') this.cipher = ours.value;
    if (action === 'backup') this.backup = ours.value;
    if (ours.csr) this.csr = ours.csr;
  }
}

function findMember(value, member) {
  if (!value || typeof value !== 'object') return undefined;
  if (Object.prototype.hasOwnProperty.call(value, member)) return value[member];
  for (const v of Object.values(value)) {
    const found = findMember(v, member);
    if (found !== undefined) return found;
  }
  return undefined;
}

test('every recorded session is replayed or excluded for a stated reason', () => {
  const all = facts.listRecordings();
  assert.strictEqual(all.length, 35, 'the facts hold 35 recorded sessions');
  for (const f of Object.keys(EXCLUDED)) assert.ok(all.includes(f), `${f} is in the facts`);
  for (const f of all) {
    if (EXCLUDED[f]) continue;
    assert.ok(facts.load(f).length > 0, f);
  }
});

for (const file of facts.listRecordings()) {
  if (EXCLUDED[file]) continue;
  test(`replays ${file}`, async () => {
    await new Replay(file).run();
  });
}
