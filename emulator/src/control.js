'use strict';
// Control API: plain HTTP, JSON in and out, used by tests to seed and
// inspect the emulator. Its own requests are not logged.
const { guid, readBody, send, splitUrl } = require('./util');
const keystore = require('./keystore');
const certificates = require('./certificates');
const certstore = require('./certstore');
const x509 = require('./x509');
const script = require('./script');
const requestlog = require('./requestlog');

const JSON_HEADERS = { 'content-type': 'application/json; charset=utf-8' };

class ControlError extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

const need = (cond, message) => {
  if (!cond) throw new ControlError(400, message);
};

function isGuidish(v) {
  return typeof v === 'string' && v.length > 0;
}

// A token lifetime in seconds of its own, or null for the settings' one.
function lifetimeOf(b) {
  if (b.lifetime === undefined || b.lifetime === null) return null;
  need(Number.isInteger(b.lifetime) && b.lifetime >= 0, 'lifetime must be a whole number of seconds');
  return b.lifetime;
}

function addApp(store, b) {
  need(isGuidish(b.tenant) && isGuidish(b.clientId) && typeof b.secret === 'string',
    'tenant, clientId and secret are required');
  const app = {
    tenant: b.tenant, clientId: b.clientId, secret: b.secret, oid: b.oid || guid(), lifetime: lifetimeOf(b),
  };
  store.state.apps.set(app.clientId.toLowerCase(), app);
  return app;
}

function setIdentity(store, b) {
  need(isGuidish(b.oid), 'oid is required');
  store.state.identity = {
    oid: b.oid, clientId: b.clientId || guid(), tenant: b.tenant || store.settings.defaultTenant,
    lifetime: lifetimeOf(b),
  };
  return store.state.identity;
}

function setSettings(store, b) {
  const s = store.settings;
  if (b.tokenLifetime !== undefined) {
    need(Number.isInteger(b.tokenLifetime) && b.tokenLifetime >= 0, 'tokenLifetime must be a whole number of seconds');
    s.tokenLifetime = b.tokenLifetime;
  }
  if (b.closeConnections !== undefined) {
    need(typeof b.closeConnections === 'boolean', 'closeConnections must be true or false');
    s.closeConnections = b.closeConnections;
  }
  for (const k of ['defaultTenant', 'region', 'serviceVersion']) {
    if (b[k] !== undefined) {
      need(typeof b[k] === 'string' && b[k], `${k} must be a non-empty string`);
      s[k] = b[k];
    }
  }
  return s;
}

function configureVault(store, name, b) {
  const v = store.vault(name);
  if (b.tier !== undefined) {
    need(['standard', 'premium'].includes(b.tier), 'tier must be standard or premium');
    v.tier = b.tier;
  }
  if (b.pageSizes !== undefined) {
    need(Array.isArray(b.pageSizes) && b.pageSizes.every((n) => Number.isInteger(n) && n >= 0),
      'pageSizes must be an array of whole numbers');
    v.pageSizes = b.pageSizes.slice();
  }
  if (b.tenant !== undefined) v.tenant = b.tenant || null;
  if (b.recoverableDays !== undefined) {
    need(Number.isInteger(b.recoverableDays) && b.recoverableDays >= 7 && b.recoverableDays <= 90,
      'recoverableDays must be a whole number from 7 to 90');
    v.recoverableDays = b.recoverableDays;
  }
  if (b.latencyMs !== undefined) {
    need(Number.isInteger(b.latencyMs) && b.latencyMs >= 0 && b.latencyMs <= 120000,
      'latencyMs must be a whole number from 0 to 120000');
    v.latencyMs = b.latencyMs;
  }
  for (const k of ['deleteWindowRequests', 'deleteWindowMs', 'certificatePolls']) {
    if (b[k] !== undefined) {
      need(Number.isInteger(b[k]) && b[k] >= 0, `${k} must be a whole number`);
      v[k] = b[k];
    }
  }
  return describeVault(store, v);
}

const names = (map) => keystore.byUpperName(Array.from(map.values()).map((e) => e.record || e)).map((e) => e.record.name);

function describeVault(store, v) {
  return {
    name: v.name, tier: v.tier, pageSizes: v.pageSizes, tenant: store.vaultTenant(v),
    recoverableDays: v.recoverableDays, deleteWindowRequests: v.deleteWindowRequests,
    deleteWindowMs: v.deleteWindowMs, certificatePolls: v.certificatePolls, latencyMs: v.latencyMs,
    keys: keystore.sortedKeys(v).map((k) => k.record.name),
    certificates: names(v.certificates),
    deletedKeys: names(v.deletedKeys),
    deletedCertificates: names(v.deletedCertificates),
  };
}

// Errors of seeding that are the caller's: bad JWKs, policies, certificates.
function seedError(e) {
  if (e instanceof keystore.JwkError || e instanceof certstore.PolicyError || e instanceof x509.X509Error ||
      e instanceof certificates.CertError) {
    return new ControlError(400, e.message);
  }
  return e;
}

