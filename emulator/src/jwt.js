'use strict';
// Access tokens: RS256 JSON Web Tokens signed with a key made at start-up.
// Every token issued is remembered in the store; the vault accepts no other.
const crypto = require('crypto');
const { b64url, fromB64url, nowSeconds, guid } = require('./util');

const signing = crypto.generateKeyPairSync('rsa', { modulusLength: 2048 });
const thumb = b64url(crypto.createHash('sha1')
  .update(signing.publicKey.export({ type: 'spki', format: 'der' })).digest());

// Real tokens are valid from five minutes before issue.
const SKEW = 300;

function sign(payload) {
  const head = { typ: 'JWT', alg: 'RS256', x5t: thumb, kid: thumb };
  const input = `${b64url(JSON.stringify(head))}.${b64url(JSON.stringify(payload))}`;
  const sig = crypto.sign('sha256', Buffer.from(input), signing.privateKey);
  return `${input}.${b64url(sig)}`;
}

// who: {aud, tid, oid, appid, lifetime?}; lifetime in seconds, else the settings' one.
// Answers {token, claims}.
function issue(store, who) {
  const lifetime = Number.isInteger(who.lifetime) ? who.lifetime : store.settings.tokenLifetime;
  const now = nowSeconds();
  const iss = `https://sts.windows.net/${who.tid}/`;
  const claims = {
    aud: who.aud,
    iss,
    iat: now - SKEW,
    nbf: now - SKEW,
    exp: now + lifetime,
    aio: b64url(crypto.randomBytes(24)),
    appid: who.appid,
    appidacr: '1',
    idp: iss,
    oid: who.oid,
    rh: `0.${b64url(crypto.randomBytes(12))}.`,
    sub: who.oid,
    tid: who.tid,
    uti: b64url(crypto.randomBytes(16)),
    ver: '1.0',
  };
  const token = sign(claims);
  store.state.tokens.set(token, claims);
  return { token, claims };
}

function decodePart(token, index) {
  try {
    return JSON.parse(fromB64url(token.split('.')[index]).toString('utf8'));
  } catch (e) {
    return null;
  }
}

function verifySignature(token) {
  const parts = token.split('.');
  if (parts.length !== 3) return false;
  return crypto.verify('sha256', Buffer.from(`${parts[0]}.${parts[1]}`),
    signing.publicKey, fromB64url(parts[2]));
}

// The JSON answer fields shared by the token endpoints.
function lifetimeFields(store, claims) {
  const now = nowSeconds();
  return {
    expires_in: String(Math.max(0, claims.exp - now)),
    ext_expires_in: String(claims.exp - claims.iat - SKEW),
    expires_on: String(claims.exp),
    not_before: String(claims.nbf),
  };
}

module.exports = { issue, decodePart, verifySignature, lifetimeFields, newTraceId: guid };
