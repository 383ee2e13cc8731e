'use strict';
// Scripted answers: queued per route, consumed one per matching request
// before the service's own handling.
const { send } = require('./util');

const SERVICES = ['login', 'vault', 'imds', 'arc'];
const MAX_DELAY_MS = 120000;

function validate(spec) {
  if (!spec || !SERVICES.includes(spec.service)) return 'service must be one of ' + SERVICES.join(', ');
  if (!Array.isArray(spec.responses) || spec.responses.length === 0) return 'responses must be a non-empty array';
  for (const r of spec.responses) {
    if (!r || (!r.drop && !Number.isInteger(r.status))) return 'each response needs a status or drop';
  }
  return null;
}

function add(store, spec) {
  store.state.scripts.push({
    service: spec.service,
    method: spec.method ? String(spec.method).toUpperCase() : null,
    path: spec.path || null,
    vault: spec.vault ? String(spec.vault).toLowerCase() : null,
    responses: spec.responses.slice(),
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
