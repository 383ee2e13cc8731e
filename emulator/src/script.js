'use strict';
// Scripted answers: queued per route, consumed one per matching request
// before the service's own handling.
const { send } = require('./util');

const SERVICES = ['login', 'vault', 'imds', 'arc'];
const MAX_DELAY_MS = 120000;

function validate(entry) {
  if (!entry || !SERVICES.includes(entry.service)) return 'service must be one of ' + SERVICES.join(', ');
  if (!Array.isArray(entry.responses) || entry.responses.length === 0) return 'responses must be a non-empty array';
  for (const r of entry.responses) {
    if (!r || (!r.drop && !Number.isInteger(r.status))) return 'each response needs a status or drop';
  }
  return null;
}

function add(store, entry) {
  store.state.scripts.push({
    service: entry.service,
    method: entry.method ? String(entry.method).toUpperCase() : null,
    path: entry.path || null,
    vault: entry.vault ? String(entry.vault).toLowerCase() : null,
    responses: entry.responses.slice(),
  });
}

function matches(s, route) {
  return s.service === route.service &&
    (!s.method || s.method === route.method) &&
    (!s.path || s.path === route.path) &&
    (!s.vault || s.vault === route.vault);
}

// Takes the next scripted response for a route, or null.
function take(store, route) {
  const list = store.state.scripts;
  const i = list.findIndex((s) => matches(s, route));
  if (i < 0) return null;
  const r = list[i].responses.shift();
  if (list[i].responses.length === 0) list.splice(i, 1);
  return r;
}

function play(req, res, r, baseHeaders) {
  const go = () => {
    if (r.drop) {
      req.socket.destroy();
      return;
    }
    const headers = Object.assign({}, baseHeaders, lowerKeys(r.headers || {}));
    const body = r.body === undefined || r.body === null ? null
      : typeof r.body === 'string' ? r.body : JSON.stringify(r.body);
    send(res, r.status, headers, body);
  };
  const delay = Math.min(Number(r.delay) || 0, MAX_DELAY_MS);
  if (delay > 0) setTimeout(go, delay); else go();
}

function lowerKeys(obj) {
  const out = {};
  for (const [k, v] of Object.entries(obj)) out[k.toLowerCase()] = v;
  return out;
}

module.exports = { validate, add, take, play };