async function seedCertificate(store, name, b) {
  need(b && keystore.validName(b.name), 'name must match ^[0-9a-zA-Z-]{1,127}$');
  const vault = store.vault(name);
  need(!vault.deletedCertificates.has(b.name.toLowerCase()) && !vault.deletedKeys.has(b.name.toLowerCase()),
    `${b.name} is soft-deleted in this vault`);
  const key = keystore.findKey(vault, b.name);
  need(!key || keystore.findVersion(key, null).managed, `${b.name} is a key that does not belong to a certificate`);
  try {
    return await certificates.seed(vault, b);
  } catch (e) {
    throw seedError(e);
  }
}

async function createKey(store, name, b) {
  const problem = keystore.checkRequest(b);
  need(!problem, problem);
  const vault = store.vault(name);
  need(!vault.deletedKeys.has(b.name.toLowerCase()), `${b.name} is soft-deleted in this vault`);
  const badVersion = keystore.checkVersion(vault, b);
  need(!badVersion, badVersion);
  let version;
  try {
    version = await keystore.addKey(vault, b);
  } catch (e) {
    throw seedError(e);
  }
  return keystore.bundle(`https://${vault.name}.vault.azure.net`, vault, keystore.findKey(vault, b.name), version, '7.4');
}

function publicRequests(store, params) {
  return requestlog.list(store, params.service);
}

// [method, path pattern, handler(store, body, match, params) -> [status, json]]
const ROUTES = [
  ['GET', /^\/health$/, () => [200, { ok: true }]],
  ['POST', /^\/reset$/, (s) => { s.reset(); return [200, { ok: true }]; }],
  ['POST', /^\/apps$/, (s, b) => [200, addApp(s, b)]],
  ['GET', /^\/apps$/, (s) => [200, Array.from(s.state.apps.values())]],
  ['PUT', /^\/identity$/, (s, b) => [200, setIdentity(s, b)]],
  ['GET', /^\/identity$/, (s) => [200, s.state.identity]],
  ['DELETE', /^\/identity$/, (s) => { s.state.identity = null; return [200, { ok: true }]; }],
  ['PUT', /^\/settings$/, (s, b) => [200, setSettings(s, b)]],
  ['GET', /^\/settings$/, (s) => [200, s.settings]],
  ['DELETE', /^\/tokens$/, (s) => { s.state.tokens.clear(); return [200, { ok: true }]; }],
  ['PUT', /^\/vaults\/([0-9a-zA-Z-]+)$/, (s, b, m) => [200, configureVault(s, m[1], b)]],
  ['GET', /^\/vaults\/([0-9a-zA-Z-]+)$/, (s, b, m) => [200, describeVault(s, s.vault(m[1]))]],
  ['DELETE', /^\/vaults\/([0-9a-zA-Z-]+)$/, (s, b, m) => { s.state.vaults.delete(m[1].toLowerCase()); return [200, { ok: true }]; }],
  ['POST', /^\/vaults\/([0-9a-zA-Z-]+)\/keys$/, async (s, b, m) => [200, await createKey(s, m[1], b)]],
  ['POST', /^\/vaults\/([0-9a-zA-Z-]+)\/certificates$/, async (s, b, m) => [200, await seedCertificate(s, m[1], b)]],
  ['POST', /^\/script$/, (s, b) => { const e = script.validate(b); need(!e, e); script.add(s, b); return [200, { ok: true }]; }],
  ['GET', /^\/script$/, (s) => [200, s.state.scripts]],
  ['DELETE', /^\/script$/, (s) => { s.state.scripts = []; return [200, { ok: true }]; }],
  ['GET', /^\/requests$/, (s, b, m, p) => [200, publicRequests(s, p)]],
  ['DELETE', /^\/requests$/, (s) => { s.state.requests = []; return [200, { ok: true }]; }],
];

function parseJson(buf) {
  if (buf.length === 0) return {};
  let value;
  try {
    value = JSON.parse(buf.toString('utf8'));
  } catch (e) {
    throw new ControlError(400, 'body is not valid JSON');
  }
  if (value === null || typeof value !== 'object' || Array.isArray(value)) {
    throw new ControlError(400, 'body must be a JSON object');
  }
  return value;
}

function createHandler(store) {
  return async (req, res) => {
    try {
      const { path, params } = splitUrl(req.url);
      const hits = ROUTES.filter(([, re]) => re.test(path));
      if (hits.length === 0) throw new ControlError(404, `no such control route: ${path}`);
      const hit = hits.find(([method]) => method === req.method);
      if (!hit) throw new ControlError(405, `${req.method} not allowed on ${path}`);
      const body = parseJson(await readBody(req));
      const [status, json] = await hit[2](store, body, hit[1].exec(path), params);
      send(res, status, JSON_HEADERS, JSON.stringify(json));
    } catch (e) {
      const status = e.status || 500;
      if (status === 500) process.stderr.write(`emulator: control failed: ${e.stack}\n`);
      send(res, status, JSON_HEADERS, JSON.stringify({ error: e.message }));
    }
  };
}

module.exports = { createHandler };
