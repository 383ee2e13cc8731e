'use strict';
// Certificate records of a vault and the JSON shapes the service gives
// them: the policy with its defaults filled in, CertificateBundle,
// CertificateItem, CertificateOperation and the deleted forms.
//
// A record: {name, versions: [{version, cer, x5t, attributes, tags}],
//   policy, tags, operation}. The key of each version lives in the keys
// collection under the same name and version, marked managed.
const keystore = require('./keystore');

const DEFAULT_EKUS = ['1.3.6.1.5.5.7.3.1', '1.3.6.1.5.5.7.3.2'];
const RSA_USAGE = ['digitalSignature', 'keyEncipherment'];
const EC_USAGE = ['digitalSignature'];
const SELF_DETAILS = 'Pending certificate created. Certificate request is in progress. This may take some time ' +
  'based on the issuer provider. Please check again later.';
const MERGE_DETAILS = 'Pending certificate created. Please Perform Merge to complete the request.';

class PolicyError extends Error {
  constructor(status, message, inner) {
    super(message);
    this.status = status;
    this.inner = inner;
  }
}

const isObject = (v) => v !== null && typeof v === 'object' && !Array.isArray(v);

function stringList(value, member) {
  if (value === undefined) return undefined;
  if (!Array.isArray(value) || !value.every((s) => typeof s === 'string')) {
    throw new PolicyError(400, `Property '${member}' has an invalid value.`);
  }
  return value.slice();
}

// The policy as the service keeps it: the given members over the previous
// policy (for a new version) over the defaults.
function normalizePolicy(given, previous) {
  if (given !== undefined && !isObject(given)) throw new PolicyError(400, "Property 'policy' has an invalid value.");
  const p = given || {};
  const prev = previous || {};
  const keyIn = Object.assign({}, prev.key_props, isObject(p.key_props) ? p.key_props : {});
  const kty = keyIn.kty === undefined ? 'RSA' : keyIn.kty;
  if (!keystore.KTYS.includes(kty)) throw new PolicyError(400, `Invalid kty value: ${kty}`, 'KeyTypeNotSupported');
  const rsa = keystore.isRsa(kty);
  const key_props = { exportable: keyIn.exportable === undefined ? true : Boolean(keyIn.exportable), kty };
  if (rsa) {
    const size = keyIn.key_size === undefined ? 2048 : keystore.keySize(keyIn.key_size);
    if (!keystore.RSA_SIZES.includes(size)) throw new PolicyError(400, `Invalid key_size value: ${keyIn.key_size}`);
    key_props.key_size = size;
  } else {
    const crv = keystore.curveName(keyIn.crv === undefined ? 'P-256' : keyIn.crv);
    if (!crv) throw new PolicyError(400, `Invalid crv value: ${keyIn.crv}`);
    key_props.crv = crv;
  }
  key_props.reuse_key = Boolean(keyIn.reuse_key);

  const secretIn = Object.assign({}, prev.secret_props, isObject(p.secret_props) ? p.secret_props : {});
  const secret_props = { contentType: secretIn.contentType || 'application/x-pkcs12' };

  const xIn = Object.assign({}, prev.x509_props, isObject(p.x509_props) ? p.x509_props : {});
  const x509_props = {};
  const sans = isObject(xIn.sans) ? xIn.sans : undefined;
  const hasSans = sans && ['dns_names', 'emails', 'upns'].some((k) => Array.isArray(sans[k]) && sans[k].length);
  if (typeof xIn.subject === 'string' && xIn.subject.trim()) {
    x509_props.subject = xIn.subject;
  } else if (!hasSans) {
    throw new PolicyError(400, 'The policy must give a subject or subject alternative names.');
  } else {
    x509_props.subject = '';
  }
  if (sans) x509_props.sans = sans;
  x509_props.ekus = stringList(xIn.ekus, 'ekus') || DEFAULT_EKUS.slice();
  x509_props.key_usage = stringList(xIn.key_usage, 'key_usage') || (rsa ? RSA_USAGE : EC_USAGE).slice();
  const months = xIn.validity_months === undefined ? 12 : xIn.validity_months;
  if (!Number.isInteger(months) || months < 1) throw new PolicyError(400, `Invalid validity_months value: ${months}`);
  x509_props.validity_months = months;
  x509_props.basic_constraints = isObject(xIn.basic_constraints) ? xIn.basic_constraints : { ca: false };

  const issuerIn = Object.assign({}, prev.issuer, isObject(p.issuer) ? p.issuer : {});
  const issuer = { name: typeof issuerIn.name === 'string' && issuerIn.name ? issuerIn.name : 'Self' };
  for (const [k, v] of Object.entries(issuerIn)) if (k !== 'name') issuer[k] = v;
  const selfIssued = issuer.name.toLowerCase() === 'self';
  const lifetime_actions = Array.isArray(p.lifetime_actions) ? p.lifetime_actions
    : prev.lifetime_actions || [{
      trigger: { lifetime_percentage: 80 },
      action: { action_type: selfIssued ? 'AutoRenew' : 'EmailContacts' },
    }];
  return { key_props, secret_props, x509_props, lifetime_actions, issuer };
}

