'use strict';
// The front door of every service listener: reads the body, records the
// request, plays scripted answers, then hands over to the service.
const { readBody, splitUrl, send } = require('./util');
const script = require('./script');

const REQUESTS_ON_SOCKET = Symbol('requestsOnSocket');
// Requests received and not yet answered, per service: how parallel the callers really are.
const inFlight = new Map();

function record(store, req, route, body) {
  const sock = req.socket;
  sock[REQUESTS_ON_SOCKET] = (sock[REQUESTS_ON_SOCKET] || 0) + 1;
  const headers = [];
  for (let i = 0; i < req.rawHeaders.length; i += 2) {
    headers.push([req.rawHeaders[i], req.rawHeaders[i + 1]]);
  }
  const entry = {
    service: route.service,
    listener: route.listener,
    host: req.headers.host || '',
    method: req.method,
    url: req.url,
    headers,
    body: body.toString('utf8'),
    tls: Boolean(sock.encrypted),
    newConnection: sock[REQUESTS_ON_SOCKET] === 1,
    status: null,
    scripted: false,
    inFlight: 1,
    time: new Date().toISOString(),
  };
  if (route.vault) entry.vault = route.vault;
  store.state.requests.push(entry);
  return entry;
}

// Notes the status in the log entry as soon as the head is written.
function watchStatus(res, entry) {
  const writeHead = res.writeHead;
  res.writeHead = function patched(status, ...rest) {
    entry.status = status;
    return writeHead.call(this, status, ...rest);
  };
}

// Counts the request in until its answer is finished (or its connection closes), and notes in
// its entry how many of the service's requests were open at its arrival, itself included.
function trackInFlight(service, res, entry) {
  const open = (inFlight.get(service) || 0) + 1;
  inFlight.set(service, open);
  entry.inFlight = open;
  let done = false;
  const finish = () => {
    if (done) return;
    done = true;
    inFlight.set(service, inFlight.get(service) - 1);
  };
  res.on('finish', finish);
  res.on('close', finish);
}

// classify(req) -> {service, vault?}; services: name -> {handle, baseHeaders}.
function frontDoor(store, listener, classify, services) {
  return async (req, res) => {
    let body;
    try {
      body = await readBody(req);
    } catch (e) {
      return;
    }
    const route = Object.assign({ listener, method: req.method }, classify(req));
    route.path = splitUrl(req.url).path;
    route.body = body.toString('utf8');
    const entry = record(store, req, route, body);
    watchStatus(res, entry);
    trackInFlight(route.service, res, entry);
    // A server that drops idle connections without a word: the client learns it on its next
    // request over this connection.
    if (store.settings.closeConnections) res.on('finish', () => setImmediate(() => req.socket.destroy()));
    const latencyMs = route.service === 'vault' && route.vault ? store.vault(route.vault).latencyMs : 0;
    if (latencyMs) await new Promise((resolve) => setTimeout(resolve, latencyMs));
    const svc = services[route.service];
    if (!svc) {
      send(res, 404, { 'content-type': 'text/plain; charset=utf-8' }, 'Not Found');
      return;
    }
    const scripted = script.take(store, route);
    if (scripted && !scripted.pass) {
      entry.scripted = true;
      script.play(req, res, scripted, svc.baseHeaders(req));
      return;
    }
    if (scripted) await script.wait(scripted);
    try {
      await svc.handle(req, res, { body, route });
    } catch (e) {
      process.stderr.write(`emulator: ${route.service} handler failed: ${e.stack}\n`);
      if (!res.headersSent) send(res, 500, {}, null);
    }
  };
}

function list(store, service) {
  const all = store.state.requests;
  return service ? all.filter((r) => r.service === service) : all;
}

module.exports = { frontDoor, list };
