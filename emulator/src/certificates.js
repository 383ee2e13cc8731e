'use strict';
// Key Vault data plane, certificates collection: listing, lookup, the
// policy, create with its pending operation, merge, and delete. Deleted
// certificates are in deleted.js.
//
// A create makes a real key pair and a PKCS#10 request in a pending
// operation. A self-issued certificate ("Self", the default issuer) is
// signed here with its own key at once; any other issuer leaves the
// operation waiting for a merge of a certificate for the pending key.
// Completion adds a certificate version and, under the same name and
// version, a managed key in the keys collection.
const { hex32, nowSeconds, b64url } = require('./util');
const http = require('./vaulthttp');
const keystore = require('./keystore');
const certstore = require('./certstore');
const x509 = require('./x509');
const listing = require('./listing');
const deleted = require('./deleted');
const { HSM_REFUSAL } = require('./keys');

const CODES = { 400: 'BadParameter', 403: 'Forbidden', 404: 'NotFound', 409: 'Conflict' };

class CertError extends Error {
  constructor(status, message, inner, code) {
    super(message);
    this.status = status;
    this.inner = inner;
    this.code = code || CODES[status];
  }
}

function refuse(ctx, e) {
  if (!(e instanceof CertError || e instanceof certstore.PolicyError)) throw e;
  http.answer(ctx, e.status, http.kvError(e.code || CODES[e.status], e.message, e.inner));
}

function pendingNotFound(name) {
  return new CertError(404, `Pending certificate not found: ${name}`, undefined, 'PendingCertificateNotFound');
}

function findRecord(vault, name) {
  return vault.certificates.get(name.toLowerCase()) || null;
}

// The key pair for a new operation: the current one when the policy says
// reuse_key and there is one of the same type, else a new one.
async function keyPairFor(vault, record, policy) {
  const kty = policy.key_props.kty;
  if (policy.key_props.reuse_key && record && record.versions.length) {
    const keyRecord = keystore.findKey(vault, record.name);
    const current = keyRecord && keystore.findVersion(keyRecord, null);
    if (current && current.privateKey && keystore.isRsa(current.kty) === keystore.isRsa(kty) &&
        (keystore.isRsa(kty) || current.pub.crv === policy.key_props.crv)) {
      return { kty, privateKey: current.privateKey, publicKey: current.publicKey, crv: current.pub.crv || null };
    }
  }
  const m = await keystore.makeMaterial({ kty, key_size: policy.key_props.key_size, crv: policy.key_props.crv });
  return { kty, privateKey: m.privateKey, publicKey: m.publicKey, crv: m.pub.crv || null };
}

function checkHsm(vault, policy) {
  if (keystore.isHsm(policy.key_props.kty) && vault.tier !== 'premium') throw new CertError(403, HSM_REFUSAL);
}

function makeCsr(policy, key) {
  try {
    return x509.buildCsr({ subject: policy.x509_props.subject, props: policy.x509_props, ...key });
  } catch (e) {
    if (e instanceof x509.X509Error) throw new CertError(400, e.message);
    throw e;
  }
}

// Starts the pending operation of a record (creating the record).
function startOperation(vault, name, policy, key, { attributes, tags }) {
  const now = nowSeconds();
  const id = name.toLowerCase();
  const record = vault.certificates.get(id) || { name, versions: [], tags: undefined, policy: null, operation: null };
  const created = record.policy ? record.policy.attributes.created : now;
  record.policy = Object.assign({}, policy, { attributes: { enabled: true, created, updated: now } });
  if (tags && typeof tags === 'object' && !Array.isArray(tags)) record.tags = Object.assign({}, tags);
  record.operation = {
    requestId: hex32(),
    issuer: policy.issuer.name,
    selfIssued: certstore.isSelfIssued(policy),
    csr: key.privateKey ? makeCsr(policy, key) : Buffer.alloc(0),
    cancellationRequested: false,
    completed: false,
    pollsLeft: 0,
    key,
    attributes,
  };
  vault.certificates.set(id, record);
  return record;
}