const isSelfIssued = (policy) => policy.issuer.name.toLowerCase() === 'self';

// Key operations of a certificate's key follow the certificate's key usage.
function keyOpsFor(policy) {
  const usage = policy.x509_props.key_usage;
  const rsa = keystore.isRsa(policy.key_props.kty);
  if (!usage.length) return (rsa ? keystore.RSA_OPS : keystore.EC_OPS).slice();
  const ops = [];
  if (usage.some((u) => ['digitalSignature', 'nonRepudiation', 'keyCertSign', 'cRLSign'].includes(u))) {
    ops.push('sign', 'verify');
  }
  if (rsa && usage.includes('keyEncipherment')) ops.push('wrapKey', 'unwrapKey', 'encrypt', 'decrypt');
  if (rsa && usage.includes('dataEncipherment')) {
    for (const op of ['encrypt', 'decrypt']) if (!ops.includes(op)) ops.push(op);
  }
  return ops;
}

function latest(record) {
  return record.versions.length ? record.versions[record.versions.length - 1] : null;
}

function findVersion(record, version) {
  if (!version) return latest(record);
  return record.versions.find((v) => v.version === version.toLowerCase()) || null;
}

// Tags: the service writes them on every certificate answer from 7.3 on,
// as {} when there are none; older versions only when set.
function withTags(out, tags, apiVersion) {
  if (tags) out.tags = tags;
  else if (keystore.versionNumber(apiVersion) >= 7.3) out.tags = {};
  return out;
}

function policyOut(base, record) {
  const p = record.policy;
  return {
    id: `${base}/certificates/${record.name}/policy`,
    key_props: p.key_props,
    secret_props: p.secret_props,
    x509_props: p.x509_props,
    lifetime_actions: p.lifetime_actions,
    issuer: p.issuer,
    attributes: p.attributes,
  };
}

function certAttributes(vault, v, apiVersion) {
  return keystore.attributesFor(vault, v.attributes, apiVersion);
}

function bundle(base, vault, record, v, apiVersion) {
  let out;
  if (v) {
    out = {
      id: `${base}/certificates/${record.name}/${v.version}`,
      kid: `${base}/keys/${record.name}/${v.version}`,
      sid: `${base}/secrets/${record.name}/${v.version}`,
      x5t: v.x5t,
      cer: v.cer.toString('base64'),
      attributes: certAttributes(vault, v, apiVersion),
    };
  } else {
    out = { id: `${base}/certificates/${record.name}`, attributes: keystore.attributesFor(vault, record.policy.attributes, apiVersion) };
  }
  withTags(out, record.tags, apiVersion);
  out.policy = policyOut(base, record);
  if (record.operation) out.pending = { id: `${base}/certificates/${record.name}/pending` };
  return out;
}

function item(base, record, v, apiVersion, withVersion) {
  const out = {
    id: `${base}/certificates/${record.name}${withVersion ? `/${v.version}` : ''}`,
    x5t: v.x5t,
    attributes: Object.assign({}, v.attributes),
  };
  withTags(out, record.tags, apiVersion);
  if (keystore.versionNumber(apiVersion) >= 7.3) out.subject = '';
  return out;
}

function deletedHead(base, entry) {
  return {
    recoveryId: `${base}/deletedcertificates/${entry.record.name}`,
    deletedDate: entry.deletedDate,
    scheduledPurgeDate: entry.scheduledPurgeDate,
  };
}

function deletedBundle(base, vault, entry, apiVersion) {
  return Object.assign(deletedHead(base, entry), bundle(base, vault, entry.record, latest(entry.record), apiVersion));
}

function deletedItem(base, vault, entry, apiVersion) {
  const v = latest(entry.record);
  const out = Object.assign(deletedHead(base, entry), {
    id: `${base}/certificates/${entry.record.name}`,
    x5t: v ? v.x5t : undefined,
    attributes: keystore.attributesFor(vault, v ? v.attributes : entry.record.policy.attributes, apiVersion),
  });
  if (!v) delete out.x5t;
  return withTags(out, entry.record.tags, apiVersion);
}

// status: what this answer shows, "inProgress" or "completed".
function operation(base, record, status) {
  const op = record.operation;
  const out = {
    id: `${base}/certificates/${record.name}/pending`,
    issuer: { name: op.issuer },
    csr: op.csr.toString('base64'),
    cancellation_requested: op.cancellationRequested,
    status,
  };
  if (status === 'completed') out.target = `${base}/certificates/${record.name}`;
  else out.status_details = op.selfIssued ? SELF_DETAILS : MERGE_DETAILS;
  out.request_id = op.requestId;
  return out;
}

function sortedCertificates(vault) {
  return keystore.byUpperName(Array.from(vault.certificates.values()).filter((r) => r.versions.length));
}

module.exports = {
  PolicyError, normalizePolicy, isSelfIssued, keyOpsFor, latest, findVersion, policyOut, bundle, item,
  deletedBundle, deletedItem, operation, sortedCertificates, SELF_DETAILS, MERGE_DETAILS,
};
