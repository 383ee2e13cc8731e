'use strict';
// Continuation tokens in the service's form:
//   $skiptoken = base64({"NextMarker":"2!<len>!<b64 marker>","TargetLocation":0})
// where the marker is a list of length-prefixed fields
//   "000033!key/<UPPER NAME>!000028!9999-12-31T23:59:59.9999999Z!"
// A vault with a page plan adds one more field: the index of the next page.
// Other collections use their own prefix ("certificate/", "deletedkey/", ...).
const END = '~'; // sorts after every upper-cased key name
const STAMP = '9999-12-31T23:59:59.9999999Z';

const pad6 = (n) => String(n).padStart(6, '0');
const field = (text) => `${pad6(text.length)}!${text}!`;

function encode(upperName, page, prefix = 'key/') {
  let inner = field(`${prefix}${upperName}`) + field(STAMP);
  if (page !== null) inner += field(String(page));
  const b64 = Buffer.from(inner, 'latin1').toString('base64').replace(/=/g, '-');
  const json = JSON.stringify({ NextMarker: `2!${b64.length}!${b64}`, TargetLocation: 0 });
  return Buffer.from(json).toString('base64').replace(/=+$/, '');
}

function readFields(inner) {
  const out = [];
  let at = 0;
  while (at < inner.length) {
    const len = Number(inner.slice(at, at + 6));
    if (!Number.isInteger(len) || inner[at + 6] !== '!' || inner[at + 7 + len] !== '!') return null;
    out.push(inner.slice(at + 7, at + 7 + len));
    at += 8 + len;
  }
  return out;
}

// Answers {upperName, page} or null for a token we cannot read.
function decode(token, prefix = 'key/') {
  try {
    const json = JSON.parse(Buffer.from(token.replace(/-/g, '+').replace(/_/g, '/'), 'base64').toString('utf8'));
    const parts = String(json.NextMarker).split('!');
    if (parts.length !== 3 || parts[0] !== '2') return null;
    const fields = readFields(Buffer.from(parts[2].replace(/-/g, '='), 'base64').toString('latin1'));
    if (!fields || fields.length < 2 || !fields[0].startsWith(prefix)) return null;
    const page = fields.length > 2 ? Number(fields[2]) : 0;
    if (!Number.isInteger(page) || page < 0) return null;
    return { upperName: fields[0].slice(prefix.length), page };
  } catch (e) {
    return null;
  }
}

// Cuts one page out of the sorted entries {upper, record, hidden?}. As on
// the service, a page is a run of stored entries, and entries the listing
// does not show (soft-deleted names) still take their place in it: so pages
// come out short, or empty, with a nextLink.
// at: {upperName|null, page}; plan: per-vault page sizes; size: default size.
function cut(sorted, at, plan, size, prefix = 'key/') {
  const start = at.upperName === null ? 0 : sorted.findIndex((k) => k.upper >= at.upperName);
  const from = start < 0 ? sorted.length : start;
  const count = at.page < plan.length ? plan[at.page] : size;
  const scanned = sorted.slice(from, from + count);
  const items = scanned.filter((e) => !e.hidden);
  const rest = sorted.length - from - scanned.length;
  const more = rest > 0 || at.page + 1 < plan.length;
  if (!more) return { items, next: null };
  const nextName = rest > 0 ? sorted[from + scanned.length].upper : END;
  return { items, next: encode(nextName, plan.length ? at.page + 1 : null, prefix) };
}

module.exports = { encode, decode, cut };
