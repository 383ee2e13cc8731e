'use strict';
// Key operations: sign, verify, encrypt, decrypt, wrapKey and unwrapKey on
// POST /keys/{name}/{version}/{operation}, with the keys' real material.
//
// Signing takes a digest the client computed, as the service does, so the
// primitives work on digests: PKCS#1 v1.5 is built as DigestInfo plus type-1
// padding (privateEncrypt), PSS is encoded here and raised to the private
// exponent without padding, and ECDSA (ecdsa.js) signs the digest as given.
const crypto = require('crypto');
const ecdsa = require('./ecdsa');
const { b64url } = require('./util');
const http = require('./vaulthttp');
const keystore = require('./keystore');

const { RSA_NO_PADDING, RSA_PKCS1_PADDING, RSA_PKCS1_OAEP_PADDING } = crypto.constants;

const DIGEST_INFO = {
  sha256: Buffer.from('3031300d060960864801650304020105000420', 'hex'),
  sha384: Buffer.from('3041300d060960864801650304020205000430', 'hex'),
  sha512: Buffer.from('3051300d060960864801650304020305000440', 'hex'),
};
const HASH_BYTES = { sha1: 20, sha256: 32, sha384: 48, sha512: 64 };

const SIGN_ALGS = {
  RS256: { family: 'RS', hash: 'sha256' },
  RS384: { family: 'RS', hash: 'sha384' },
  RS512: { family: 'RS', hash: 'sha512' },
  RSNULL: { family: 'RSNULL' },
  PS256: { family: 'PS', hash: 'sha256' },
  PS384: { family: 'PS', hash: 'sha384' },
  PS512: { family: 'PS', hash: 'sha512' },
  ES256: { family: 'ES', hash: 'sha256', crv: 'P-256' },
  ES384: { family: 'ES', hash: 'sha384', crv: 'P-384' },
  ES512: { family: 'ES', hash: 'sha512', crv: 'P-521' },
  ES256K: { family: 'ES', hash: 'sha256', crv: 'P-256K' },
};
const ENCRYPT_ALGS = {
  'RSA-OAEP': { oaepHash: 'sha1' },
  'RSA-OAEP-256': { oaepHash: 'sha256' },
  RSA1_5: {},
};

// URL action (lower-cased) -> key operation name.
const ACTIONS = {
  sign: 'sign', verify: 'verify', encrypt: 'encrypt', decrypt: 'decrypt', wrapkey: 'wrapKey', unwrapkey: 'unwrapKey',
};
// Operations that need the private key, and that a disabled key refuses.
const PRIVATE_OPS = new Set(['sign', 'decrypt', 'unwrapKey']);

class OpError extends Error {}

function modulusBytes(v) {
  return Math.ceil(v.publicKey.asymmetricKeyDetails.modulusLength / 8);
}

function leftPad(buf, size) {
  return buf.length >= size ? buf : Buffer.concat([Buffer.alloc(size - buf.length), buf]);
}

function mgf1(hash, seed, length) {
  const out = [];
  for (let counter = 0, total = 0; total < length; counter++) {
    const c = Buffer.alloc(4);
    c.writeUInt32BE(counter);
    const block = crypto.createHash(hash).update(seed).update(c).digest();
    out.push(block);
    total += block.length;
  }
  return Buffer.concat(out).subarray(0, length);
}

// EMSA-PSS-ENCODE (RFC 8017 9.1.1) with MGF1 over the same hash.
function pssEncode(hash, mHash, modBits, salt) {
  const hLen = mHash.length;
  const emBits = modBits - 1;
  const emLen = Math.ceil(emBits / 8);
  const h = crypto.createHash(hash).update(Buffer.alloc(8)).update(mHash).update(salt).digest();
  const db = Buffer.alloc(emLen - hLen - 1);
  db[emLen - salt.length - hLen - 2] = 0x01;
  salt.copy(db, emLen - salt.length - hLen - 1);
  const mask = mgf1(hash, h, db.length);
  for (let i = 0; i < db.length; i++) db[i] ^= mask[i];
  db[0] &= 0xff >> (8 * emLen - emBits);
  return Buffer.concat([db, h, Buffer.from([0xbc])]);
}

