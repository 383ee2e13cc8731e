'use strict';
// The certificates collection: self-issued certificates, requests left
// pending for a merge, key reuse, tiers, listing, deletion and seeding.
// Certificates and requests are checked with openssl and Node's X509.
const { test, before, after } = require('node:test');
const assert = require('node:assert');
const crypto = require('crypto');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { execFileSync } = require('child_process');
const { startEmulator, ctl, vaultToken, vaultCaller } = require('../test-support/harness');
const { javaKey } = require('../test-support/fixtures');

let em;
let token;
let dir;

before(async () => {
  em = await startEmulator();
  token = await vaultToken(em);
  dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kestal-cert-test-'));
  openssl(['req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:P-256', '-nodes', '-keyout', 'ca.key',
    '-out', 'ca.pem', '-days', '2', '-subj', '/CN=test issuing CA']);
});
after(() => {
  em.stop();
  fs.rmSync(dir, { recursive: true, force: true });
});

function openssl(args, input) {
  return execFileSync('openssl', args, { cwd: dir, input, stdio: ['pipe', 'pipe', 'pipe'] }).toString();
}

let vaultCount = 0;
async function freshVault(settings) {
  const name = `certs${++vaultCount}`;
  if (settings) assert.strictEqual((await ctl(em, 'PUT', `/vaults/${name}`, settings)).status, 200);
  return { name, host: `${name}.vault.azure.net`, call: vaultCaller(em, `${name}.vault.azure.net`, token) };
}

// Reads a request with openssl: it must verify; answers its subject and key.
function readCsr(b64) {
  fs.writeFileSync(path.join(dir, 'req.der'), Buffer.from(b64, 'base64'));
  const text = execFileSync('openssl', ['req', '-inform', 'der', '-in', 'req.der', '-verify', '-noout', '-subject'],
    { cwd: dir, stdio: ['ignore', 'pipe', 'pipe'] }).toString();
  const pem = openssl(['req', '-inform', 'der', '-in', 'req.der', '-noout', '-pubkey']);
  return { subject: /subject=(.*)/.exec(text)[1].trim(), publicKey: crypto.createPublicKey(pem) };
}

// Signs a request with the test CA; answers the certificate's DER.
function issueFromCsr(b64, extra = []) {
  fs.writeFileSync(path.join(dir, 'req.der'), Buffer.from(b64, 'base64'));
  openssl(['req', '-inform', 'der', '-in', 'req.der', '-out', 'req.pem']);
  openssl(['x509', '-req', '-in', 'req.pem', '-CA', 'ca.pem', '-CAkey', 'ca.key', '-CAcreateserial', '-days', '1',
    '-outform', 'der', '-out', 'leaf.der', ...extra]);
  return fs.readFileSync(path.join(dir, 'leaf.der'));
}

const samePublicKey = (a, b) => a.export({ type: 'spki', format: 'der' }).equals(b.export({ type: 'spki', format: 'der' }));
const keyOf = (jwk) => crypto.createPublicKey({ key: jwk, format: 'jwk' });

const PROVIDER_POLICY = {
  key_props: { exportable: true, kty: 'RSA', key_size: 2048 },
  secret_props: { contentType: 'application/x-pkcs12' },
  x509_props: { subject: 'CN=CertificateDummySubject', validity_months: 600,
    ekus: ['1.3.6.1.5.5.7.3.1', '1.3.6.1.5.5.7.3.2'], key_usage: ['digitalSignature'] },
};

