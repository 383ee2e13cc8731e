'use strict';
// Key records of a vault: real key pairs, their versions and the JSON
// shapes the service gives them (KeyBundle, KeyItem).
const crypto = require('crypto');
const { promisify } = require('util');
const { hex32, nowSeconds } = require('./util');

const generateKeyPair = promisify(crypto.generateKeyPair);

const CURVES = { 'P-256': 'prime256v1', 'P-384': 'secp384r1', 'P-521': 'secp521r1', 'P-256K': 'secp256k1' };
const RSA_SIZES = [2048, 3072, 4096];
const RSA_OPS = ['encrypt', 'decrypt', 'sign', 'verify', 'wrapKey', 'unwrapKey'];
const EC_OPS = ['sign', 'verify'];
const NAME = /^[0-9a-zA-Z-]{1,127}$/;

function validName(name) {
  return typeof name === 'string' && NAME.test(name);
}

// Checks a key request; answers an error text or null.
function checkRequest(wanted) {
  if (!wanted || !validName(wanted.name)) return 'name must match ^[0-9a-zA-Z-]{1,127}$';
  const kty = wanted.kty || 'RSA';
  if (!['RSA', 'RSA-HSM', 'EC', 'EC-HSM'].includes(kty)) return `unsupported kty ${kty}`;
  if (kty.startsWith('RSA') && wanted.key_size !== undefined && !RSA_SIZES.includes(wanted.key_size)) {
    return `unsupported key_size ${wanted.key_size}`;
  }
  if (kty.startsWith('EC') && wanted.crv !== undefined && !CURVES[wanted.crv]) return `unsupported crv ${wanted.crv}`;
  return null;
}

async function makeMaterial(wanted) {
  const kty = wanted.kty || 'RSA';
  if (kty.startsWith('RSA')) {
    const pair = await generateKeyPair('rsa', { modulusLength: wanted.key_size || 2048 });
    const jwk = pair.publicKey.export({ format: 'jwk' });
    return { kty, privateKey: pair.privateKey, pub: { n: jwk.n, e: jwk.e }, ops: RSA_OPS };
  }
  const crv = wanted.crv || 'P-256';
  const pair = await generateKeyPair('ec', { namedCurve: CURVES[crv] });
  const jwk = pair.publicKey.export({ format: 'jwk' });
  return { kty, privateKey: pair.privateKey, pub: { crv, x: jwk.x, y: jwk.y }, ops: EC_OPS };
}

function attributesOf(wanted, now) {
  const given = wanted.attributes || {};
  const a = { enabled: given.enabled === undefined ? true : Boolean(given.enabled) };
  if (given.nbf !== undefined) a.nbf = given.nbf;
  if (given.exp !== undefined) a.exp = given.exp;
  a.created = now;
  a.updated = now;
  a.recoveryLevel = 'Recoverable+Purgeable';
  a.recoverableDays = 90;
  return a;
}

// Adds a key, or a new version of it; answers the new version record.
async function addKey(vault, wanted) {
  const material = await makeMaterial(wanted);
  const version = {
    version: hex32(),
    kty: material.kty,
    privateKey: material.privateKey,
    pub: material.pub,
    keyOps: Array.isArray(wanted.key_ops) ? wanted.key_ops.slice() : material.ops.slice(),
    attributes: attributesOf(wanted, nowSeconds()),
    tags: wanted.tags && typeof wanted.tags === 'object' ? Object.assign({}, wanted.tags) : undefined,
    managed: wanted.managed ? true : undefined,
  };
  const id = wanted.name.toLowerCase();
  const record = vault.keys.get(id) || { name: wanted.name, versions: [] };
  record.versions.push(version);
  vault.keys.set(id, record);
  return version;
}

function findKey(vault, name) {
  return vault.keys.get(name.toLowerCase()) || null;
}

function findVersion(record, version) {
  if (!version) return record.versions[record.versions.length - 1];
  return record.versions.find((v) => v.version === version.toLowerCase()) || null;
}

// recoverableDays appeared with api-version 7.1.
function hasRecoverableDays(apiVersion) {
  const m = /^(\d+)\.(\d+)/.exec(apiVersion || '');
  if (!m) return !/^\d{4}-/.test(apiVersion || '');
  return Number(m[1]) > 7 || (Number(m[1]) === 7 && Number(m[2]) >= 1);
}

function attributesFor(v, apiVersion) {
  const a = Object.assign({}, v.attributes);
  if (!hasRecoverableDays(apiVersion)) delete a.recoverableDays;
  return a;
}

// kidBase: "https://<vault host>"
function bundle(kidBase, record, v, apiVersion) {
  const out = {
    key: Object.assign({ kid: `${kidBase}/keys/${record.name}/${v.version}`, kty: v.kty, key_ops: v.keyOps }, v.pub),
    attributes: attributesFor(v, apiVersion),
  };
  if (v.tags) out.tags = v.tags;
  if (v.managed) out.managed = true;
  return out;
}

function item(kidBase, record, apiVersion) {
  const v = findVersion(record, null);
  const out = { kid: `${kidBase}/keys/${record.name}`, attributes: attributesFor(v, apiVersion) };
  if (v.tags) out.tags = v.tags;
  if (v.managed) out.managed = true;
  return out;
}

// Listing order is the service's: names compared upper-cased.
function sortedKeys(vault) {
  return Array.from(vault.keys.values())
    .map((r) => ({ upper: r.name.toUpperCase(), record: r }))
    .sort((a, b) => (a.upper < b.upper ? -1 : a.upper > b.upper ? 1 : 0));
}

module.exports = {
  checkRequest, addKey, findKey, findVersion, bundle, item, sortedKeys, validName, hasRecoverableDays,
};