// EMSA-PSS-VERIFY with the salt as long as the hash.
function pssVerify(hash, mHash, em, modBits) {
  const hLen = mHash.length;
  const sLen = hLen;
  const emBits = modBits - 1;
  const emLen = Math.ceil(emBits / 8);
  if (em.length !== emLen || emLen < hLen + sLen + 2 || em[emLen - 1] !== 0xbc) return false;
  const topMask = 0xff >> (8 * emLen - emBits);
  const db = Buffer.from(em.subarray(0, emLen - hLen - 1));
  const h = em.subarray(emLen - hLen - 1, emLen - 1);
  if (db[0] & ~topMask & 0xff) return false;
  const mask = mgf1(hash, h, db.length);
  for (let i = 0; i < db.length; i++) db[i] ^= mask[i];
  db[0] &= topMask;
  const psEnd = emLen - hLen - sLen - 2;
  for (let i = 0; i < psEnd; i++) if (db[i] !== 0) return false;
  if (db[psEnd] !== 0x01) return false;
  const salt = db.subarray(db.length - sLen);
  const expected = crypto.createHash(hash).update(Buffer.alloc(8)).update(mHash).update(salt).digest();
  return crypto.timingSafeEqual(expected, h);
}

function rawPublic(v, sig) {
  return crypto.publicEncrypt({ key: v.publicKey, padding: RSA_NO_PADDING }, sig);
}

function sign(alg, v, input) {
  const a = SIGN_ALGS[alg];
  if (a.family === 'ES') return ecdsa.sign(v.pub.crv, v.privateKey, input);
  if (a.family === 'RSNULL') return crypto.privateEncrypt({ key: v.privateKey, padding: RSA_PKCS1_PADDING }, input);
  if (a.family === 'RS') {
    const info = Buffer.concat([DIGEST_INFO[a.hash], input]);
    return crypto.privateEncrypt({ key: v.privateKey, padding: RSA_PKCS1_PADDING }, info);
  }
  const modBits = v.publicKey.asymmetricKeyDetails.modulusLength;
  const em = pssEncode(a.hash, input, modBits, crypto.randomBytes(input.length));
  return crypto.privateDecrypt({ key: v.privateKey, padding: RSA_NO_PADDING }, leftPad(em, modulusBytes(v)));
}

function verify(alg, v, digest, sig) {
  const a = SIGN_ALGS[alg];
  try {
    if (a.family === 'ES') return ecdsa.verify(v.pub.crv, v.publicKey, digest, sig);
    const k = modulusBytes(v);
    if (sig.length !== k) return false;
    if (a.family === 'PS') {
      const modBits = v.publicKey.asymmetricKeyDetails.modulusLength;
      const em = rawPublic(v, sig);
      return pssVerify(a.hash, digest, em.subarray(k - Math.ceil((modBits - 1) / 8)), modBits);
    }
    const expected = a.family === 'RS' ? Buffer.concat([DIGEST_INFO[a.hash], digest]) : digest;
    const got = crypto.publicDecrypt({ key: v.publicKey, padding: RSA_PKCS1_PADDING }, sig);
    return got.length === expected.length && crypto.timingSafeEqual(got, expected);
  } catch (e) {
    return false;
  }
}

function maxPlaintext(alg, k) {
  if (alg === 'RSA1_5') return k - 11;
  return k - 2 * HASH_BYTES[ENCRYPT_ALGS[alg].oaepHash] - 2;
}

function encrypt(alg, v, input) {
  const a = ENCRYPT_ALGS[alg];
  if (alg === 'RSA1_5') return crypto.publicEncrypt({ key: v.publicKey, padding: RSA_PKCS1_PADDING }, input);
  return crypto.publicEncrypt({ key: v.publicKey, padding: RSA_PKCS1_OAEP_PADDING, oaepHash: a.oaepHash }, input);
}

// PKCS#1 v1.5 type-2 unpadding. The whole block is always scanned and every
// fault gives the same answer, so failures do not tell padding faults apart.
function unpadType2(em) {
  let bad = em[0] | (em[1] ^ 0x02);
  let separator = 0;
  let found = 0;
  for (let i = 2; i < em.length; i++) {
    const zero = em[i] === 0 ? 1 : 0;
    const first = zero & (found ^ 1);
    separator = first ? i : separator;
    found |= zero;
  }
  bad |= found ^ 1;
  bad |= separator < 10 ? 1 : 0;
  return bad ? null : em.subarray(separator + 1);
}

function decrypt(alg, v, input) {
  if (alg === 'RSA1_5') {
    const em = crypto.privateDecrypt({ key: v.privateKey, padding: RSA_NO_PADDING }, input);
    const out = unpadType2(em);
    if (!out) throw new OpError('decryption failed');
    return Buffer.from(out);
  }
  try {
    return crypto.privateDecrypt({ key: v.privateKey, padding: RSA_PKCS1_OAEP_PADDING, oaepHash: ENCRYPT_ALGS[alg].oaepHash }, input);
  } catch (e) {
    throw new OpError('decryption failed');
  }
}

const invalidLength = (member, got, alg, need) =>
  `Invalid length of '${member}': ${got} bytes. ${alg} requires ${need} bytes, encoded with base64url.`;

