'use strict';
// Scripted answers: queued per route, consumed one per matching request
// before the service's own handling.
//
// An entry {service, method?, path?, pathPattern?, vault?, bodyContains?,
// skip?, responses} matches requests of that service (and method, exact
// path or path regular expression, vault, and request body text). The
// first `skip` matching requests are handled normally; then each response
// answers one request, in order:
//   {status, headers?, body?, delay?, repeat?, truncate?}  a made-up answer
//   {drop: true, delay?}     close the connection without an answer
//   {reset: true, delay?}    abort the connection (TCP reset)
//   {pass: true, delay?}     let the service answer (after the delay)
// `repeat` uses a response that many times; `truncate` sends only that
// many bytes of the body (the head announces all of it) and then closes;
// `brokenChunked` announces a chunked body, sends the body without chunk
// framing and leaves the connection open (the client waits for a chunk
// that never ends); `padTo` fills the body with spaces up to that many
// bytes (a large answer without a large script).
const http = require('http');
const { send } = require('./util');

const SERVICES = ['login', 'vault', 'imds', 'arc'];
const MAX_DELAY_MS = 120000;

const count = (v) => v === undefined || (Number.isInteger(v) && v >= 0);

function validate(entry) {
  if (!entry || !SERVICES.includes(entry.service)) return 'service must be one of ' + SERVICES.join(', ');
  if (!Array.isArray(entry.responses) || entry.responses.length === 0) return 'responses must be a non-empty array';
  if (!count(entry.skip)) return 'skip must be a whole number';
  if (entry.pathPattern !== undefined) {
    try {
      new RegExp(entry.pathPattern); // eslint-disable-line no-new
    } catch (e) {
      return 'pathPattern must be a regular expression';
    }
  }
  if (entry.bodyContains !== undefined && typeof entry.bodyContains !== 'string') return 'bodyContains must be text';
  for (const r of entry.responses) {
    if (!r || (!r.drop && !r.reset && !r.pass && !Number.isInteger(r.status))) {
      return 'each response needs a status, drop, reset or pass';
    }
    if (r.repeat !== undefined && !(Number.isInteger(r.repeat) && r.repeat >= 1)) return 'repeat must be a whole number from 1';
    if (!count(r.truncate)) return 'truncate must be a whole number';
    if (!count(r.padTo) || r.padTo > 64 * 1024 * 1024) return 'padTo must be a whole number up to 64 MB';
  }
  return null;
}

function add(store, entry) {
  store.state.scripts.push({
    service: entry.service,
    method: entry.method ? String(entry.method).toUpperCase() : null,
    path: entry.path || null,
    pathPattern: entry.pathPattern || null,
    vault: entry.vault ? String(entry.vault).toLowerCase() : null,
    bodyContains: entry.bodyContains === undefined ? null : entry.bodyContains,
    skip: entry.skip || 0,
    responses: entry.responses.map((r) => Object.assign({}, r)),
  });
}

function matches(s, route) {
  return s.service === route.service &&
    (!s.method || s.method === route.method) &&
    (!s.path || s.path === route.path) &&
    (!s.pathPattern || new RegExp(s.pathPattern).test(route.path)) &&
    (!s.vault || s.vault === route.vault) &&
    (s.bodyContains === null || (route.body || '').includes(s.bodyContains));
}

// Takes the next scripted response for a route, or null.
function take(store, route) {
  const list = store.state.scripts;
  const i = list.findIndex((s) => matches(s, route));
  if (i < 0) return null;
  const s = list[i];
  if (s.skip > 0) {
    s.skip -= 1;
    return null;
  }
  const r = s.responses[0];
  if (r.repeat > 1) {
    r.repeat -= 1;
  } else {
    s.responses.shift();
  }
  if (s.responses.length === 0) list.splice(i, 1);
  return Object.assign({}, r);
}

function delayOf(r) {
  return Math.min(Number(r.delay) || 0, MAX_DELAY_MS);
}

// Waits out a response's delay (for pass-through responses).
function wait(r) {
  const ms = delayOf(r);
  return ms > 0 ? new Promise((resolve) => setTimeout(resolve, ms)) : Promise.resolve();
}

function play(req, res, r, baseHeaders) {
  const go = () => {
    if (r.drop) {
      req.socket.destroy();
      return;
    }
    if (r.reset) {
      reset(req.socket);
      return;
    }
    const headers = Object.assign({}, baseHeaders, lowerKeys(r.headers || {}));
    let body = r.body === undefined || r.body === null ? null
      : typeof r.body === 'string' ? r.body : JSON.stringify(r.body);
    if (r.padTo > 0) body = (body || '') + ' '.repeat(Math.max(0, r.padTo - Buffer.byteLength(body || '')));
    if (r.brokenChunked) {
      // Written past Node's HTTP layer, which would frame the chunks properly.
      const lines = [`HTTP/1.1 ${r.status} ${http.STATUS_CODES[r.status] || 'Unknown'}`];
      for (const [k, v] of Object.entries(headers)) if (k !== 'content-length') lines.push(`${k}: ${v}`);
      lines.push('transfer-encoding: chunked');
      req.socket.write(lines.join('\r\n') + '\r\n\r\n' + (body || ''));
      return;
    }
    if (r.truncate === undefined) {
      send(res, r.status, headers, body);
      return;
    }
    const data = Buffer.from(body || '');
    res.writeHead(r.status, Object.assign(headers, { 'content-length': String(data.length) }));
    res.write(data.subarray(0, Math.min(r.truncate, data.length)), () => req.socket.destroy());
  };
  const delay = delayOf(r);
  if (delay > 0) setTimeout(go, delay); else go();
}

// Aborts a connection with a TCP reset. A TLS socket is reset through the
// TCP socket beneath it; where that is not possible, it is just closed.
function reset(socket) {
  for (const s of [socket._parent, socket]) {
    if (s && typeof s.resetAndDestroy === 'function') {
      try {
        s.resetAndDestroy();
        if (s !== socket) socket.destroy();
        return;
      } catch (e) {
        // Not a TCP handle: try the next, or close.
      }
    }
  }
  socket.destroy();
}

function lowerKeys(obj) {
  const out = {};
  for (const [k, v] of Object.entries(obj)) out[k.toLowerCase()] = v;
  return out;
}

module.exports = { validate, add, take, play, wait };
