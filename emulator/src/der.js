'use strict';
// A small DER encoder and reader: enough ASN.1 to build certificates and
// certification requests and to read back the parts of a certificate the
// vault looks at. Encoders answer Buffers; the reader answers nodes.

function lengthBytes(n) {
  if (n < 0x80) return Buffer.from([n]);
  const bytes = [];
  for (let v = n; v > 0; v = Math.floor(v / 256)) bytes.unshift(v & 0xff);
  return Buffer.from([0x80 | bytes.length, ...bytes]);
}

function tlv(tag, content) {
  const body = Buffer.isBuffer(content) ? content : Buffer.concat(content);
  return Buffer.concat([Buffer.from([tag]), lengthBytes(body.length), body]);
}

const seq = (...items) => tlv(0x30, items.flat());
const set = (...items) => tlv(0x31, items.flat());

// DER SET OF: members sorted by their encodings.
const setOf = (items) => tlv(0x31, items.slice().sort(Buffer.compare));

// An INTEGER from a non-negative number, bigint or unsigned big-endian Buffer.
function int(value) {
  let bytes;
  if (Buffer.isBuffer(value)) {
    bytes = value;
  } else {
    let hex = BigInt(value).toString(16);
    if (hex.length % 2) hex = `0${hex}`;
    bytes = Buffer.from(hex, 'hex');
  }
  let start = 0;
  while (start < bytes.length - 1 && bytes[start] === 0) start++;
  bytes = bytes.subarray(start);
  if (bytes.length === 0) bytes = Buffer.from([0]);
  if (bytes[0] & 0x80) bytes = Buffer.concat([Buffer.from([0]), bytes]);
  return tlv(0x02, bytes);
}

function oid(dotted) {
  const parts = dotted.split('.').map((p) => BigInt(p));
  const out = [Number(parts[0] * 40n + parts[1])];
  for (const part of parts.slice(2)) {
    const groups = [];
    let v = part;
    do {
      groups.unshift(Number(v & 0x7fn));
      v >>= 7n;
    } while (v > 0n);
    for (let i = 0; i < groups.length - 1; i++) groups[i] |= 0x80;
    out.push(...groups);
  }
  return tlv(0x06, Buffer.from(out));
}

const nul = () => Buffer.from([0x05, 0x00]);
const bool = (v) => tlv(0x01, Buffer.from([v ? 0xff : 0x00]));
const octets = (buf) => tlv(0x04, buf);
const bitString = (buf, unused = 0) => tlv(0x03, Buffer.concat([Buffer.from([unused]), buf]));
const utf8 = (text) => tlv(0x0c, Buffer.from(text, 'utf8'));
const printable = (text) => tlv(0x13, Buffer.from(text, 'latin1'));
const ia5 = (text) => tlv(0x16, Buffer.from(text, 'latin1'));
// [n] EXPLICIT, constructed.
const explicit = (n, content) => tlv(0xa0 | n, content);
// [n] IMPLICIT of a primitive type.
const implicitPrim = (n, bytes) => tlv(0x80 | n, bytes);

const PRINTABLE = /^[A-Za-z0-9 '()+,\-./:=?]*$/;
const isPrintable = (text) => PRINTABLE.test(text);

// RFC 5280: UTCTime through 2049, GeneralizedTime from 2050.
function time(date) {
  const iso = date.toISOString();
  const digits = iso.slice(0, 19).replace(/[-T:]/g, '');
  const year = date.getUTCFullYear();
  if (year >= 1950 && year < 2050) return tlv(0x17, Buffer.from(`${digits.slice(2)}Z`, 'latin1'));
  return tlv(0x18, Buffer.from(`${digits}Z`, 'latin1'));
}

// The reader. read(buf) answers the node at the start of buf:
// {tag, start, headerLength, length, end, content, raw, children()}.
class DerError extends Error {}

function read(buf, at = 0) {
  if (at + 2 > buf.length) throw new DerError('truncated');
  const tag = buf[at];
  if ((tag & 0x1f) === 0x1f) throw new DerError('high tag numbers are not supported');
  let length = buf[at + 1];
  let headerLength = 2;
  if (length & 0x80) {
    const count = length & 0x7f;
    if (count === 0 || count > 4) throw new DerError('unsupported length');
    if (at + 2 + count > buf.length) throw new DerError('truncated');
    length = 0;
    for (let i = 0; i < count; i++) length = length * 256 + buf[at + 2 + i];
    headerLength += count;
  }
  const start = at + headerLength;
  const end = start + length;
  if (end > buf.length) throw new DerError('truncated');
  return {
    tag,
    start: at,
    headerLength,
    length,
    end,
    content: buf.subarray(start, end),
    raw: buf.subarray(at, end),
    children() {
      const out = [];
      for (let p = start; p < end;) {
        const child = read(buf, p);
        out.push(child);
        p = child.end;
      }
      return out;
    },
  };
}

// Reads one complete value and insists nothing follows it.
function readWhole(buf) {
  const node = read(buf, 0);
  if (node.end !== buf.length) throw new DerError('trailing bytes');
  return node;
}

function readOid(node) {
  const b = node.content;
  if (node.tag !== 0x06 || b.length === 0) throw new DerError('not an OID');
  const parts = [];
  let v = 0n;
  for (let i = 0; i < b.length; i++) {
    v = (v << 7n) | BigInt(b[i] & 0x7f);
    if (!(b[i] & 0x80)) {
      parts.push(v);
      v = 0n;
    }
  }
  const first = parts.shift();
  const a = first < 80n ? first / 40n : 2n;
  return [a, first - a * 40n, ...parts].join('.');
}

function readTime(node) {
  const text = node.content.toString('latin1');
  let m;
  if (node.tag === 0x17 && (m = /^(\d\d)(\d\d)(\d\d)(\d\d)(\d\d)(\d\d)Z$/.exec(text))) {
    const yy = Number(m[1]);
    return new Date(Date.UTC(yy < 50 ? 2000 + yy : 1900 + yy, m[2] - 1, m[3], m[4], m[5], m[6]));
  }
  if (node.tag === 0x18 && (m = /^(\d{4})(\d\d)(\d\d)(\d\d)(\d\d)(\d\d)Z$/.exec(text))) {
    return new Date(Date.UTC(m[1], m[2] - 1, m[3], m[4], m[5], m[6]));
  }
  throw new DerError('unsupported time');
}

module.exports = {
  tlv, seq, set, setOf, int, oid, nul, bool, octets, bitString, utf8, printable, ia5, explicit, implicitPrim,
  isPrintable, time, read, readWhole, readOid, readTime, DerError,
};
