'use strict';
// What every Key Vault answer shares: the service's headers, its error
// shape, the bearer-token check and reading JSON request bodies.
const { guid, header, send, nowSeconds } = require('./util');

const VAULT_RESOURCE = 'https://vault.azure.net';

// The vault domains of each cloud: the kind of vault served there, the audience its tokens
// must carry, and the sign-in host its 401 challenge names (Key Vault's public challenge names
// login.windows.net, as recorded; Managed HSM's login.microsoftonline.com, as recorded).
const VAULT_DOMAINS = [
  { suffix: '.vault.azure.net', kind: 'vault', audience: VAULT_RESOURCE, authority: 'login.windows.net' },
  { suffix: '.vault.azure.cn', kind: 'vault', audience: 'https://vault.azure.cn', authority: 'login.chinacloudapi.cn' },
  { suffix: '.vault.usgovcloudapi.net', kind: 'vault', audience: 'https://vault.usgovcloudapi.net',
    authority: 'login.microsoftonline.us' },
  { suffix: '.managedhsm.azure.net', kind: 'managedhsm', audience: 'https://managedhsm.azure.net',
    authority: 'login.microsoftonline.com' },
  { suffix: '.managedhsm.azure.cn', kind: 'managedhsm', audience: 'https://managedhsm.azure.cn',
    authority: 'login.chinacloudapi.cn' },
  { suffix: '.managedhsm.usgovcloudapi.net', kind: 'managedhsm', audience: 'https://managedhsm.usgovcloudapi.net',
    authority: 'login.microsoftonline.us' },
];

// The domain entry of a vault host ("<name>.<domain>"), or null.
function domainOf(host) {
  return VAULT_DOMAINS.find((d) => host.endsWith(d.suffix) && host.length > d.suffix.length) || null;
}

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

function kvError(code, message, inner) {
  const error = { code, message };
  if (inner) error.innererror = { code: inner };
  return { error };
}

// Sends a JSON answer (or an empty one for a null body) with the service headers.
function answer(ctx, status, body, extraHeaders) {
  const headers = Object.assign(baseHeaders(ctx.req, ctx.store), extraHeaders || {});
  if (body === null) delete headers['content-type'];
  send(ctx.res, status, headers, body);
}

const badParameter = (ctx, message, inner) => answer(ctx, 400, kvError('BadParameter', message, inner));
const forbidden = (ctx, message, inner) => answer(ctx, 403, kvError('Forbidden', message, inner));
const conflict = (ctx, message, inner) => answer(ctx, 409, kvError('Conflict', message, inner));

const NOT_FOUND_TAIL = 'If you recently deleted this %s you may be able to recover it using the correct recovery ' +
  'command. For help resolving this issue, please see https://go.microsoft.com/fwlink/?linkid=2125182';

// kind: "key" or "certificate"; id: the name, or "name/version".
function notFound(ctx, kind, id) {
  const code = kind === 'key' ? 'KeyNotFound' : 'CertificateNotFound';
  answer(ctx, 404, kvError(code, `A ${kind} with (name/id) ${id} was not found in this key vault. ` +
    NOT_FOUND_TAIL.replace('%s', kind)));
}

function deletedNotFound(ctx, kind, name) {
  const code = kind === 'key' ? 'KeyNotFound' : 'CertificateNotFound';
  answer(ctx, 404, kvError(code, `Deleted ${kind === 'key' ? 'Key' : 'Certificate'} not found: ${name}`));
}

function unauthorized(ctx, message) {
  const headers = {
    'www-authenticate': `Bearer authorization="https://${ctx.domain.authority}/${ctx.store.vaultTenant(ctx.vault)}", ` +
      `resource="${ctx.domain.audience}"`,
  };
  // Managed HSM sends its challenge with an empty body (recorded).
  answer(ctx, 401, ctx.domain.kind === 'managedhsm' ? null : kvError('Unauthorized', message), headers);
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
  if (claims.aud.replace(/\/$/, '') !== ctx.domain.audience) {
    return `AKV10022: Invalid audience. Expected ${ctx.domain.audience}, found: ${claims.aud}.`;
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

// The request body as a JSON object; answers 400 and null otherwise.
function jsonBody(ctx) {
  const text = ctx.body.toString('utf8');
  let value;
  try {
    value = JSON.parse(text);
  } catch (e) {
    badParameter(ctx, text.trim() ? 'The request body is not valid JSON.' : 'The request body is empty.');
    return null;
  }
  if (value === null || typeof value !== 'object' || Array.isArray(value)) {
    badParameter(ctx, 'The request body must be a JSON object.');
    return null;
  }
  return value;
}

// Binary members: the service reads base64url, and tolerates the standard
// alphabet and padding. Answers a Buffer, or null for text it cannot read.
function readBinary(text) {
  if (typeof text !== 'string') return null;
  const body = text.replace(/=+$/, '');
  if (!/^[A-Za-z0-9+/_-]*$/.test(body) || body.length % 4 === 1 || text.length - body.length > 2) return null;
  return Buffer.from(body.replace(/-/g, '+').replace(/_/g, '/'), 'base64');
}

module.exports = {
  VAULT_RESOURCE, domainOf, vaultHost, baseHeaders, kvError, answer, badParameter, forbidden, conflict, notFound,
  deletedNotFound, authorized, jsonBody, readBinary,
};