// Completes the operation with a certificate (DER) for its key.
function issue(vault, record, certDer, parsed, { attributes, tags } = {}) {
  const op = record.operation;
  const now = nowSeconds();
  const given = attributes && typeof attributes === 'object' ? attributes : op.attributes || {};
  const version = {
    version: hex32(),
    cer: certDer,
    x5t: b64url(x509.thumbprint(certDer)),
    attributes: {
      enabled: given.enabled === undefined ? true : Boolean(given.enabled),
      nbf: Math.floor(parsed.notBefore.getTime() / 1000),
      exp: Math.floor(parsed.notAfter.getTime() / 1000),
      created: now,
      updated: now,
    },
  };
  record.versions.push(version);
  if (tags && typeof tags === 'object' && !Array.isArray(tags)) record.tags = Object.assign({}, tags);
  const material = keystore.materialFromKeys(op.key.kty, op.key.privateKey, op.key.publicKey);
  keystore.addVersion(vault, record.name, material, {
    version: version.version,
    managed: true,
    key_ops: certstore.keyOpsFor(record.policy),
    attributes: { enabled: version.attributes.enabled, nbf: version.attributes.nbf, exp: version.attributes.exp },
    tags: record.tags,
  });
  op.completed = true;
  op.pollsLeft = vault.certificatePolls;
  return version;
}

function selfIssue(vault, record) {
  const { policy, operation: op } = record;
  const now = new Date(nowSeconds() * 1000);
  const der = x509.buildSelfSigned({
    subject: policy.x509_props.subject,
    props: policy.x509_props,
    ...op.key,
    notBefore: new Date(now.getTime() - 600 * 1000),
    notAfter: x509.addMonths(now, policy.x509_props.validity_months),
  });
  return issue(vault, record, der, x509.parseCertificate(der));
}

function samePublicKey(a, b) {
  const ja = a.export({ format: 'jwk' });
  const jb = b.export({ format: 'jwk' });
  return ja.kty === jb.kty && ja.n === jb.n && ja.e === jb.e && ja.crv === jb.crv && ja.x === jb.x && ja.y === jb.y;
}

function readChain(x5c) {
  if (!Array.isArray(x5c) || x5c.length === 0) throw new CertError(400, "Property 'x5c' is required.\r\n");
  const bytes = x509.decodeX5c(x5c[0]);
  try {
    if (!bytes) throw new Error('not base64');
    return x509.parseCertificate(bytes);
  } catch (e) {
    throw new CertError(400, 'ASN1 bad tag value met');
  }
}

function refuseTakenName(ctx, name) {
  if (deleted.refuseDeletedName(ctx, 'certificate', name)) return true;
  const key = keystore.findKey(ctx.vault, name);
  if (key && !keystore.findVersion(key, null).managed && !findRecord(ctx.vault, name)) {
    http.conflict(ctx, `Key ${name} already exists and does not belong to a certificate.`);
    return true;
  }
  return false;
}

function operationAnswer(ctx, record, status, code, extra) {
  const headers = Object.assign(status === 'inProgress' ? { 'retry-after': '10' } : {}, extra || {});
  http.answer(ctx, code, certstore.operation(ctx.base, record, status), headers);
}

// POST /certificates/{name}/create
async function createCertificate(ctx, name) {
  const body = http.jsonBody(ctx);
  if (!body) return;
  if (refuseTakenName(ctx, name)) return;
  const existing = findRecord(ctx.vault, name);
  try {
    if (body.policy === undefined && !existing) throw new CertError(400, "Property 'policy' is required.\r\n");
    const policy = certstore.normalizePolicy(body.policy, existing && existing.policy);
    checkHsm(ctx.vault, policy);
    const key = await keyPairFor(ctx.vault, existing, policy);
    const record = startOperation(ctx.vault, name, policy, key, { attributes: body.attributes, tags: body.tags });
    if (record.operation.selfIssued) selfIssue(ctx.vault, record);
    const location = `${ctx.base}/certificates/${record.name}/pending?api-version=${ctx.apiVersion}` +
      `&request_id=${record.operation.requestId}`;
    operationAnswer(ctx, record, 'inProgress', 202, { location });
  } catch (e) {
    refuse(ctx, e);
  }
}