test('a self-issued certificate completes at once with a real certificate and a managed key', async () => {
  const { host, call } = await freshVault();
  const create = await call('POST', '/certificates/web/create?api-version=7.3', { policy: { x509_props: { subject: 'CN=xyz' } } });
  assert.strictEqual(create.status, 202, create.text);
  assert.deepStrictEqual(Object.keys(create.json),
    ['id', 'issuer', 'csr', 'cancellation_requested', 'status', 'status_details', 'request_id']);
  assert.deepStrictEqual(create.json.issuer, { name: 'Self' });
  assert.strictEqual(create.json.status, 'inProgress');
  assert.strictEqual(create.headers['retry-after'], '10');
  assert.match(create.headers.location,
    new RegExp(`^https://${host}/certificates/web/pending\\?api-version=7\\.3&request_id=${create.json.request_id}$`));
  const csr = readCsr(create.json.csr);
  assert.strictEqual(csr.subject, 'CN = xyz');

  const pending = await call('GET', '/certificates/web/pending?api-version=7.3');
  assert.strictEqual(pending.json.status, 'completed');
  assert.strictEqual(pending.json.target, `https://${host}/certificates/web`);
  assert.strictEqual(pending.headers['retry-after'], undefined);

  const got = await call('GET', '/certificates/web?api-version=7.3');
  assert.deepStrictEqual(Object.keys(got.json), ['id', 'kid', 'sid', 'x5t', 'cer', 'attributes', 'tags', 'policy', 'pending']);
  const version = got.json.id.split('/').pop();
  assert.match(version, /^[0-9a-f]{32}$/);
  assert.strictEqual(got.json.kid, `https://${host}/keys/web/${version}`);
  assert.strictEqual(got.json.sid, `https://${host}/secrets/web/${version}`);
  assert.match(got.json.cer, /^[A-Za-z0-9+/]+={0,2}$/);
  const der = Buffer.from(got.json.cer, 'base64');
  assert.strictEqual(got.json.x5t, crypto.createHash('sha1').update(der).digest('base64url'));
  const cert = new crypto.X509Certificate(der);
  assert.strictEqual(cert.subject, 'CN=xyz');
  assert.strictEqual(cert.issuer, 'CN=xyz');
  assert.ok(cert.verify(cert.publicKey), 'signed with its own key');
  assert.ok(samePublicKey(cert.publicKey, csr.publicKey), 'the key of the request');
  assert.deepStrictEqual(cert.keyUsage, ['1.3.6.1.5.5.7.3.1', '1.3.6.1.5.5.7.3.2']);
  assert.strictEqual(cert.ca, false);
  const a = got.json.attributes;
  assert.strictEqual(a.nbf, Math.floor(new Date(cert.validFrom).getTime() / 1000));
  assert.strictEqual(a.exp, Math.floor(new Date(cert.validTo).getTime() / 1000));
  assert.strictEqual(a.created - a.nbf, 600);
  assert.deepStrictEqual(got.json.policy.key_props, { exportable: true, kty: 'RSA', key_size: 2048, reuse_key: false });
  assert.deepStrictEqual(got.json.policy.lifetime_actions, [{ trigger: { lifetime_percentage: 80 }, action: { action_type: 'AutoRenew' } }]);
  const text = openssl(['x509', '-inform', 'der', '-noout', '-text'], der);
  assert.match(text, /Version: 3 \(0x2\)/);
  assert.match(text, /X509v3 Key Usage: critical\s+Digital Signature, Key Encipherment/);

  const key = await call('GET', '/keys/web?api-version=7.3');
  assert.strictEqual(key.json.key.kid, got.json.kid);
  assert.strictEqual(key.json.managed, true);
  assert.ok(samePublicKey(keyOf(key.json.key), cert.publicKey));
  assert.deepStrictEqual(key.json.key.key_ops, ['sign', 'verify', 'wrapKey', 'unwrapKey', 'encrypt', 'decrypt']);
  assert.deepStrictEqual((await call('GET', '/keys?api-version=7.3')).json.value.map((k) => k.managed), [true]);
});

