'use strict';
// Key Vault data plane, keys collection: listing and lookup.
const { guid, header, send, splitUrl, nowSeconds } = require('./util');
const jwt = require('./jwt');
const keystore = require('./keystore');
const paging = require('./paging');

const VAULT_RESOURCE = 'https://vault.azure.net';
const MAX_PAGE = 25;

function vaultHost(req) {
  return (req.headers.host || '').replace(/:\d+$/, '').toLowerCase();
}

function baseHeaders(req, store) {
  const ip = (req.socket.remoteAddress || '').replace(/^::ffff:/, '');
  const h = {
    'cache-control': 'no-cache',
    pragma: 'no-cache',
    'content-type': 'application/json; charset=utf-8',
    expires: '-1',
    'x-ms-keyvault-region': store.settings.region,
    'x-ms-request-id': guid(),
    'x-ms-keyvault-service-version': store.settings.serviceVersion,
    'x-ms-keyvault-network-info': `conn_type=Ipv4;addr=${ip};act_addr_fam=InterNetwork;`,
    'strict-transport-security': 'max-age=31536000;includeSubDomains',
    'x-content-type-options': 'nosniff',
  };
  const clientId = header(req, 'x-ms-client-request-id');
  if (clientId) h['x-ms-client-request-id'] = clientId;
  return h;
}

const kvError = (code, message) => ({ error: { code, message } });

function unauthorized(ctx, message) {
  const headers = Object.assign(baseHeaders(ctx.req, ctx.store), {
    'www-authenticate': `Bearer authorization="https://login.windows.net/${ctx.store.vaultTenant(ctx.vault)}", ` +
      `resource="${VAULT_RESOURCE}"`,
  });
  send(ctx.res, 401, headers, kvError('Unauthorized', message));
}

// Answers the failure text for a bearer token the vault refuses, or null.
function tokenProblem(ctx, token) {
  const claims = ctx.store.state.tokens.get(token);
  if (!claims) {
    const parts = token.split('.');
    if (parts.length !== 3) return 'AKV10000: Request is missing a Bearer or PoP token.';
    return `AKV10046: Unable to resolve the key used for signature validation. EncodedJwtHeader: '${parts[0]}'.`;
  }
  if (claims.exp <= nowSeconds()) return 'AKV10013: Token has expired.';
  if (claims.aud.replace(/\/$/, '') !== VAULT_RESOURCE) {
    return `AKV10022: Invalid audience. Expected ${VAULT_RESOURCE}, found: ${claims.aud}.`;
  }
  if (ctx.vault.tenant && claims.tid.toLowerCase() !== ctx.vault.tenant.toLowerCase()) {
    return `AKV10032: Invalid issuer. Expected one of https://sts.windows.net/${ctx.vault.tenant}/, ` +
      `found: ${claims.iss}.`;
  }
  return null;
}

function authorized(ctx) {
  const m = /^Bearer\s+(\S+)\s*$/i.exec(header(ctx.req, 'authorization') || '');
  const problem = m ? tokenProblem(ctx, m[1]) : 'AKV10000: Request is missing a Bearer or PoP token.';
  if (problem) unauthorized(ctx, problem);
  return !problem;
}

function answer(ctx, status, body) {
  send(ctx.res, status, baseHeaders(ctx.req, ctx.store), body);
}

function badParameter(ctx, message) {
  answer(ctx, 400, kvError('BadParameter', message));
}

function notFound(ctx, id) {
  answer(ctx, 404, kvError('KeyNotFound', `A key with (name/id) ${id} was not found in this key vault. ` +
    'If you recently deleted this key you may be able to recover it using the correct recovery ' +
    'command. For help resolving this issue, please see https://go.microsoft.com/fwlink/?linkid=2125182'));
}

function readMaxResults(ctx) {
  const raw = ctx.params.maxresults;
  if (raw === undefined) return { size: MAX_PAGE };
  const n = /^\d+$/.test(raw) ? Number(raw) : NaN;
  if (!(n >= 1 && n <= MAX_PAGE)) {
    badParameter(ctx, `Invalid value '${raw}' for maxresults. It must be between 1 and ${MAX_PAGE}.`);
    return null;
  }
  return { size: n, raw };
}

function listKeys(ctx) {
  const max = readMaxResults(ctx);
  if (!max) return;
  let at = { upperName: null, page: 0 };
  if (ctx.params.$skiptoken !== undefined) {
    at = paging.decode(ctx.params.$skiptoken);
    if (!at) {
      badParameter(ctx, 'The skip token is not valid.');
      return;
    }
  }
  const page = paging.cut(keystore.sortedKeys(ctx.vault), at, ctx.vault.pageSizes, max.size);
  const base = `https://${ctx.host}`;
  let nextLink = null;
  if (page.next) {
    nextLink = `${base}:443/keys?api-version=${encodeURIComponent(ctx.apiVersion)}&$skiptoken=${page.next}` +
      (max.raw !== undefined ? `&maxresults=${max.raw}` : '');
  }
  answer(ctx, 200, {
    value: page.items.map((k) => keystore.item(base, k.record, ctx.apiVersion)),
    nextLink,
  });
}

function getKey(ctx, name, version) {
  if (!keystore.validName(name)) {
    badParameter(ctx, `The request URI contains an invalid name: ${name}`);
    return;
  }
  const record = keystore.findKey(ctx.vault, name);
  const v = record && keystore.findVersion(record, version);
  if (!v) {
    notFound(ctx, version ? `${name}/${version}` : name);
    return;
  }
  answer(ctx, 200, keystore.bundle(`https://${ctx.host}`, record, v, ctx.apiVersion));
}

// Segments after "keys": [name, version, action]; an empty version means
// the latest one, as in "/keys/name//sign".
function route(ctx, segments) {
  const rest = segments.slice(1);
  while (rest.length && rest[rest.length - 1] === '') rest.pop();
  const method = ctx.req.method;
  if (rest.length === 0 && method === 'GET') return listKeys(ctx);
  if (rest.length > 0 && rest.length <= 2 && method === 'GET') return getKey(ctx, rest[0], rest[1] || '');
  return answer(ctx, 405, kvError('BadParameter', `Operation ${method} ${ctx.path} is not supported.`));
}

async function handle(req, res, { route: r }) {
  const { path, params } = splitUrl(req.url);
  const ctx = {
    req, res, store: this.store, vault: this.store.vault(r.vault), host: vaultHost(req), path, params,
    apiVersion: params['api-version'],
  };
  if (!authorized(ctx)) return;
  if (!ctx.apiVersion) {
    badParameter(ctx, 'The api-version query parameter is missing.');
    return;
  }
  const segments = path.split('/').slice(1);
  if (segments[0].toLowerCase() !== 'keys') {
    answer(ctx, 404, kvError('NotFound', `The path ${path} is not supported.`));
    return;
  }
  route(ctx, segments);
}

function create(store) {
  return { store, handle, baseHeaders: (req) => baseHeaders(req, store) };
}

module.exports = { create };