// POST /certificates/{name}/pending/merge
function merge(ctx, name) {
  const body = http.jsonBody(ctx);
  if (!body) return;
  const record = findRecord(ctx.vault, name);
  try {
    if (!record || !record.operation || record.operation.completed) throw pendingNotFound(name);
    const parsed = readChain(body.x5c);
    if (!samePublicKey(parsed.publicKey, record.operation.key.publicKey)) {
      throw new CertError(400, "Public key from x509 certificate and key of this instance doesn't match");
    }
    const v = issue(ctx.vault, record, parsed.der, parsed, { attributes: body.attributes, tags: body.tags });
    record.operation.pollsLeft = 0;
    http.answer(ctx, 201, certstore.bundle(ctx.base, ctx.vault, record, v, ctx.apiVersion),
      { location: `${ctx.base}/certificates/${record.name}?api-version=${ctx.apiVersion}` });
  } catch (e) {
    refuse(ctx, e);
  }
}

function getOperation(ctx, name) {
  const record = findRecord(ctx.vault, name);
  if (!record || !record.operation) {
    refuse(ctx, pendingNotFound(name));
    return;
  }
  const op = record.operation;
  let status = 'inProgress';
  if (op.completed) {
    if (op.pollsLeft > 0) op.pollsLeft -= 1;
    else status = 'completed';
  }
  operationAnswer(ctx, record, status, 200);
}

function deleteOperation(ctx, name) {
  const record = findRecord(ctx.vault, name);
  if (!record || !record.operation) {
    refuse(ctx, pendingNotFound(name));
    return;
  }
  const status = record.operation.completed ? 'completed' : 'inProgress';
  const out = certstore.operation(ctx.base, record, status);
  record.operation = null;
  if (!record.versions.length) {
    ctx.vault.certificates.delete(name.toLowerCase());
  }
  http.answer(ctx, 200, out);
}

function lookup(ctx, name, version) {
  const record = findRecord(ctx.vault, name);
  const v = record && certstore.findVersion(record, version);
  if (!v) {
    http.notFound(ctx, 'certificate', version ? `${name}/${version}` : name);
    return null;
  }
  return { record, v };
}

function getCertificate(ctx, name, version) {
  const found = lookup(ctx, name, version);
  if (found) http.answer(ctx, 200, certstore.bundle(ctx.base, ctx.vault, found.record, found.v, ctx.apiVersion));
}

function getPolicy(ctx, name) {
  const record = findRecord(ctx.vault, name);
  if (!record) {
    http.notFound(ctx, 'certificate', name);
    return;
  }
  http.answer(ctx, 200, certstore.policyOut(ctx.base, record));
}

function listCertificates(ctx) {
  const live = certstore.sortedCertificates(ctx.vault);
  const gone = keystore.byUpperName(Array.from(ctx.vault.deletedCertificates.values()).map((e) => e.record))
    .map((e) => Object.assign(e, { hidden: true }));
  const entries = live.concat(gone).sort((a, b) => (a.upper < b.upper ? -1 : a.upper > b.upper ? 1 : 0));
  listing.list(ctx, {
    entries, path: '/certificates', prefix: 'certificate/',
    toItem: (record) => certstore.item(ctx.base, record, certstore.latest(record), ctx.apiVersion, false),
  });
}

function listVersions(ctx, name) {
  const record = findRecord(ctx.vault, name);
  if (!record || !record.versions.length) {
    http.notFound(ctx, 'certificate', name);
    return;
  }
  const entries = record.versions
    .map((v) => ({ upper: v.version.toUpperCase(), record: v }))
    .sort((a, b) => (a.upper < b.upper ? -1 : 1));
  listing.list(ctx, {
    entries, path: `/certificates/${record.name}/versions`, prefix: `certificate/${record.name.toUpperCase()}/`,
    toItem: (v) => certstore.item(ctx.base, record, v, ctx.apiVersion, true),
  });
}

function deleteCertificate(ctx, name) {
  const record = findRecord(ctx.vault, name);
  if (!record) {
    http.notFound(ctx, 'certificate', name);
    return;
  }
  const id = name.toLowerCase();
  const keyRecord = ctx.vault.keys.get(id);
  const managedKey = keyRecord && keystore.findVersion(keyRecord, null).managed ? keyRecord : null;
  if (managedKey) ctx.vault.keys.delete(id);
  ctx.vault.certificates.delete(id);
  const entry = deleted.softDelete(ctx.vault, 'certificate', record, { keyRecord: managedKey });
  http.answer(ctx, 200, certstore.deletedBundle(ctx.base, ctx.vault, entry, ctx.apiVersion));
}

function notSupported(ctx) {
  http.answer(ctx, 405, http.kvError('BadParameter', `Operation ${ctx.req.method} ${ctx.path} is not supported.`));
}