test('the provider-style request: 600 months, digitalSignature only, EC and RSA keys', async () => {
  const { call } = await freshVault();
  const rsa = await call('POST', '/certificates/prov/create?api-version=7.0',
    { attributes: { enabled: true }, policy: PROVIDER_POLICY, tags: { KSPManaged: 'KSP', AlgID: 'RSA', KeyName: 'prov' } });
  assert.strictEqual(rsa.status, 202, rsa.text);
  const cert = new crypto.X509Certificate(Buffer.from((await call('GET', '/certificates/prov?api-version=7.0')).json.cer, 'base64'));
  const years = (new Date(cert.validTo) - new Date(cert.validFrom)) / (365.25 * 86400 * 1000);
  assert.ok(years > 49.9 && years < 50.1, `${years} years`);
  const key = (await call('GET', '/keys/prov?api-version=7.0')).json;
  assert.deepStrictEqual(key.key.key_ops, ['sign', 'verify']);
  assert.deepStrictEqual(key.tags, { KSPManaged: 'KSP', AlgID: 'RSA', KeyName: 'prov' });

  const ecPolicy = JSON.parse(JSON.stringify(PROVIDER_POLICY));
  ecPolicy.key_props = { exportable: false, kty: 'EC', crv: 'P-384' };
  const ec = await call('POST', '/certificates/provec/create?api-version=7.0', { policy: ecPolicy });
  assert.strictEqual(ec.status, 202, ec.text);
  const ecCert = new crypto.X509Certificate(Buffer.from((await call('GET', '/certificates/provec?api-version=7.0')).json.cer, 'base64'));
  assert.strictEqual(ecCert.publicKey.asymmetricKeyDetails.namedCurve, 'secp384r1');
  assert.ok(ecCert.verify(ecCert.publicKey));
  assert.match(openssl(['x509', '-inform', 'der', '-noout', '-text'], ecCert.raw), /ecdsa-with-SHA384/);
});

test('issuer Unknown stays pending until a merge of a certificate for the pending key', async () => {
  const { host, call } = await freshVault();
  const policy = Object.assign({}, PROVIDER_POLICY, { issuer: { name: 'Unknown' } });
  const create = await call('POST', '/certificates/merged/create?api-version=7.0', { policy });
  assert.strictEqual(create.status, 202);
  assert.strictEqual(create.json.status_details, 'Pending certificate created. Please Perform Merge to complete the request.');
  const poll = await call('GET', '/certificates/merged/pending?api-version=7.0');
  assert.strictEqual(poll.json.status, 'inProgress');
  assert.strictEqual(poll.headers['retry-after'], '10');
  assert.strictEqual((await call('GET', '/certificates/merged?api-version=7.0')).status, 404);
  assert.strictEqual((await call('GET', '/keys/merged?api-version=7.0')).status, 404);

  // A certificate for another key is refused.
  const stranger = crypto.generateKeyPairSync('rsa', { modulusLength: 2048 });
  fs.writeFileSync(path.join(dir, 'stranger.key'), stranger.privateKey.export({ type: 'pkcs8', format: 'pem' }));
  openssl(['req', '-new', '-x509', '-key', 'stranger.key', '-subj', '/CN=Dummy Certificate Name', '-days', '1',
    '-outform', 'der', '-out', 'stranger.der']);
  const wrong = await call('POST', '/certificates/merged/pending/merge?api-version=7.0',
    { x5c: [fs.readFileSync(path.join(dir, 'stranger.der')).toString('base64')] });
  assert.strictEqual(wrong.status, 400);
  assert.deepStrictEqual(wrong.json, { error: { code: 'BadParameter',
    message: "Public key from x509 certificate and key of this instance doesn't match" } });
  const garbage = await call('POST', '/certificates/merged/pending/merge?api-version=7.0', { x5c: ['AAAA'] });
  assert.strictEqual(garbage.status, 400);

  const leaf = issueFromCsr(create.json.csr);
  const ca = Buffer.from(openssl(['x509', '-in', 'ca.pem', '-outform', 'der']), 'latin1');
  const merge = await call('POST', '/certificates/merged/pending/merge?api-version=7.0',
    { x5c: [leaf.toString('base64'), ca.toString('base64')] });
  assert.strictEqual(merge.status, 201, merge.text);
  assert.strictEqual(merge.headers.location, `https://${host}/certificates/merged?api-version=7.0`);
  assert.strictEqual(merge.json.cer, leaf.toString('base64'));
  assert.strictEqual(merge.json.x5t, crypto.createHash('sha1').update(leaf).digest('base64url'));
  assert.deepStrictEqual(merge.json.pending, { id: `https://${host}/certificates/merged/pending` });
  const key = await call('GET', '/keys/merged?api-version=7.0');
  assert.strictEqual(key.json.managed, true);
  assert.ok(samePublicKey(keyOf(key.json.key), new crypto.X509Certificate(leaf).publicKey));
  assert.strictEqual((await call('GET', '/certificates/merged/pending?api-version=7.0')).json.status, 'completed');
  const late = await call('POST', '/certificates/merged/pending/merge?api-version=7.0', { x5c: [leaf.toString('base64')] });
  assert.deepStrictEqual(late.json, { error: { code: 'PendingCertificateNotFound', message: 'Pending certificate not found: merged' } });
  const listed = (await call('GET', '/certificates?api-version=2016-10-01')).json;
  const { enabled, nbf, exp, created, updated } = merge.json.attributes;
  assert.deepStrictEqual(listed, { value: [{ id: `https://${host}/certificates/merged`, x5t: merge.json.x5t,
    attributes: { enabled, nbf, exp, created, updated } }], nextLink: null });
});

