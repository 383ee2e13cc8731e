'use strict';
// Key records of a vault: real key pairs (or public keys seeded from a
// JWK), their versions, and the JSON shapes the service gives them
// (KeyBundle, KeyItem, DeletedKeyBundle, DeletedKeyItem).
const crypto = require('crypto');
const { promisify } = require('util');
const { hex32, nowSeconds, fromB64url } = require('./util');

const generateKeyPair = promisify(crypto.generateKeyPair);

// Vault curve name -> OpenSSL curve name, JWK curve name as Node reads it.
const CURVES = {
  'P-256': { openssl: 'prime256v1', jwk: 'P-256', bytes: 32 },
  'P-384': { openssl: 'secp384r1', jwk: 'P-384', bytes: 48 },
  'P-521': { openssl: 'secp521r1', jwk: 'P-521', bytes: 66 },
  'P-256K': { openssl: 'secp256k1', jwk: 'secp256k1', bytes: 32 },
};
// 2016-10-01 spelled P-256K this way; JWKs from other tools use the last one.
const CURVE_ALIASES = { SECP256K1: 'P-256K', secp256k1: 'P-256K' };
const KTYS = ['RSA', 'RSA-HSM', 'EC', 'EC-HSM'];
const RSA_SIZES = [2048, 3072, 4096];
const RSA_OPS = ['encrypt', 'decrypt', 'sign', 'verify', 'wrapKey', 'unwrapKey'];
const EC_OPS = ['sign', 'verify'];
const ALL_OPS = ['encrypt', 'decrypt', 'sign', 'verify', 'wrapKey', 'unwrapKey', 'import', 'export'];
const NAME = /^[0-9a-zA-Z-]{1,127}$/;

function validName(name) {
  return typeof name === 'string' && NAME.test(name);
}

const isRsa = (kty) => kty === 'RSA' || kty === 'RSA-HSM';
const isHsm = (kty) => typeof kty === 'string' && kty.endsWith('-HSM');

function curveName(crv) {
  if (typeof crv !== 'string') return null;
  const name = CURVE_ALIASES[crv] || crv;
  return CURVES[name] ? name : null;
}

// key_size arrives as a number or, from some clients, as a decimal string.
function keySize(value) {
  if (typeof value === 'number') return Number.isInteger(value) ? value : NaN;
  if (typeof value === 'string' && /^\d+$/.test(value)) return Number(value);
  return NaN;
}

// The control API's check of a key request; answers an error text or null.
function checkRequest(wanted) {
  if (!wanted || !validName(wanted.name)) return 'name must match ^[0-9a-zA-Z-]{1,127}$';
  if (wanted.key_ops !== undefined && !validOps(wanted.key_ops)) return 'key_ops must be an array of key operations';
  if (wanted.jwk !== undefined) {
    if (!wanted.jwk || typeof wanted.jwk !== 'object') return 'jwk must be an object';
    return null;
  }
  const kty = wanted.kty || 'RSA';
  if (!KTYS.includes(kty)) return `unsupported kty ${kty}`;
  if (isRsa(kty) && wanted.key_size !== undefined && !RSA_SIZES.includes(keySize(wanted.key_size))) {
    return `unsupported key_size ${wanted.key_size}`;
  }
  if (!isRsa(kty) && wanted.crv !== undefined && !curveName(wanted.crv)) return `unsupported crv ${wanted.crv}`;
  return null;
}

// A version id the control API may choose, for fixed key identifiers.
function checkVersion(vault, wanted) {
  if (wanted.version === undefined) return null;
  if (typeof wanted.version !== 'string' || !/^[0-9a-f]{32}$/.test(wanted.version)) return 'version must be 32 lower-case hex digits';
  const record = findKey(vault, wanted.name);
  if (record && record.versions.some((v) => v.version === wanted.version)) return 'that version exists already';
  return null;
}

function validOps(ops) {
  return Array.isArray(ops) && ops.every((o) => ALL_OPS.includes(o));
}

function publicMembers(kty, publicKey, crv) {
  const jwk = publicKey.export({ format: 'jwk' });
  return isRsa(kty) ? { n: jwk.n, e: jwk.e } : { crv, x: jwk.x, y: jwk.y };
}

// New key material: {kty, privateKey, publicKey, pub, ops}.
async function makeMaterial({ kty = 'RSA', key_size: size, crv }) {
  if (isRsa(kty)) {
    const pair = await generateKeyPair('rsa', { modulusLength: size === undefined ? 2048 : keySize(size) });
    return { kty, privateKey: pair.privateKey, publicKey: pair.publicKey, pub: publicMembers(kty, pair.publicKey), ops: RSA_OPS };
  }
  const name = curveName(crv || 'P-256');
  const pair = await generateKeyPair('ec', { namedCurve: CURVES[name].openssl });
  return { kty, privateKey: pair.privateKey, publicKey: pair.publicKey, pub: publicMembers(kty, pair.publicKey, name), ops: EC_OPS };
}