// Reads a required binary member; answers the Buffer or null after a 400.
function binaryMember(ctx, body, member) {
  if (body[member] === undefined || body[member] === null || body[member] === '') {
    http.badParameter(ctx, `Property '${member}' is required.\r\n`);
    return null;
  }
  const bytes = http.readBinary(body[member]);
  if (!bytes) {
    http.badParameter(ctx, `Content of '${member}' is not base64url.\r\nProperty '${member}' is required.\r\n`);
    return null;
  }
  return bytes;
}

// The checks of the key against the algorithm; answers a refusal text or null.
function keyMismatch(alg, v, signing) {
  const rsa = keystore.isRsa(v.kty);
  if (!signing) return rsa ? null : `Algorithm ${alg} is not supported for key type ${v.kty}.`;
  const a = SIGN_ALGS[alg];
  if (a.family === 'ES') {
    if (rsa) return `Algorithm ${alg} is not supported for key type ${v.kty}.`;
    if (v.pub.crv !== a.crv) return `Algorithm ${alg} is not supported for a key on curve ${v.pub.crv}.`;
    return null;
  }
  return rsa ? null : `Algorithm ${alg} is not supported for key type ${v.kty}.`;
}

function checkLength(ctx, alg, v, member, bytes, signing, operation) {
  if (signing) {
    const a = SIGN_ALGS[alg];
    if (a.family === 'RSNULL') {
      const max = modulusBytes(v) - 11;
      if (bytes.length === 0 || bytes.length > max) {
        http.badParameter(ctx, invalidLength(member, bytes.length, alg, `1 to ${max}`));
        return false;
      }
      return true;
    }
    const need = HASH_BYTES[a.hash];
    if (bytes.length !== need) {
      http.badParameter(ctx, invalidLength(member, bytes.length, alg, need));
      return false;
    }
    return true;
  }
  const k = modulusBytes(v);
  if (operation === 'encrypt' || operation === 'wrapKey') {
    const max = maxPlaintext(alg, k);
    if (bytes.length > max) {
      http.badParameter(ctx, invalidLength(member, bytes.length, alg, `at most ${max}`));
      return false;
    }
  } else if (bytes.length !== k) {
    http.badParameter(ctx, invalidLength(member, bytes.length, alg, k));
    return false;
  }
  return true;
}

// POST /keys/{name}/{version}/{action}; record and v are the key and version.
function operate(ctx, record, v, action) {
  const operation = ACTIONS[action.toLowerCase()];
  const body = http.jsonBody(ctx);
  if (!body) return;
  const signing = operation === 'sign' || operation === 'verify';
  const algs = signing ? SIGN_ALGS : ENCRYPT_ALGS;
  const alg = body.alg;
  if (typeof alg !== 'string' || !Object.prototype.hasOwnProperty.call(algs, alg)) {
    http.badParameter(ctx, 'Property  has invalid value\r\n');
    return;
  }
  const input = binaryMember(ctx, body, operation === 'verify' ? 'digest' : 'value');
  if (!input) return;
  const signature = operation === 'verify' ? binaryMember(ctx, body, 'value') : null;
  if (operation === 'verify' && !signature) return;
  if (!v.attributes.enabled && PRIVATE_OPS.has(operation)) {
    http.forbidden(ctx, `Operation ${operation} is not allowed on a disabled key.`, 'KeyDisabled');
    return;
  }
  if (!v.keyOps.includes(operation)) {
    http.forbidden(ctx, `Operation ${operation} is not permitted on this key.`, 'KeyOperationForbidden');
    return;
  }
  const mismatch = keyMismatch(alg, v, signing);
  if (mismatch) {
    http.badParameter(ctx, mismatch);
    return;
  }
  if (!checkLength(ctx, alg, v, operation === 'verify' ? 'digest' : 'value', input, signing, operation)) return;
  if (PRIVATE_OPS.has(operation) && !v.privateKey) {
    http.badParameter(ctx, `Operation ${operation} needs the private key, and this key was seeded without one.`);
    return;
  }
  const kid = `${ctx.base}/keys/${record.name}/${v.version}`;
  let out;
  try {
    if (operation === 'verify') {
      http.answer(ctx, 200, { value: verify(alg, v, input, signature) });
      return;
    }
    if (operation === 'sign') out = sign(alg, v, input);
    else if (operation === 'encrypt' || operation === 'wrapKey') out = encrypt(alg, v, input);
    else out = decrypt(alg, v, input);
  } catch (e) {
    if (!(e instanceof OpError) && operation === 'sign') throw e;
    http.badParameter(ctx, `The ${operation} operation failed: the value does not fit the key and algorithm.`);
    return;
  }
  http.answer(ctx, 200, { kid, value: b64url(out) });
}

module.exports = { operate, ACTIONS, SIGN_ALGS, ENCRYPT_ALGS, pssEncode, pssVerify, unpadType2 };