test('a merge also takes x5c entries encoded twice, as one client sent them', async () => {
  const { call } = await freshVault();
  const create = await call('POST', '/certificates/twice/create?api-version=7.0',
    { policy: { x509_props: { subject: 'CN=MyCert', sans: {} }, issuer: { name: 'Unknown', cert_transparency: false } } });
  const leaf = issueFromCsr(create.json.csr);
  const r = await call('POST', '/certificates/twice/pending/merge?api-version=7.0',
    { x5c: [Buffer.from(leaf.toString('base64')).toString('base64')] });
  assert.strictEqual(r.status, 201, r.text);
  assert.deepStrictEqual(r.json.policy.issuer, { name: 'Unknown', cert_transparency: false });
  assert.deepStrictEqual(r.json.policy.x509_props.sans, {});
});

test('reuse_key keeps the key pair for the new version; without it the key is new', async () => {
  const { call } = await freshVault();
  await call('POST', '/certificates/renew/create?api-version=7.3', { policy: { x509_props: { subject: 'CN=renew' } } });
  const first = (await call('GET', '/keys/renew?api-version=7.3')).json.key;
  const reuse = await call('POST', '/certificates/renew/create?api-version=7.3',
    { policy: { key_props: { reuse_key: true }, issuer: { name: 'Unknown' } } });
  assert.ok(samePublicKey(readCsr(reuse.json.csr).publicKey, keyOf(first)), 'the request carries the current key');
  const leaf = issueFromCsr(reuse.json.csr);
  assert.strictEqual((await call('POST', '/certificates/renew/pending/merge?api-version=7.3', { x5c: [leaf.toString('base64')] })).status, 201);
  const second = (await call('GET', '/keys/renew?api-version=7.3')).json.key;
  assert.notStrictEqual(second.kid, first.kid);
  assert.strictEqual(second.n, first.n);
  const fresh = await call('POST', '/certificates/renew/create?api-version=7.3',
    { policy: { key_props: { reuse_key: false }, issuer: { name: 'Self' } } });
  assert.ok(!samePublicKey(readCsr(fresh.json.csr).publicKey, keyOf(first)));
  const third = (await call('GET', '/keys/renew?api-version=7.3')).json.key;
  assert.notStrictEqual(third.n, first.n);
  const versions = await call('GET', '/certificates/renew/versions?api-version=7.3');
  assert.strictEqual(versions.json.value.length, 3);
});

test('certificate keys follow the tier: -HSM is refused on standard vaults', async () => {
  const standard = await freshVault();
  const policy = JSON.parse(JSON.stringify(PROVIDER_POLICY));
  policy.key_props.kty = 'RSA-HSM';
  const r = await standard.call('POST', '/certificates/hsm/create?api-version=7.0', { policy });
  assert.strictEqual(r.status, 403);
  assert.deepStrictEqual(r.json, { error: { code: 'Forbidden', message: 'Hardware key operation not allowed on standard vault' } });
  policy.key_props.kty = 'EC-HSM';
  policy.key_props.crv = 'P-256';
  delete policy.key_props.key_size;
  const premium = await freshVault({ tier: 'premium' });
  assert.strictEqual((await premium.call('POST', '/certificates/hsm/create?api-version=7.0', { policy })).status, 202);
  assert.strictEqual((await premium.call('GET', '/keys/hsm?api-version=7.0')).json.key.kty, 'EC-HSM');
  const bad = await standard.call('POST', '/certificates/bad/create?api-version=7.0', { policy: { key_props: { kty: 'oct' } } });
  assert.strictEqual(bad.json.error.innererror.code, 'KeyTypeNotSupported');
  assert.strictEqual((await standard.call('POST', '/certificates/none/create?api-version=7.0', {})).status, 400);
});

