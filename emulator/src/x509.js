'use strict';
// X.509 for the certificates collection: distinguished names from the
// policy's subject text, the extensions a policy asks for, PKCS#10
// requests and self-issued certificates, all signed with real keys.
const crypto = require('crypto');
const der = require('./der');

const NAME_ATTRIBUTES = {
  CN: '2.5.4.3', SN: '2.5.4.4', SERIALNUMBER: '2.5.4.5', C: '2.5.4.6', L: '2.5.4.7', S: '2.5.4.8', ST: '2.5.4.8',
  STREET: '2.5.4.9', O: '2.5.4.10', OU: '2.5.4.11', T: '2.5.4.12', TITLE: '2.5.4.12', G: '2.5.4.42', GN: '2.5.4.42',
  GIVENNAME: '2.5.4.42', I: '2.5.4.43', INITIALS: '2.5.4.43', E: '1.2.840.113549.1.9.1',
  EMAIL: '1.2.840.113549.1.9.1', EMAILADDRESS: '1.2.840.113549.1.9.1', DC: '0.9.2342.19200300.100.1.25',
  UID: '0.9.2342.19200300.100.1.1',
};
const IA5_ATTRIBUTES = new Set(['1.2.840.113549.1.9.1', '0.9.2342.19200300.100.1.25']);

const KEY_USAGE_BITS = {
  digitalSignature: 0, nonRepudiation: 1, keyEncipherment: 2, dataEncipherment: 3, keyAgreement: 4,
  keyCertSign: 5, cRLSign: 6, encipherOnly: 7, decipherOnly: 8,
};

const OID = {
  keyUsage: '2.5.29.15', extKeyUsage: '2.5.29.37', basicConstraints: '2.5.29.19', subjectAltName: '2.5.29.17',
  subjectKeyId: '2.5.29.14', authorityKeyId: '2.5.29.35', extensionRequest: '1.2.840.113549.1.9.14',
  upn: '1.3.6.1.4.1.311.20.2.3',
};

class X509Error extends Error {}

// Splits "CN=a, O=b" at commas or semicolons outside quotes and escapes.
function splitRdns(text) {
  const parts = [];
  let cur = '';
  let quoted = false;
  for (let i = 0; i < text.length; i++) {
    const ch = text[i];
    if (ch === '\\' && i + 1 < text.length) {
      cur += text[++i];
    } else if (ch === '"') {
      quoted = !quoted;
    } else if ((ch === ',' || ch === ';') && !quoted) {
      parts.push(cur);
      cur = '';
    } else {
      cur += ch;
    }
  }
  if (quoted) throw new X509Error('unbalanced quotes in the subject');
  parts.push(cur);
  return parts.map((p) => p.trim()).filter((p) => p.length > 0);
}

function attributeValue(type, value) {
  if (type === '2.5.4.6') return der.printable(value);
  if (IA5_ATTRIBUTES.has(type)) return der.ia5(value);
  return der.isPrintable(value) ? der.printable(value) : der.utf8(value);
}

// A Name from the service's subject text. The text reads as the service's
// platform writes names, most significant RDN last, so the encoding runs
// in reverse order of the text.
// An empty text is an empty Name (a certificate named by its SANs alone).
function encodeName(subject) {
  if (typeof subject !== 'string') throw new X509Error('the subject is not text');
  if (!subject.trim()) return der.seq();
  const rdns = splitRdns(subject).map((part) => {
    const eq = part.indexOf('=');
    if (eq <= 0) throw new X509Error(`cannot read "${part}" in the subject`);
    const key = part.slice(0, eq).trim().toUpperCase();
    const value = part.slice(eq + 1).trim();
    const type = /^OID\.[\d.]+$/.test(key) ? key.slice(4) : /^\d+(\.\d+)+$/.test(key) ? key : NAME_ATTRIBUTES[key];
    if (!type) throw new X509Error(`unknown attribute ${key} in the subject`);
    return der.set(der.seq(der.oid(type), attributeValue(type, value)));
  });
  return der.seq(...rdns.reverse());
}

function keyUsageValue(names) {
  const bits = names.map((n) => {
    const bit = KEY_USAGE_BITS[n];
    if (bit === undefined) throw new X509Error(`unknown key usage ${n}`);
    return bit;
  });
  if (bits.length === 0) return der.bitString(Buffer.alloc(0), 0);
  // DER names the bits up to the last one set and no further.
  const last = Math.max(...bits);
  const bytes = Buffer.alloc((last >> 3) + 1);
  for (const bit of bits) bytes[bit >> 3] |= 0x80 >> (bit & 7);
  return der.bitString(bytes, 7 - (last & 7));
}

const extension = (id, critical, value) =>
  der.seq(der.oid(id), ...(critical ? [der.bool(true)] : []), der.octets(value));

function sanValue(sans) {
  const names = [];
  for (const email of sans.emails || []) names.push(der.implicitPrim(1, Buffer.from(email, 'latin1')));
  for (const dns of sans.dns_names || []) names.push(der.implicitPrim(2, Buffer.from(dns, 'latin1')));
  for (const upn of sans.upns || []) {
    names.push(der.tlv(0xa0, [der.oid(OID.upn), der.explicit(0, der.utf8(upn))]));
  }
  return names.length ? der.seq(...names) : null;
}

