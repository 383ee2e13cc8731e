'use strict';
// Azure Arc agent: the same token call as IMDS, guarded by a Basic
// challenge whose secret the agent writes into a key file.
//
// Each key file's secret is good for one successful token request; the
// file itself stays on disk until reset. A wrong or missing secret gets a
// fresh file and a fresh challenge.
const crypto = require('crypto');
const fs = require('fs');
const path = require('path');
const { guid, header, send, splitUrl } = require('./util');
const imds = require('./imds');

function realmPath(cfg, file) {
  if (!cfg.realmDir) return `${cfg.tokenDir.replace(/\/+$/, '')}/${file}`;
  return `${cfg.realmDir.replace(/\\+$/, '')}\\${file}`;
}

function challenge(store, cfg, res) {
  const name = `${guid()}.key`;
  const file = path.join(cfg.tokenDir, name);
  const secret = crypto.randomBytes(32).toString('hex');
  fs.writeFileSync(file, secret, { mode: 0o644 });
  store.state.arcKeys.set(secret, { file, used: false });
  send(res, 401, Object.assign(imds.baseHeaders(), {
    'www-authenticate': `Basic realm=${realmPath(cfg, name)}`,
  }), null);
}

// Takes the secret from "Authorization: Basic <secret>" when it is one we
// wrote and have not yet accepted.
function acceptSecret(store, req) {
  const m = /^Basic\s+(.+)$/i.exec((header(req, 'authorization') || '').trim());
  if (!m) return false;
  const key = store.state.arcKeys.get(m[1]);
  if (!key || key.used) return false;
  key.used = true;
  return true;
}

async function handle(req, res) {
  const { path: p, params } = splitUrl(req.url);
  if (p !== imds.TOKEN_PATH || req.method !== 'GET') {
    send(res, 404, imds.baseHeaders(), null);
    return;
  }
  const error = imds.checkRequest(req, params);
  if (error) {
    send(res, 400, imds.baseHeaders(), error);
    return;
  }
  if (!acceptSecret(this.store, req)) {
    challenge(this.store, this.cfg, res);
    return;
  }
  const id = imds.identityFor(this.store, params);
  if (!id) {
    send(res, 400, imds.baseHeaders(), { error: 'invalid_request', error_description: 'Identity not found' });
    return;
  }
  send(res, 200, imds.baseHeaders(), imds.tokenBody(this.store, id, params.resource));
}

// cfg: {tokenDir, realmDir?}
function create(store, cfg) {
  fs.mkdirSync(cfg.tokenDir, { recursive: true });
  return { store, cfg, handle, baseHeaders: imds.baseHeaders };
}

module.exports = { create };