// Material from a given pair of KeyObjects (certificate keys).
function materialFromKeys(kty, privateKey, publicKey) {
  const details = publicKey.asymmetricKeyDetails;
  let crv;
  if (!isRsa(kty)) {
    crv = Object.keys(CURVES).find((c) => CURVES[c].openssl === details.namedCurve);
  }
  return { kty, privateKey, publicKey, pub: publicMembers(kty, publicKey, crv), ops: isRsa(kty) ? RSA_OPS : EC_OPS };
}

class JwkError extends Error {}

const B64URL = /^[A-Za-z0-9_-]*$/;

// Material from a JSON Web Key, with or without its private members. The
// public members are kept as given, as the service echoes them.
function materialFromJwk(jwk) {
  const kty = jwk.kty;
  if (!KTYS.includes(kty)) throw new JwkError(`Invalid kty value: ${kty}`);
  const members = isRsa(kty) ? ['n', 'e', 'd', 'p', 'q', 'dp', 'dq', 'qi'] : ['x', 'y', 'd'];
  for (const m of members) {
    if (jwk[m] !== undefined && (typeof jwk[m] !== 'string' || !B64URL.test(jwk[m]))) {
      throw new JwkError(`JWK member ${m} is not base64url`);
    }
  }
  let nodeJwk;
  let crv;
  if (isRsa(kty)) {
    if (!jwk.n || !jwk.e) throw new JwkError('an RSA key needs n and e');
    nodeJwk = { kty: 'RSA', n: strip(jwk.n), e: strip(jwk.e) };
    if (jwk.d) {
      for (const m of ['p', 'q', 'dp', 'dq', 'qi']) {
        if (!jwk[m]) throw new JwkError(`an RSA private key needs ${m}`);
      }
      Object.assign(nodeJwk, {
        d: strip(jwk.d), p: strip(jwk.p), q: strip(jwk.q), dp: strip(jwk.dp), dq: strip(jwk.dq), qi: strip(jwk.qi),
      });
    }
  } else {
    crv = curveName(jwk.crv);
    if (!crv) throw new JwkError(`Invalid crv value: ${jwk.crv}`);
    if (!jwk.x || !jwk.y) throw new JwkError('an EC key needs x and y');
    const size = CURVES[crv].bytes;
    nodeJwk = { kty: 'EC', crv: CURVES[crv].jwk, x: fixed(jwk.x, size), y: fixed(jwk.y, size) };
    if (jwk.d) nodeJwk.d = fixed(jwk.d, size);
  }
  let privateKey = null;
  let publicKey;
  try {
    if (nodeJwk.d) {
      privateKey = crypto.createPrivateKey({ key: nodeJwk, format: 'jwk' });
      publicKey = crypto.createPublicKey(privateKey);
    } else {
      publicKey = crypto.createPublicKey({ key: nodeJwk, format: 'jwk' });
    }
  } catch (e) {
    throw new JwkError(`the key is not valid: ${e.message}`);
  }
  const pub = isRsa(kty) ? { n: jwk.n, e: jwk.e } : { crv, x: jwk.x, y: jwk.y };
  return { kty, privateKey, publicKey, pub, ops: isRsa(kty) ? RSA_OPS : EC_OPS };
}

// Integers in a JWK may carry leading zero bytes; OpenSSL wants them without.
function strip(b64) {
  const bytes = fromB64url(b64);
  let i = 0;
  while (i < bytes.length - 1 && bytes[i] === 0) i++;
  return bytes.subarray(i).toString('base64url');
}

function fixed(b64, size) {
  const bytes = fromB64url(b64);
  if (bytes.length === size) return b64;
  let i = 0;
  while (i < bytes.length - size && bytes[i] === 0) i++;
  const trimmed = bytes.subarray(i);
  if (trimmed.length > size) throw new JwkError('a coordinate is too long for the curve');
  return Buffer.concat([Buffer.alloc(size - trimmed.length), trimmed]).toString('base64url');
}

function attributesOf(given, now) {
  const g = given && typeof given === 'object' ? given : {};
  const a = { enabled: g.enabled === undefined ? true : Boolean(g.enabled) };
  if (Number.isInteger(g.nbf)) a.nbf = g.nbf;
  if (Number.isInteger(g.exp)) a.exp = g.exp;
  a.created = now;
  a.updated = now;
  return a;
}

