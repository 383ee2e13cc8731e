'use strict';
// Small helpers shared by the service modules.
const crypto = require('crypto');

const MAX_BODY = 4 * 1024 * 1024;

function guid() {
  return crypto.randomUUID();
}

function hex32() {
  return crypto.randomBytes(16).toString('hex');
}

function nowSeconds() {
  return Math.floor(Date.now() / 1000);
}

function b64url(buf) {
  return Buffer.from(buf).toString('base64')
    .replace(/=+$/, '').replace(/\+/g, '-').replace(/\//g, '_');
}

function fromB64url(text) {
  return Buffer.from(text.replace(/-/g, '+').replace(/_/g, '/'), 'base64');
}

function readBody(req) {
  return new Promise((resolve, reject) => {
    const chunks = [];
    let size = 0;
    req.on('data', (c) => {
      size += c.length;
      if (size > MAX_BODY) {
        reject(new Error('body too large'));
        req.destroy();
        return;
      }
      chunks.push(c);
    });
    req.on('end', () => resolve(Buffer.concat(chunks)));
    req.on('error', reject);
  });
}

// Splits "path?query" without touching "+" (ASP.NET and IMDS treat the
// query with percent-decoding only).
function splitUrl(rawUrl) {
  const at = rawUrl.indexOf('?');
  const path = at < 0 ? rawUrl : rawUrl.slice(0, at);
  const query = at < 0 ? '' : rawUrl.slice(at + 1);
  return { path, query, params: parseQuery(query) };
}

// Query parameters with lower-cased names; the first occurrence wins.
function parseQuery(query) {
  const out = {};
  for (const part of query.split('&')) {
    if (!part) continue;
    const eq = part.indexOf('=');
    const name = safeDecode(eq < 0 ? part : part.slice(0, eq)).toLowerCase();
    const value = eq < 0 ? '' : safeDecode(part.slice(eq + 1));
    if (!(name in out)) out[name] = value;
  }
  return out;
}

function safeDecode(text) {
  try {
    return decodeURIComponent(text);
  } catch (e) {
    return text;
  }
}

function header(req, name) {
  const v = req.headers[name.toLowerCase()];
  return Array.isArray(v) ? v[0] : v;
}

// Writes a complete answer; body is a string, Buffer, object (JSON) or null.
function send(res, status, headers, body) {
  let payload = body;
  if (payload !== null && payload !== undefined && typeof payload === 'object' &&
      !Buffer.isBuffer(payload)) {
    payload = JSON.stringify(payload);
  }
  const data = payload === null || payload === undefined ? Buffer.alloc(0) : Buffer.from(payload);
  const all = Object.assign({}, headers, { 'content-length': String(data.length) });
  res.writeHead(status, all);
  res.end(data);
}

module.exports = {
  guid, hex32, nowSeconds, b64url, fromB64url, readBody, splitUrl, parseQuery, header, send,
};
