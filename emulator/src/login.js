'use strict';
// Entra ID v1 token endpoint: POST /{tenant}/oauth2/token with the
// client-credentials grant.
const { guid, header, send, splitUrl, parseQuery } = require('./util');
const jwt = require('./jwt');

const TOKEN_PATH = /^\/([^/]+)\/oauth2\/token$/i;

function baseHeaders(req, traceId) {
  const h = {
    'cache-control': 'no-store, no-cache',
    pragma: 'no-cache',
    'content-type': 'application/json; charset=utf-8',
    expires: '-1',
    'strict-transport-security': 'max-age=31536000; includeSubDomains',
    'x-content-type-options': 'nosniff',
    'x-ms-request-id': traceId || guid(),
    'x-ms-ests-server': '2.1.17846.6 - EUS ProdSlices',
  };
  const clientRequestId = header(req, 'client-request-id');
  if (clientRequestId && /^true$/i.test(header(req, 'return-client-request-id') || '')) {
    h['client-request-id'] = clientRequestId;
  }
  return h;
}

// "2020-04-07 20:52:51Z"
function stamp(d) {
  return d.toISOString().replace('T', ' ').replace(/\.\d+Z$/, 'Z');
}

function correlationOf(req) {
  const id = (header(req, 'client-request-id') || '').replace(/[{}]/g, '');
  return /^[0-9a-f]{8}-([0-9a-f]{4}-){3}[0-9a-f]{12}$/i.test(id) ? id.toLowerCase() : guid();
}

function fail(req, res, status, error, code, text) {
  const traceId = guid();
  const correlationId = correlationOf(req);
  const ts = stamp(new Date());
  send(res, status, baseHeaders(req, traceId), {
    error,
    error_description: `AADSTS${code}: ${text}\r\nTrace ID: ${traceId}\r\n` +
      `Correlation ID: ${correlationId}\r\nTimestamp: ${ts}`,
    error_codes: [code],
    timestamp: ts,
    trace_id: traceId,
    correlation_id: correlationId,
    error_uri: `https://login.microsoftonline.com/error?code=${code}`,
  });
}

const missing = (name) => `The request body must contain the following parameter: '${name}'.`;

// Checks the form in the order the service does; answers an error or the app.
function checkForm(store, req, res, tenant, form) {
  const grant = form.get('grant_type');
  if (!grant) return fail(req, res, 400, 'invalid_request', 900144, missing('grant_type'));
  if (grant !== 'client_credentials') {
    return fail(req, res, 400, 'unsupported_grant_type', 70003,
      `The app requested an unsupported grant type '${grant}'.`);
  }
  const clientId = form.get('client_id');
  if (!clientId) return fail(req, res, 400, 'invalid_request', 900144, missing('client_id'));
  const app = store.state.apps.get(clientId.toLowerCase());
  if (!app || app.tenant.toLowerCase() !== tenant.toLowerCase()) {
    return fail(req, res, 400, 'unauthorized_client', 700016,
      `Application with identifier '${clientId}' was not found in the directory '${tenant}'. ` +
      'This can happen if the application has not been installed by the administrator of the ' +
      'tenant or consented to by any user in the tenant. You may have sent your authentication ' +
      'request to the wrong tenant.');
  }
  const secret = form.get('client_secret');
  if (secret === null) {
    return fail(req, res, 401, 'invalid_client', 7000218,
      "The request body must contain the following parameter: 'client_assertion' or 'client_secret'.");
  }
  if (secret !== app.secret) {
    return fail(req, res, 401, 'invalid_client', 7000215, 'Invalid client secret is provided.');
  }
  if (!form.get('resource')) return fail(req, res, 400, 'invalid_request', 900144, missing('resource'));
  return app;
}

function formOf(req, body) {
  const type = header(req, 'content-type') || '';
  return new URLSearchParams(/application\/x-www-form-urlencoded/i.test(type) ? body.toString('utf8') : '');
}

async function handle(req, res, { body }) {
  const m = TOKEN_PATH.exec(splitUrl(req.url).path);
  if (!m) {
    send(res, 404, baseHeaders(req), null);
    return;
  }
  const tenant = parseQuery(`t=${m[1]}`).t;
  if (req.method !== 'POST') {
    fail(req, res, 405, 'invalid_request', 900561,
      `The endpoint only accepts POST, OPTIONS requests. Received a ${req.method} request.`);
    return;
  }
  if (!this.store.knownTenant(tenant)) {
    fail(req, res, 400, 'invalid_request', 90002,
      `Tenant '${tenant}' not found. Check to make sure you have the correct tenant ID and are ` +
      'signing into the correct cloud. Check with your subscription administrator, this may ' +
      'happen if there are no active subscriptions for the tenant.');
    return;
  }
  const form = formOf(req, body);
  const app = checkForm(this.store, req, res, tenant, form);
  if (!app) return;
  const resource = form.get('resource');
  const { token, claims } = jwt.issue(this.store, {
    aud: resource, tid: app.tenant, oid: app.oid, appid: app.clientId, lifetime: app.lifetime,
  });
  const t = jwt.lifetimeFields(this.store, claims);
  send(res, 200, baseHeaders(req), {
    token_type: 'Bearer',
    expires_in: t.expires_in,
    ext_expires_in: t.ext_expires_in,
    expires_on: t.expires_on,
    not_before: t.not_before,
    resource,
    access_token: token,
  });
}

function create(store) {
  return { store, handle, baseHeaders: (req) => baseHeaders(req) };
}

module.exports = { create };
