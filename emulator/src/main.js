#!/usr/bin/env node
'use strict';
// Emulated Azure: Entra ID, IMDS, the Azure Arc agent and Key Vault on
// local listeners, plus a control API for tests. See README.md.
const fs = require('fs');
const http = require('http');
const https = require('https');
const os = require('os');
const path = require('path');
const { Store } = require('./store');
const requestlog = require('./requestlog');
const control = require('./control');
const login = require('./login');
const vault = require('./vault');
const imds = require('./imds');
const arc = require('./arc');
const tlsgen = require('./tlsgen');
const { domainOf } = require('./vaulthttp');

const FLAGS = {
  'https-host': 'httpsHost', 'https-port': 'httpsPort', 'tls-cert': 'tlsCert', 'tls-key': 'tlsKey',
  'untrusted-port': 'untrustedPort', 'untrusted-cert': 'untrustedCert', 'untrusted-key': 'untrustedKey',
  'imds-host': 'imdsHost', 'imds-port': 'imdsPort',
  'arc-host': 'arcHost', 'arc-port': 'arcPort', 'arc-token-dir': 'arcTokenDir', 'arc-realm-dir': 'arcRealmDir',
  'control-port': 'controlPort',
};
const PORTS = ['httpsPort', 'untrustedPort', 'imdsPort', 'arcPort', 'controlPort'];
const LOGIN_HOSTS = ['login.microsoftonline.com', 'login.windows.net', 'login.chinacloudapi.cn',
  'login.microsoftonline.us'];

function usage(message) {
  process.stderr.write(`emulator: ${message}\nflags: ${Object.keys(FLAGS).map((f) => `--${f}`).join(' ')}\n`);
  process.exit(2);
}

function parseArgs(argv) {
  const opts = {
    httpsHost: '127.0.0.1', imdsHost: '127.0.0.1', arcHost: '127.0.0.1', controlPort: '47080',
  };
  for (let i = 0; i < argv.length; i++) {
    const m = /^--([a-z-]+)(?:=(.*))?$/.exec(argv[i]);
    if (!m || !FLAGS[m[1]]) usage(`unknown argument ${argv[i]}`);
    const value = m[2] !== undefined ? m[2] : argv[++i];
    if (value === undefined) usage(`--${m[1]} needs a value`);
    opts[FLAGS[m[1]]] = value;
  }
  for (const p of PORTS) {
    if (opts[p] === undefined) continue;
    const n = Number(opts[p]);
    if (!Number.isInteger(n) || n < 0 || n > 65535) usage(`bad port ${opts[p]}`);
    opts[p] = n;
  }
  return opts;
}

// Host header -> service on the https listeners.
function classifyHttps(req) {
  const host = (req.headers.host || '').replace(/:\d+$/, '').toLowerCase();
  if (LOGIN_HOSTS.includes(host)) return { service: 'login' };
  if (domainOf(host)) return { service: 'vault', vault: host.split('.')[0] };
  return { service: 'unknown' };
}

function tlsMaterial(certFile, keyFile, stem) {
  if (certFile && keyFile) return { cert: fs.readFileSync(certFile), key: fs.readFileSync(keyFile) };
  if (certFile || keyFile) usage(`a certificate and its key go together (${stem})`);
  return tlsgen.selfSigned(scratch(), stem);
}

function listen(server, port, host) {
  return new Promise((resolve, reject) => {
    server.once('error', reject);
    server.listen(port, host, () => {
      server.removeListener('error', reject);
      resolve(server.address().port);
    });
  });
}

// A scratch directory for generated certificates and default Arc key files,
// made on first use and removed on exit.
function scratch() {
  if (!scratch.dir) scratch.dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kestal-emulator-'));
  return scratch.dir;
}

async function start(opts) {
  const store = new Store();
  const vaultSide = { login: login.create(store), vault: vault.create(store) };
  const plan = [];
  if (opts.httpsPort !== undefined) {
    const tls = tlsMaterial(opts.tlsCert, opts.tlsKey, 'https');
    plan.push(['https', https.createServer(tls, requestlog.frontDoor(store, 'https', classifyHttps, vaultSide)),
      opts.httpsPort, opts.httpsHost]);
  }
  if (opts.untrustedPort !== undefined) {
    const tls = tlsMaterial(opts.untrustedCert, opts.untrustedKey, 'untrusted');
    plan.push(['untrusted', https.createServer(tls, requestlog.frontDoor(store, 'untrusted', classifyHttps, vaultSide)),
      opts.untrustedPort, opts.httpsHost]);
  }
  if (opts.imdsPort !== undefined) {
    const door = requestlog.frontDoor(store, 'imds', () => ({ service: 'imds' }), { imds: imds.create(store) });
    plan.push(['imds', http.createServer(door), opts.imdsPort, opts.imdsHost]);
  }
  if (opts.arcPort !== undefined) {
    const cfg = { tokenDir: opts.arcTokenDir || path.join(scratch(), 'arc-tokens'), realmDir: opts.arcRealmDir || null };
    const door = requestlog.frontDoor(store, 'arc', () => ({ service: 'arc' }), { arc: arc.create(store, cfg) });
    plan.push(['arc', http.createServer(door), opts.arcPort, opts.arcHost]);
  }
  plan.push(['control', http.createServer(control.createHandler(store)), opts.controlPort, '127.0.0.1']);

  const ports = {};
  for (const [name, server, port, host] of plan) {
    try {
      ports[name] = await listen(server, port, host);
    } catch (e) {
      process.stderr.write(`emulator: cannot listen for ${name} on ${host}:${port}: ${e.message}\n`);
      process.exit(1);
    }
  }
  return { servers: plan.map((p) => p[1]), ports };
}

function main() {
  const opts = parseArgs(process.argv.slice(2));
  start(opts).then(({ servers, ports }) => {
    const stop = () => {
      for (const s of servers) s.close();
      if (scratch.dir) fs.rmSync(scratch.dir, { recursive: true, force: true });
      process.exit(0);
    };
    process.on('SIGTERM', stop);
    process.on('SIGINT', stop);
    process.stdout.write(`emulator ready ${JSON.stringify(ports)}\n`);
  }, (e) => {
    process.stderr.write(`emulator: cannot start: ${e.message}\n`);
    process.exit(1);
  });
}

if (require.main === module) main();

module.exports = { parseArgs, classifyHttps, start };
