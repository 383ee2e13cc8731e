'use strict';
// Key Vault data plane, keys collection: listing, lookup, versions,
// create, import, update, delete, backup and restore. Key operations
// (sign, encrypt, ...) are in cryptography.js, deleted keys in deleted.js.
const crypto = require('crypto');
const { b64url } = require('./util');
const http = require('./vaulthttp');
const keystore = require('./keystore');
const listing = require('./listing');
const deleted = require('./deleted');
const cryptography = require('./cryptography');

const HSM_REFUSAL = 'Hardware key operation not allowed on standard vault';
const BACKUP_HEAD = '&AzureKeyVaultKeyBackupV1.microsoft.com';

function badName(ctx, name) {
  if (keystore.validName(name)) return false;
  http.badParameter(ctx, `The request URI contains an invalid name: ${name}`);
  return true;
}

function lookup(ctx, name, version) {
  const record = keystore.findKey(ctx.vault, name);
  const v = record && keystore.findVersion(record, version);
  if (!v) {
    http.notFound(ctx, 'key', version ? `${name}/${version}` : name);
    return null;
  }
  return { record, v };
}

function listKeys(ctx) {
  const live = Array.from(ctx.vault.keys.values());
  const gone = Array.from(ctx.vault.deletedKeys.values()).map((e) => e.record);
  const entries = keystore.byUpperName(live.concat(gone))
    .map((e) => (live.includes(e.record) ? e : Object.assign(e, { hidden: true })));
  listing.list(ctx, {
    entries, path: '/keys', prefix: 'key/',
    toItem: (record) => keystore.item(ctx.base, ctx.vault, record, ctx.apiVersion),
  });
}

function listVersions(ctx, name) {
  const found = lookup(ctx, name, '');
  if (!found) return;
  const entries = found.record.versions
    .map((v) => ({ upper: v.version.toUpperCase(), record: v }))
    .sort((a, b) => (a.upper < b.upper ? -1 : 1));
  listing.list(ctx, {
    entries, path: `/keys/${found.record.name}/versions`, prefix: `key/${found.record.name.toUpperCase()}/`,
    toItem: (v) => keystore.versionItem(ctx.base, ctx.vault, found.record, v, ctx.apiVersion),
  });
}

function getKey(ctx, name, version) {
  const found = lookup(ctx, name, version);
  if (found) http.answer(ctx, 200, keystore.bundle(ctx.base, ctx.vault, found.record, found.v, ctx.apiVersion));
}

// A key that backs a certificate is changed through the certificate.
function refuseManaged(ctx, name) {
  const record = keystore.findKey(ctx.vault, name);
  const managed = (record && keystore.findVersion(record, null).managed) || ctx.vault.certificates.has(name.toLowerCase());
  if (!managed) return false;
  http.conflict(ctx, `Key ${name} is managed by certificate ${name}; use the certificate to change it.`);
  return true;
}

// The checks of a create or import request; answers true after refusing.
function refuseKeyType(ctx, kty) {
  if (typeof kty !== 'string' || !kty) {
    http.badParameter(ctx, "Property 'kty' is required.\r\n");
    return true;
  }
  if (!keystore.KTYS.includes(kty)) {
    http.badParameter(ctx, `Invalid kty value: ${kty}`, 'KeyTypeNotSupported');
    return true;
  }
  if (ctx.hsm && !keystore.isHsm(kty)) {
    http.badParameter(ctx, `Invalid kty value: ${kty}. Managed HSM holds HSM keys only.`, 'KeyTypeNotSupported');
    return true;
  }
  if (keystore.isHsm(kty) && !ctx.hsm && ctx.vault.tier !== 'premium') {
    http.forbidden(ctx, HSM_REFUSAL);
    return true;
  }
  return false;
}

function refuseOpsAndTags(ctx, body) {
  if (body.key_ops !== undefined && !keystore.validOps(body.key_ops)) {
    http.badParameter(ctx, "Property 'key_ops' has an invalid value.");
    return true;
  }
  if (body.tags !== undefined && (body.tags === null || typeof body.tags !== 'object' || Array.isArray(body.tags))) {
    http.badParameter(ctx, "Property 'tags' has an invalid value.");
    return true;
  }
  return false;
}

