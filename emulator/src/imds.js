'use strict';
// Instance metadata service: managed identity tokens for an Azure VM.
const { header, send, splitUrl } = require('./util');
const jwt = require('./jwt');

const TOKEN_PATH = '/metadata/identity/oauth2/token';
const NEWEST_VERSIONS = ['2021-02-01', '2020-12-01', '2020-10-01'];

function baseHeaders() {
  return {
    'content-type': 'application/json; charset=utf-8',
    server: 'IMDS/150.870.65.1325',
  };
}

const invalid = (description) => ({ error: 'invalid_request', error_description: description });

// The checks shared with the Arc agent, in the order the service makes them.
// Answers an error body, or null when the request may go on.
function checkRequest(req, params) {
  if (!/^true$/i.test((header(req, 'metadata') || '').trim())) {
    return invalid('Required metadata header not specified');
  }
  if (!params['api-version']) {
    return {
      error: 'Bad request. api-version was not specified in the request. ' +
        'For more information refer to aka.ms/azureimds',
      'newest-versions': NEWEST_VERSIONS,
    };
  }
  if (!params.resource) return invalid('Required audience parameter not specified');
  return null;
}

// A user-assigned selector must name the configured identity.
function identityFor(store, params) {
  const id = store.state.identity;
  if (!id) return null;
  if (params.client_id && params.client_id.toLowerCase() !== id.clientId.toLowerCase()) return null;
  if (params.object_id && params.object_id.toLowerCase() !== id.oid.toLowerCase()) return null;
  return id;
}

// The token answer: members in alphabetical order, every value a string.
function tokenBody(store, id, resource) {
  const { token, claims } = jwt.issue(store, {
    aud: resource, tid: id.tenant, oid: id.oid, appid: id.clientId, lifetime: id.lifetime,
  });
  const t = jwt.lifetimeFields(store, claims);
  return {
    access_token: token,
    client_id: id.clientId,
    expires_in: t.expires_in,
    expires_on: t.expires_on,
    ext_expires_in: t.ext_expires_in,
    not_before: t.not_before,
    resource,
    token_type: 'Bearer',
  };
}

async function handle(req, res) {
  const { path, params } = splitUrl(req.url);
  if (path !== TOKEN_PATH || req.method !== 'GET') {
    send(res, 404, baseHeaders(), null);
    return;
  }
  const error = checkRequest(req, params);
  if (error) {
    send(res, 400, baseHeaders(), error);
    return;
  }
  const id = identityFor(this.store, params);
  if (!id) {
    send(res, 400, baseHeaders(), invalid('Identity not found'));
    return;
  }
  send(res, 200, baseHeaders(), tokenBody(this.store, id, params.resource));
}

function create(store) {
  return { store, handle, baseHeaders };
}

module.exports = { create, checkRequest, identityFor, tokenBody, baseHeaders, TOKEN_PATH };