// Adds a version made of `material` to the named key (creating the key);
// answers the version record. opts: {key_ops, attributes, tags, managed, version}.
function addVersion(vault, name, material, opts = {}) {
  const version = {
    version: opts.version || hex32(),
    kty: material.kty,
    privateKey: material.privateKey,
    publicKey: material.publicKey,
    pub: material.pub,
    keyOps: Array.isArray(opts.key_ops) ? opts.key_ops.slice() : material.ops.slice(),
    attributes: attributesOf(opts.attributes, nowSeconds()),
    tags: opts.tags && typeof opts.tags === 'object' && !Array.isArray(opts.tags) ? Object.assign({}, opts.tags) : undefined,
    managed: opts.managed ? true : undefined,
  };
  const id = name.toLowerCase();
  const record = vault.keys.get(id) || { name, versions: [] };
  record.versions.push(version);
  vault.keys.set(id, record);
  return version;
}

// The control API's way in: new material or a JWK, then a new version.
async function addKey(vault, wanted) {
  const material = wanted.jwk !== undefined ? materialFromJwk(wanted.jwk) : await makeMaterial(wanted);
  return addVersion(vault, wanted.name, material, wanted);
}

function findKey(vault, name) {
  return vault.keys.get(name.toLowerCase()) || null;
}

function findVersion(record, version) {
  if (!version) return record.versions[record.versions.length - 1];
  return record.versions.find((v) => v.version === version.toLowerCase()) || null;
}

function versionNumber(apiVersion) {
  const m = /^(\d+)\.(\d+)/.exec(apiVersion || '');
  if (!m) return /^\d{4}-/.test(apiVersion || '') ? 0 : 99;
  return Number(m[1]) + Number(m[2]) / 10;
}

// recoverableDays appeared with api-version 7.1.
function hasRecoverableDays(apiVersion) {
  return versionNumber(apiVersion) >= 7.1;
}

function recoveryLevel(vault) {
  return vault.recoverableDays === 90 ? 'Recoverable+Purgeable' : 'CustomizedRecoverable+Purgeable';
}

// Attributes as the service writes them for this api-version. `extra` adds
// members the service writes only on full bundles.
function attributesFor(vault, attributes, apiVersion, { bundle = false } = {}) {
  const a = Object.assign({}, attributes);
  a.recoveryLevel = recoveryLevel(vault);
  if (hasRecoverableDays(apiVersion)) a.recoverableDays = vault.recoverableDays;
  if (bundle && versionNumber(apiVersion) >= 7.4) a.exportable = false;
  return a;
}

const keyId = (base, record, v) => `${base}/keys/${record.name}/${v.version}`;

function jwkOf(base, record, v) {
  return Object.assign({ kid: keyId(base, record, v), kty: v.kty, key_ops: v.keyOps }, v.pub);
}

// base: "https://<vault host>"
function bundle(base, vault, record, v, apiVersion) {
  const out = { key: jwkOf(base, record, v), attributes: attributesFor(vault, v.attributes, apiVersion, { bundle: true }) };
  if (v.tags) out.tags = v.tags;
  if (v.managed) out.managed = true;
  return out;
}

function item(base, vault, record, apiVersion) {
  const v = findVersion(record, null);
  const out = { kid: `${base}/keys/${record.name}`, attributes: attributesFor(vault, v.attributes, apiVersion) };
  if (v.tags) out.tags = v.tags;
  if (v.managed) out.managed = true;
  return out;
}

function versionItem(base, vault, record, v, apiVersion) {
  const out = { kid: keyId(base, record, v), attributes: attributesFor(vault, v.attributes, apiVersion) };
  if (v.tags) out.tags = v.tags;
  if (v.managed) out.managed = true;
  return out;
}

function deletedHead(base, entry) {
  return {
    recoveryId: `${base}/deletedkeys/${entry.record.name}`,
    deletedDate: entry.deletedDate,
    scheduledPurgeDate: entry.scheduledPurgeDate,
  };
}

function deletedBundle(base, vault, entry, apiVersion) {
  const v = findVersion(entry.record, null);
  return Object.assign(deletedHead(base, entry), bundle(base, vault, entry.record, v, apiVersion));
}

function deletedItem(base, vault, entry, apiVersion) {
  return Object.assign(deletedHead(base, entry), item(base, vault, entry.record, apiVersion));
}

// Listing order is the service's: names compared upper-cased.
function byUpperName(records) {
  return records
    .map((r) => ({ upper: r.name.toUpperCase(), record: r }))
    .sort((a, b) => (a.upper < b.upper ? -1 : a.upper > b.upper ? 1 : 0));
}

function sortedKeys(vault) {
  return byUpperName(Array.from(vault.keys.values()));
}

module.exports = {
  CURVES, KTYS, RSA_SIZES, RSA_OPS, EC_OPS, ALL_OPS, isRsa, isHsm, curveName, keySize, validOps,
  checkRequest, checkVersion, makeMaterial, materialFromKeys, materialFromJwk, JwkError, addVersion, addKey,
  findKey, findVersion, versionNumber, hasRecoverableDays, attributesFor, recoveryLevel,
  bundle, item, versionItem, deletedBundle, deletedItem, byUpperName, sortedKeys, validName,
};
