'use strict';
// ECDSA over a digest the caller already computed, as the vault's sign and
// verify take it. Node's crypto always hashes what it signs, so the curve
// arithmetic is done here (Jacobian coordinates over BigInt); key material
// still comes from, and is checked against, Node's KeyObjects.
const crypto = require('crypto');

const hex = (h) => BigInt(`0x${h}`);

const CURVES = {
  'P-256': {
    p: hex('ffffffff00000001000000000000000000000000ffffffffffffffffffffffff'),
    a: -3n,
    n: hex('ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551'),
    gx: hex('6b17d1f2e12c4247f8bce6e563a440f277037d812deb33a0f4a13945d898c296'),
    gy: hex('4fe342e2fe1a7f9b8ee7eb4a7c0f9e162bce33576b315ececbb6406837bf51f5'),
    bytes: 32,
  },
  'P-384': {
    p: hex('fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffeffffffff0000000000000000ffffffff'),
    a: -3n,
    n: hex('ffffffffffffffffffffffffffffffffffffffffffffffffc7634d81f4372ddf581a0db248b0a77aecec196accc52973'),
    gx: hex('aa87ca22be8b05378eb1c71ef320ad746e1d3b628ba79b9859f741e082542a385502f25dbf55296c3a545e3872760ab7'),
    gy: hex('3617de4a96262c6f5d9e98bf9292dc29f8f41dbd289a147ce9da3113b5f0b8c00a60b1ce1d7e819d7a431d7c90ea0e5f'),
    bytes: 48,
  },
  'P-521': {
    p: (1n << 521n) - 1n,
    a: -3n,
    n: hex('01fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffa51868783bf2f966b7fcc0148f709a5d03bb5c9b8899c47aebb6fb71e91386409'),
    gx: hex('00c6858e06b70404e9cd9e3ecb662395b4429c648139053fb521f828af606b4d3dbaa14b5e77efe75928fe1dc127a2ffa8de3348b3c1856a429bf97e7e31c2e5bd66'),
    gy: hex('011839296a789a3bc0045c8a5fb42c7d1bd998f54449579b446817afbd17273e662c97ee72995ef42640c550b9013fad0761353c7086a272c24088be94769fd16650'),
    bytes: 66,
  },
  'P-256K': {
    p: hex('fffffffffffffffffffffffffffffffffffffffffffffffffffffffefffffc2f'),
    a: 0n,
    n: hex('fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364141'),
    gx: hex('79be667ef9dcbbac55a06295ce870b07029bfcdb2dce28d959f2815b16f81798'),
    gy: hex('483ada7726a3c4655da4fbfc0e1108a8fd17b448a68554199c47d08ffb10d4b8'),
    bytes: 32,
  },
};

function mod(a, m) {
  const r = a % m;
  return r < 0n ? r + m : r;
}

function inverse(a, m) {
  let [oldR, r] = [mod(a, m), m];
  let [oldS, s] = [1n, 0n];
  while (r !== 0n) {
    const q = oldR / r;
    [oldR, r] = [r, oldR - q * r];
    [oldS, s] = [s, oldS - q * s];
  }
  if (oldR !== 1n) throw new Error('not invertible');
  return mod(oldS, m);
}

// Points are [X, Y, Z] in Jacobian coordinates; Z = 0 is the point at infinity.
const INFINITY = [1n, 1n, 0n];

function double(c, [x, y, z]) {
  const { p } = c;
  if (z === 0n || y === 0n) return INFINITY;
  const yy = mod(y * y, p);
  const s = mod(4n * x * yy, p);
  const zz = mod(z * z, p);
  const m = mod(3n * x * x + c.a * zz * zz, p);
  const x3 = mod(m * m - 2n * s, p);
  const y3 = mod(m * (s - x3) - 8n * yy * yy, p);
  const z3 = mod(2n * y * z, p);
  return [x3, y3, z3];
}