async function createKey(ctx, name) {
  const body = http.jsonBody(ctx);
  if (!body) return;
  const kty = body.kty;
  if (refuseKeyType(ctx, kty)) return;
  if (keystore.isRsa(kty) && body.key_size !== undefined && !keystore.RSA_SIZES.includes(keystore.keySize(body.key_size))) {
    http.badParameter(ctx, `Invalid key_size value: ${JSON.stringify(body.key_size)}`);
    return;
  }
  if (!keystore.isRsa(kty) && body.crv !== undefined && !keystore.curveName(body.crv)) {
    http.badParameter(ctx, `Invalid crv value: ${JSON.stringify(body.crv)}`);
    return;
  }
  if (refuseOpsAndTags(ctx, body)) return;
  if (deleted.refuseDeletedName(ctx, 'key', name)) return;
  if (refuseManaged(ctx, name)) return;
  const material = await keystore.makeMaterial({ kty, key_size: body.key_size, crv: body.crv });
  const record = keystore.findKey(ctx.vault, name);
  const v = keystore.addVersion(ctx.vault, record ? record.name : name, material,
    { key_ops: body.key_ops, attributes: body.attributes, tags: body.tags });
  http.answer(ctx, 200, keystore.bundle(ctx.base, ctx.vault, keystore.findKey(ctx.vault, name), v, ctx.apiVersion));
}

// PUT /keys/{name}: import a key given as a JWK with its private members.
function importKey(ctx, name) {
  const body = http.jsonBody(ctx);
  if (!body) return;
  const jwk = body.key;
  if (!jwk || typeof jwk !== 'object') {
    http.badParameter(ctx, "Property 'key' is required.\r\n");
    return;
  }
  const kty = body.Hsm === true && typeof jwk.kty === 'string' && !keystore.isHsm(jwk.kty) ? `${jwk.kty}-HSM` : jwk.kty;
  if (refuseKeyType(ctx, kty)) return;
  if (!jwk.d) {
    http.badParameter(ctx, 'The key to import has no private part.');
    return;
  }
  let material;
  try {
    material = keystore.materialFromJwk(Object.assign({}, jwk, { kty }));
  } catch (e) {
    http.badParameter(ctx, e.message);
    return;
  }
  const ops = Array.isArray(jwk.key_ops) ? jwk.key_ops : body.key_ops;
  if (refuseOpsAndTags(ctx, { key_ops: ops, tags: body.tags })) return;
  if (deleted.refuseDeletedName(ctx, 'key', name)) return;
  if (refuseManaged(ctx, name)) return;
  const record = keystore.findKey(ctx.vault, name);
  const v = keystore.addVersion(ctx.vault, record ? record.name : name, material,
    { key_ops: ops, attributes: body.attributes, tags: body.tags });
  http.answer(ctx, 200, keystore.bundle(ctx.base, ctx.vault, keystore.findKey(ctx.vault, name), v, ctx.apiVersion));
}

// PATCH /keys/{name}[/{version}]: key_ops, attributes and tags.
function updateKey(ctx, name, version) {
  const body = http.jsonBody(ctx);
  if (!body) return;
  const found = lookup(ctx, name, version);
  if (!found) return;
  if (refuseOpsAndTags(ctx, body)) return;
  const { v } = found;
  if (body.key_ops !== undefined) v.keyOps = body.key_ops.slice();
  if (body.tags !== undefined) v.tags = Object.assign({}, body.tags);
  const a = body.attributes && typeof body.attributes === 'object' ? body.attributes : {};
  if (a.enabled !== undefined) v.attributes.enabled = Boolean(a.enabled);
  for (const t of ['nbf', 'exp']) {
    if (a[t] === null) delete v.attributes[t];
    else if (Number.isInteger(a[t])) v.attributes[t] = a[t];
  }
  // Keep the service's member order: enabled, nbf, exp, created, updated.
  const { enabled, nbf, exp, created } = v.attributes;
  v.attributes = { enabled };
  if (nbf !== undefined) v.attributes.nbf = nbf;
  if (exp !== undefined) v.attributes.exp = exp;
  v.attributes.created = created;
  v.attributes.updated = Math.floor(Date.now() / 1000);
  http.answer(ctx, 200, keystore.bundle(ctx.base, ctx.vault, found.record, v, ctx.apiVersion));
}