function publicKeyBits(spki) {
  const children = der.readWhole(spki).children();
  return children[1].content.subarray(1);
}

// The extensions a policy's x509_props ask for, in the service's order.
function policyExtensions(props, spki, withKeyIds) {
  const out = [];
  const usage = props.key_usage || [];
  if (usage.length) out.push(extension(OID.keyUsage, true, keyUsageValue(usage)));
  const ekus = props.ekus || [];
  if (ekus.length) out.push(extension(OID.extKeyUsage, false, der.seq(...ekus.map((e) => der.oid(e)))));
  const san = props.sans ? sanValue(props.sans) : null;
  if (san) out.push(extension(OID.subjectAltName, false, san));
  const bc = props.basic_constraints || { ca: false };
  out.push(extension(OID.basicConstraints, false, bc.ca ? der.seq(der.bool(true)) : der.seq()));
  if (withKeyIds) {
    const id = crypto.createHash('sha1').update(publicKeyBits(spki)).digest();
    out.push(extension(OID.authorityKeyId, false, der.seq(der.implicitPrim(0, id))));
    out.push(extension(OID.subjectKeyId, false, der.octets(id)));
  }
  return out;
}

const EC_HASH = { 'P-256': 'sha256', 'P-384': 'sha384', 'P-521': 'sha512', 'P-256K': 'sha256' };
const ECDSA_OID = { sha256: '1.2.840.10045.4.3.2', sha384: '1.2.840.10045.4.3.3', sha512: '1.2.840.10045.4.3.4' };

// crv: the key's curve for EC keys, null for RSA.
function signatureAlgorithm(crv) {
  if (!crv) return { hash: 'sha256', der: der.seq(der.oid('1.2.840.113549.1.1.11'), der.nul()) };
  const hash = EC_HASH[crv];
  return { hash, der: der.seq(der.oid(ECDSA_OID[hash])) };
}

function signed(tbs, privateKey, crv) {
  const alg = signatureAlgorithm(crv);
  const signature = crypto.sign(alg.hash, tbs, privateKey);
  return der.seq(tbs, alg.der, der.bitString(signature));
}

// A PKCS#10 request for the key pair, with the policy's extensions requested.
function buildCsr({ subject, props, publicKey, privateKey, crv }) {
  const spki = publicKey.export({ type: 'spki', format: 'der' });
  const exts = policyExtensions(props, spki, false);
  const attributes = der.tlv(0xa0, [der.seq(der.oid(OID.extensionRequest), der.set(der.seq(...exts)))]);
  const info = der.seq(der.int(0), encodeName(subject), spki, attributes);
  return signed(info, privateKey, crv);
}

function serialNumber() {
  const bytes = crypto.randomBytes(16);
  bytes[0] = (bytes[0] & 0x7f) | 0x40;
  return bytes;
}

// A self-issued X.509 v3 certificate signed with its own key.
function buildSelfSigned({ subject, props, publicKey, privateKey, crv, notBefore, notAfter }) {
  const spki = publicKey.export({ type: 'spki', format: 'der' });
  const name = encodeName(subject);
  const tbs = der.seq(
    der.explicit(0, der.int(2)),
    der.int(serialNumber()),
    signatureAlgorithm(crv).der,
    name,
    der.seq(der.time(notBefore), der.time(notAfter)),
    name,
    spki,
    der.explicit(3, der.seq(...policyExtensions(props, spki, true))),
  );
  return signed(tbs, privateKey, crv);
}

// "Months later" the way calendars count, kept within the target month.
function addMonths(date, months) {
  const d = new Date(date.getTime());
  const day = d.getUTCDate();
  d.setUTCDate(1);
  d.setUTCMonth(d.getUTCMonth() + months);
  const last = new Date(Date.UTC(d.getUTCFullYear(), d.getUTCMonth() + 1, 0)).getUTCDate();
  d.setUTCDate(Math.min(day, last));
  return d;
}

// Reads a certificate given in x5c: standard base64 of the DER, or (as one
// client library once sent, and the service accepted) base64 of that text.
function decodeX5c(entry) {
  if (typeof entry !== 'string' || !/^[A-Za-z0-9+/\s]+={0,2}$/.test(entry)) return null;
  let bytes = Buffer.from(entry, 'base64');
  if (bytes.length && bytes[0] !== 0x30) {
    const inner = bytes.toString('latin1');
    if (/^[A-Za-z0-9+/\s]+={0,2}$/.test(inner)) bytes = Buffer.from(inner, 'base64');
  }
  return bytes;
}

// Answers {der, x509 (crypto.X509Certificate), publicKey, notBefore, notAfter} or throws.
function parseCertificate(bytes) {
  let x509;
  try {
    der.readWhole(bytes);
    x509 = new crypto.X509Certificate(bytes);
  } catch (e) {
    throw new X509Error(`not a certificate: ${e.message}`);
  }
  return {
    der: Buffer.from(bytes),
    x509,
    publicKey: x509.publicKey,
    notBefore: new Date(x509.validFrom),
    notAfter: new Date(x509.validTo),
  };
}

function thumbprint(certDer) {
  return crypto.createHash('sha1').update(certDer).digest();
}

module.exports = {
  encodeName, buildCsr, buildSelfSigned, addMonths, decodeX5c, parseCertificate, thumbprint, X509Error,
  KEY_USAGE_BITS,
};