test('certificatePolls keeps a self-issued operation in progress for that many polls', async () => {
  const { call } = await freshVault({ certificatePolls: 2 });
  await call('POST', '/certificates/slow/create?api-version=7.3', { policy: { x509_props: { subject: 'CN=slow' } } });
  const states = [];
  for (let i = 0; i < 3; i++) states.push((await call('GET', '/certificates/slow/pending?api-version=7.3')).json.status);
  assert.deepStrictEqual(states, ['inProgress', 'inProgress', 'completed']);
});

test('listing gives id and x5t; 7.3 adds tags and subject', async () => {
  const { host, call } = await freshVault();
  for (const n of ['b', 'a', 'C']) await ctl(em, 'POST', `/vaults/${host.split('.')[0]}/certificates`, { name: n, jwk: javaKey() });
  const old = (await call('GET', '/certificates?api-version=2016-10-01')).json;
  assert.deepStrictEqual(old.value.map((c) => c.id.split('/').pop()), ['a', 'b', 'C']);
  assert.deepStrictEqual(Object.keys(old.value[0]), ['id', 'x5t', 'attributes']);
  const newer = (await call('GET', '/certificates?api-version=7.3&maxresults=2')).json;
  assert.deepStrictEqual(Object.keys(newer.value[0]), ['id', 'x5t', 'attributes', 'tags', 'subject']);
  assert.match(newer.nextLink, new RegExp(`^https://${host}:443/certificates\\?api-version=7\\.3&\\$skiptoken=.+&maxresults=2$`));
});

test('delete, the deletion window, purge and recover for certificates', async () => {
  const { host, name, call } = await freshVault({ deleteWindowRequests: 2 });
  await call('POST', '/certificates/old/create?api-version=7.3', { policy: { x509_props: { subject: 'CN=old' } } });
  const del = await call('DELETE', '/certificates/old?api-version=7.3');
  assert.strictEqual(del.status, 200);
  assert.deepStrictEqual(Object.keys(del.json).slice(0, 4), ['recoveryId', 'deletedDate', 'scheduledPurgeDate', 'id']);
  assert.strictEqual(del.json.recoveryId, `https://${host}/deletedcertificates/old`);
  assert.strictEqual((await call('GET', '/keys/old?api-version=7.3')).status, 404, 'the key went with it');
  assert.strictEqual((await call('GET', '/certificates/old?api-version=7.3')).status, 404);
  const lookup = await call('GET', '/deletedcertificates/old?api-version=7.3');
  assert.deepStrictEqual(lookup.json, { error: { code: 'CertificateNotFound', message: 'Deleted Certificate not found: old' } });
  const purge = await call('DELETE', '/deletedcertificates/old?api-version=7.0');
  assert.strictEqual(purge.status, 409);
  assert.strictEqual(purge.json.error.innererror.code, 'ObjectIsBeingDeleted');
  const create = await call('POST', '/certificates/old/create?api-version=7.0', { policy: PROVIDER_POLICY });
  assert.strictEqual(create.status, 409);
  assert.strictEqual(create.json.error.innererror.code, 'ObjectIsDeletedButRecoverable');
  assert.match(create.json.error.message, /^Certificate old is currently in a deleted but recoverable state/);
  const keyCreate = await call('POST', '/keys/old/create?api-version=7.0', { kty: 'EC' });
  assert.strictEqual(keyCreate.status, 409, 'the certificate key holds the name in the keys collection too');
  const recovered = await call('POST', '/deletedcertificates/old/recover?api-version=7.3');
  assert.strictEqual(recovered.status, 200);
  assert.strictEqual((await call('GET', '/keys/old?api-version=7.3')).json.managed, true);
  await ctl(em, 'PUT', `/vaults/${name}`, { deleteWindowRequests: 0 });
  await call('DELETE', '/certificates/old?api-version=7.3');
  const listed = await call('GET', '/deletedcertificates?api-version=7.3');
  assert.deepStrictEqual(listed.json.value.map((c) => c.recoveryId), [`https://${host}/deletedcertificates/old`]);
  assert.strictEqual((await call('DELETE', '/deletedcertificates/old?api-version=7.0')).status, 204);
  assert.deepStrictEqual((await ctl(em, 'GET', `/vaults/${name}`)).json.deletedCertificates, []);
  assert.strictEqual((await call('DELETE', '/certificates/old?api-version=7.3')).status, 404);
});