async function route(ctx, rest) {
  const method = ctx.req.method;
  if (rest.length === 0) return method === 'GET' ? listCertificates(ctx) : notSupported(ctx);
  const name = rest[0];
  if (!keystore.validName(name)) return http.badParameter(ctx, `The request URI contains an invalid name: ${name}`);
  const second = rest.length > 1 ? rest[1].toLowerCase() : '';
  if (rest.length === 1) {
    if (method === 'GET') return getCertificate(ctx, name, '');
    if (method === 'DELETE') return deleteCertificate(ctx, name);
    return notSupported(ctx);
  }
  if (rest.length === 2) {
    if (second === 'create' && method === 'POST') return createCertificate(ctx, name);
    if (second === 'pending' && method === 'GET') return getOperation(ctx, name);
    if (second === 'pending' && method === 'DELETE') return deleteOperation(ctx, name);
    if (second === 'policy' && method === 'GET') return getPolicy(ctx, name);
    if (second === 'versions' && method === 'GET') return listVersions(ctx, name);
    if (method === 'GET') return getCertificate(ctx, name, rest[1]);
    return notSupported(ctx);
  }
  if (rest.length === 3 && second === 'pending' && rest[2].toLowerCase() === 'merge' && method === 'POST') {
    return merge(ctx, name);
  }
  return notSupported(ctx);
}

// The policy's key_props rewritten to describe a given key.
function keyPropsOf(props, key) {
  const out = { exportable: props.exportable, kty: key.kty };
  if (keystore.isRsa(key.kty)) out.key_size = key.publicKey.asymmetricKeyDetails.modulusLength;
  else out.crv = key.crv;
  out.reuse_key = props.reuse_key;
  return out;
}

// The control API's way in. b: {name, policy?, subject?, kty?, key_size?,
// crv?, validity_months?, key_usage?, ekus?, jwk?, cer?, pending?, tags?,
// attributes?}. Answers the CertificateBundle, or the operation when pending.
async function seed(vault, b) {
  const policyIn = b.policy || {
    key_props: { kty: b.kty, key_size: b.key_size, crv: b.crv },
    x509_props: {
      subject: b.subject || `CN=${b.name}`, validity_months: b.validity_months, key_usage: b.key_usage, ekus: b.ekus,
    },
    issuer: { name: b.pending ? 'Unknown' : 'Self' },
  };
  for (const part of ['key_props', 'x509_props']) {
    if (policyIn[part]) for (const k of Object.keys(policyIn[part])) if (policyIn[part][k] === undefined) delete policyIn[part][k];
  }
  const record0 = findRecord(vault, b.name);
  const policy = certstore.normalizePolicy(policyIn, record0 && record0.policy);
  let key;
  if (b.jwk !== undefined) {
    const m = keystore.materialFromJwk(b.jwk);
    key = { kty: m.kty, privateKey: m.privateKey, publicKey: m.publicKey, crv: m.pub.crv || null };
    policy.key_props = keyPropsOf(policy.key_props, key);
  }
  let given = null;
  if (b.cer !== undefined) {
    given = x509.parseCertificate(x509.decodeX5c(b.cer) || Buffer.alloc(0));
    if (key && !samePublicKey(key.publicKey, given.publicKey)) throw new CertError(400, 'cer does not match jwk');
    if (!key) {
      const kty = given.publicKey.asymmetricKeyType === 'rsa' ? 'RSA' : 'EC';
      key = { kty, privateKey: null, publicKey: given.publicKey, crv: null };
      const m = keystore.materialFromKeys(kty, null, given.publicKey);
      key.crv = m.pub.crv || null;
      policy.key_props = keyPropsOf(policy.key_props, key);
    }
  }
  if (!key) key = await keyPairFor(vault, record0, policy);
  const record = startOperation(vault, b.name, policy, key, { attributes: b.attributes, tags: b.tags });
  const base = `https://${vault.name}.vault.azure.net`;
  if (b.pending) return certstore.operation(base, record, 'inProgress');
  if (!key.privateKey && !given) throw new CertError(400, 'a public-only key needs cer');
  const v = given ? issue(vault, record, given.der, given) : selfIssue(vault, record);
  return certstore.bundle(base, vault, record, v, '7.4');
}

module.exports = { route, seed, CertError };
