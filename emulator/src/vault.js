'use strict';
// The Key Vault door: every vault request is authenticated, needs an
// api-version, and goes to the module of its collection.
const { splitUrl } = require('./util');
const http = require('./vaulthttp');
const keys = require('./keys');
const certificates = require('./certificates');
const deleted = require('./deleted');

// Managed HSM serves api-version 7.2 and later ("7.2", "7.4", "7.5-preview.1", ...).
function managedHsmVersion(v) {
  const m = /^(\d+)\.(\d+)(?:-preview(?:\.\d+)?)?$/.exec(v);
  return Boolean(m) && (Number(m[1]) > 7 || (Number(m[1]) === 7 && Number(m[2]) >= 2));
}

async function handle(req, res, { body, route: r }) {
  const { path, params } = splitUrl(req.url);
  const host = http.vaultHost(req);
  const domain = http.domainOf(host);
  const ctx = {
    req, res, store: this.store, vault: this.store.vault(r.vault), host, base: `https://${host}`,
    path, params, apiVersion: params['api-version'], body, domain, hsm: domain.kind === 'managedhsm',
  };
  if (!http.authorized(ctx)) return;
  if (!ctx.apiVersion) {
    http.badParameter(ctx, 'The api-version query parameter is missing.');
    return;
  }
  if (ctx.hsm && !managedHsmVersion(ctx.apiVersion)) {
    http.badParameter(ctx, `The api-version '${ctx.apiVersion}' is not supported by Managed HSM. ` +
      'Use 7.2 or later.');
    return;
  }
  const segments = path.split('/').slice(1);
  const rest = segments.slice(1);
  while (rest.length && rest[rest.length - 1] === '') rest.pop();
  const collection = segments[0].toLowerCase();
  if (ctx.hsm && (collection === 'certificates' || collection === 'deletedcertificates')) {
    http.answer(ctx, 404, http.kvError('NotFound', `The path ${path} is not supported.`));
    return undefined;
  }
  switch (collection) {
    case 'keys': return keys.route(ctx, rest);
    case 'certificates': return certificates.route(ctx, rest);
    case 'deletedkeys': return deleted.route(ctx, 'key', rest);
    case 'deletedcertificates': return deleted.route(ctx, 'certificate', rest);
    default:
      http.answer(ctx, 404, http.kvError('NotFound', `The path ${path} is not supported.`));
      return undefined;
  }
}

function create(store) {
  return { store, handle, baseHeaders: (req) => http.baseHeaders(req, store) };
}

module.exports = { create };