function deleteKey(ctx, name) {
  const found = lookup(ctx, name, '');
  if (!found) return;
  if (found.v.managed) {
    http.forbidden(ctx, `Key ${name} is managed by a certificate; delete the certificate instead.`);
    return;
  }
  ctx.vault.keys.delete(name.toLowerCase());
  const entry = deleted.softDelete(ctx.vault, 'key', found.record);
  http.answer(ctx, 200, keystore.deletedBundle(ctx.base, ctx.vault, entry, ctx.apiVersion));
}

function backupKey(ctx, name) {
  const found = lookup(ctx, name, '');
  if (!found) return;
  const blob = b64url(Buffer.concat([Buffer.from(BACKUP_HEAD), crypto.randomBytes(48)]));
  ctx.store.state.backups.set(blob, found.record);
  http.answer(ctx, 200, { value: blob });
}

function restoreKey(ctx) {
  const body = http.jsonBody(ctx);
  if (!body) return;
  const record = typeof body.value === 'string' ? ctx.store.state.backups.get(body.value.replace(/=+$/, '')) : null;
  if (!record) {
    http.badParameter(ctx, 'Backup blob contains invalid or corrupt version.');
    return;
  }
  if (keystore.findKey(ctx.vault, record.name)) {
    http.conflict(ctx, `Key ${record.name} already exists.`);
    return;
  }
  if (deleted.refuseDeletedName(ctx, 'key', record.name)) return;
  ctx.vault.keys.set(record.name.toLowerCase(), record);
  const v = keystore.findVersion(record, null);
  http.answer(ctx, 200, keystore.bundle(ctx.base, ctx.vault, record, v, ctx.apiVersion));
}

function notSupported(ctx) {
  http.answer(ctx, 405, http.kvError('BadParameter', `Operation ${ctx.req.method} ${ctx.path} is not supported.`));
}

// rest: the path segments after "keys", trailing empty ones removed; an
// empty version segment means the latest version, as in "/keys/name//sign".
async function route(ctx, rest) {
  const method = ctx.req.method;
  if (rest.length === 0) return method === 'GET' ? listKeys(ctx) : notSupported(ctx);
  if (rest.length === 1 && rest[0].toLowerCase() === 'restore' && method === 'POST') return restoreKey(ctx);
  const name = rest[0];
  if (badName(ctx, name)) return undefined;
  if (rest.length === 1) {
    if (method === 'GET') return getKey(ctx, name, '');
    if (method === 'PUT') return importKey(ctx, name);
    if (method === 'PATCH') return updateKey(ctx, name, '');
    if (method === 'DELETE') return deleteKey(ctx, name);
    return notSupported(ctx);
  }
  if (rest.length === 2) {
    const second = rest[1].toLowerCase();
    if (method === 'POST' && second === 'create') return createKey(ctx, name);
    if (method === 'POST' && second === 'backup') return backupKey(ctx, name);
    if (method === 'GET' && second === 'versions') return listVersions(ctx, name);
    if (method === 'GET') return getKey(ctx, name, rest[1]);
    if (method === 'PATCH') return updateKey(ctx, name, rest[1]);
    return notSupported(ctx);
  }
  if (rest.length === 3 && method === 'POST' && cryptography.ACTIONS[rest[2].toLowerCase()]) {
    const found = lookup(ctx, name, rest[1]);
    if (found) cryptography.operate(ctx, found.record, found.v, rest[2]);
    return undefined;
  }
  return notSupported(ctx);
}

module.exports = { route, HSM_REFUSAL };