test('a certificate key is changed through its certificate, and a plain key blocks the name', async () => {
  const { call } = await freshVault();
  await call('POST', '/certificates/owned/create?api-version=7.3', { policy: { x509_props: { subject: 'CN=owned' } } });
  assert.strictEqual((await call('DELETE', '/keys/owned?api-version=7.3')).status, 403);
  assert.strictEqual((await call('POST', '/keys/owned/create?api-version=7.3', { kty: 'EC' })).status, 409);
  await call('POST', '/keys/plain/create?api-version=7.3', { kty: 'EC' });
  assert.strictEqual((await call('POST', '/certificates/plain/create?api-version=7.3', { policy: PROVIDER_POLICY })).status, 409);
});

test('seeding: from a JWK, a given certificate, or left pending', async () => {
  const { name, host, call } = await freshVault();
  const seeded = await ctl(em, 'POST', `/vaults/${name}/certificates`,
    { name: 'fromjwk', jwk: javaKey(), subject: 'CN=seeded, O=Kestal', validity_months: 24, tags: { a: '1' } });
  assert.strictEqual(seeded.status, 200, seeded.text);
  const cert = new crypto.X509Certificate(Buffer.from(seeded.json.cer, 'base64'));
  assert.strictEqual(cert.subject, 'O=Kestal\nCN=seeded');
  assert.ok(samePublicKey(cert.publicKey, keyOf(javaKey())));
  const got = await call('GET', '/certificates/fromjwk?api-version=7.3');
  assert.strictEqual(got.json.x5t, seeded.json.x5t);

  const again = await ctl(em, 'POST', `/vaults/${name}/certificates`, { name: 'given', jwk: javaKey(), cer: seeded.json.cer });
  assert.strictEqual(again.json.x5t, seeded.json.x5t);
  const digest = crypto.createHash('sha256').update('m').digest('base64url');
  const signed = await call('POST', '/keys/given//sign?api-version=7.3', { alg: 'RS256', value: digest });
  assert.strictEqual(signed.status, 200, 'the seeded key signs');

  const publicOnly = await ctl(em, 'POST', `/vaults/${name}/certificates`, { name: 'certonly', cer: seeded.json.cer });
  assert.strictEqual(publicOnly.status, 200, publicOnly.text);
  assert.strictEqual((await call('POST', '/keys/certonly//sign?api-version=7.3', { alg: 'RS256', value: digest })).status, 400);

  const pending = await ctl(em, 'POST', `/vaults/${name}/certificates`, { name: 'waiting', pending: true, kty: 'EC', crv: 'P-256' });
  assert.strictEqual(pending.json.status, 'inProgress');
  assert.strictEqual(pending.json.id, `https://${host}/certificates/waiting/pending`);
  const leaf = issueFromCsr(pending.json.csr);
  assert.strictEqual((await call('POST', '/certificates/waiting/pending/merge?api-version=7.3', { x5c: [leaf.toString('base64')] })).status, 201);

  for (const bad of [{ name: 'x', cer: 'AAAA' }, { name: 'bad_name' }, { name: 'y', jwk: { kty: 'RSA' } },
    { name: 'z', cer: seeded.json.cer, jwk: (() => { const k = javaKey(); k.e = 'Aw'; return k; })() }]) {
    const r = await ctl(em, 'POST', `/vaults/${name}/certificates`, bad);
    assert.strictEqual(r.status, 400, JSON.stringify(bad));
  }
});
