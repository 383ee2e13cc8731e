'use strict';
// The Key Vault door: every vault request is authenticated, needs an
// api-version, and goes to the module of its collection.
const { splitUrl } = require('./util');
const http = require('./vaulthttp');
const keys = require('./keys');
const certificates = require('./certificates');
const deleted = require('./deleted');

async function handle(req, res, { body, route: r }) {
  const { path, params } = splitUrl(req.url);
  const host = http.vaultHost(req);
  const ctx = {
    req, res, store: this.store, vault: this.store.vault(r.vault), host, base: `https://${host}`,
    path, params, apiVersion: params['api-version'], body,
  };
  if (!http.authorized(ctx)) return;
  if (!ctx.apiVersion) {
    http.badParameter(ctx, 'The api-version query parameter is missing.');
    return;
  }
  const segments = path.split('/').slice(1);
  const rest = segments.slice(1);
  while (rest.length && rest[rest.length - 1] === '') rest.pop();
  switch (segments[0].toLowerCase()) {
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