function add(c, P, Q) {
  const { p } = c;
  if (P[2] === 0n) return Q;
  if (Q[2] === 0n) return P;
  const z1z1 = mod(P[2] * P[2], p);
  const z2z2 = mod(Q[2] * Q[2], p);
  const u1 = mod(P[0] * z2z2, p);
  const u2 = mod(Q[0] * z1z1, p);
  const s1 = mod(P[1] * Q[2] * z2z2, p);
  const s2 = mod(Q[1] * P[2] * z1z1, p);
  if (u1 === u2) return s1 === s2 ? double(c, P) : INFINITY;
  const h = mod(u2 - u1, p);
  const r = mod(s2 - s1, p);
  const hh = mod(h * h, p);
  const hhh = mod(h * hh, p);
  const v = mod(u1 * hh, p);
  const x3 = mod(r * r - hhh - 2n * v, p);
  const y3 = mod(r * (v - x3) - s1 * hhh, p);
  const z3 = mod(h * P[2] * Q[2], p);
  return [x3, y3, z3];
}

function multiply(c, k, P) {
  let result = INFINITY;
  for (let i = BigInt(k.toString(2).length) - 1n; i >= 0n; i--) {
    result = double(c, result);
    if ((k >> i) & 1n) result = add(c, result, P);
  }
  return result;
}

function affineX(c, [x, , z]) {
  const zi = inverse(z, c.p);
  return mod(x * zi * zi, c.p);
}

function affine(c, [x, y, z]) {
  const zi = inverse(z, c.p);
  const zi2 = mod(zi * zi, c.p);
  return [mod(x * zi2, c.p), mod(y * zi2 * zi, c.p)];
}

const toInt = (buf) => (buf.length ? BigInt(`0x${buf.toString('hex')}`) : 0n);

function toBytes(n, size) {
  return Buffer.from(n.toString(16).padStart(size * 2, '0'), 'hex');
}

// The digest as an integer, cut to the order's bit length as ECDSA does.
function digestInt(c, digest) {
  const nBits = c.n.toString(2).length;
  let e = toInt(digest);
  const extra = digest.length * 8 - nBits;
  if (extra > 0) e >>= BigInt(extra);
  return e;
}

function randomScalar(c) {
  for (;;) {
    const k = mod(toInt(crypto.randomBytes(c.bytes + 8)), c.n);
    if (k !== 0n) return k;
  }
}

const jwkInt = (b64) => toInt(Buffer.from(b64, 'base64url'));

// Signs a digest with a private KeyObject on the named vault curve; answers r‖s.
function sign(crv, privateKey, digest) {
  const c = CURVES[crv];
  const d = jwkInt(privateKey.export({ format: 'jwk' }).d);
  const e = digestInt(c, digest);
  const G = [c.gx, c.gy, 1n];
  for (;;) {
    const k = randomScalar(c);
    const r = mod(affineX(c, multiply(c, k, G)), c.n);
    if (r === 0n) continue;
    const s = mod(inverse(k, c.n) * (e + r * d), c.n);
    if (s === 0n) continue;
    return Buffer.concat([toBytes(r, c.bytes), toBytes(s, c.bytes)]);
  }
}

// Verifies r‖s over a digest with a public KeyObject on the named vault curve.
function verify(crv, publicKey, digest, signature) {
  const c = CURVES[crv];
  if (signature.length !== 2 * c.bytes) return false;
  const r = toInt(signature.subarray(0, c.bytes));
  const s = toInt(signature.subarray(c.bytes));
  if (r <= 0n || r >= c.n || s <= 0n || s >= c.n) return false;
  const jwk = publicKey.export({ format: 'jwk' });
  const Q = [jwkInt(jwk.x), jwkInt(jwk.y), 1n];
  const w = inverse(s, c.n);
  const e = digestInt(c, digest);
  const X = add(c, multiply(c, mod(e * w, c.n), [c.gx, c.gy, 1n]), multiply(c, mod(r * w, c.n), Q));
  if (X[2] === 0n) return false;
  return mod(affineX(c, X), c.n) === r;
}

// The public point d·G, for checking the curve constants against OpenSSL.
function publicPoint(crv, d) {
  const c = CURVES[crv];
  return affine(c, multiply(c, d, [c.gx, c.gy, 1n])).map((v) => toBytes(v, c.bytes));
}

module.exports = { sign, verify, publicPoint, CURVES };
